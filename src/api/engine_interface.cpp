// What the engine and worker bases do themselves: starting and stopping the
// worker's thread, the stop request, and status reports.
#include "api/engine_interface.h"

#include <chrono>
#include <system_error>

#include "api/connection_monitor.h"

// ---- Engine ---------------------------------------------------------------

void CVartoEngine::acknowledge_stop()
{
    // Lowered only while raised: a worker that ends for another reason must
    // not leave a negative count that would read as a stop later on.
    int seen = stop_request_.load(std::memory_order_acquire);
    while (seen > 0 && !stop_request_.compare_exchange_weak(seen, seen - 1, std::memory_order_acq_rel)) {
    }
}

bool CVartoEngine::worker_running() const
{
    return worker_ && !worker_->finished();
}

bool CVartoEngine::start_worker(CVartoWorker *worker)
{
    try {
        thread_ = std::thread(&CVartoWorker::thread_main, worker);
    } catch (const std::system_error &) {
        return false;
    }
    worker_ = worker;
    while (worker->connection_state() == CVartoWorker::first_attempt && !worker->finished())
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return true;
}

void CVartoEngine::stop_worker()
{
    if (!worker_)
        return;
    int idle = 0;
    stop_request_.compare_exchange_strong(idle, 1, std::memory_order_acq_rel);
    worker_->wake();
    worker_->loop().post_quit();
    thread_.join();
    worker_ = nullptr;
}

// ---- Sender ---------------------------------------------------------------

namespace {

constexpr uint64_t default_send_queue_limit = 64 * 1024 * 1024;
std::atomic<uint64_t> send_queue_limit{default_send_queue_limit};

} // namespace

uint64_t CVartoSender::queue_limit()
{
    return send_queue_limit.load(std::memory_order_relaxed);
}

extern "C" void zel_set_send_queue_limit(uint64_t bytes)
{
    send_queue_limit.store(bytes ? bytes : default_send_queue_limit, std::memory_order_relaxed);
}

// ---- Worker ---------------------------------------------------------------

int CVartoWorker::reportStatus(int level, std::string text)
{
    if (stop_requested()) {
        loop_.post_quit();
        return 1;
    }
    if (monitor_)
        monitor_->report(level, text);
    return 1;
}

int CVartoWorker::onError(int code, const char *text)
{
    if (code == 0)
        return 1;
    recover();
    reportStatus(0, std::string(text) + " : " + std::to_string(code));
    return 1;
}

int CVartoWorker::run()
{
    serve();
    if (CVartoEngine *owner = engine())
        owner->acknowledge_stop();
    return 1;
}

void CVartoWorker::timer_fired(unsigned) {}

int CVartoWorker::setMonitor(CVartoSpy *monitor)
{
    monitor_ = monitor;
    return 0;
}

void CVartoWorker::end_first_attempt(ConnectionState state)
{
    int expected = first_attempt;
    connection_state_.compare_exchange_strong(expected, state, std::memory_order_acq_rel);
}

CVartoEngine *CVartoWorker::engine() const
{
    return monitor_ ? monitor_->engine() : nullptr;
}

bool CVartoWorker::stop_requested() const
{
    CVartoEngine *owner = engine();
    return owner && owner->stop_requested();
}

void CVartoWorker::thread_main()
{
    run();
    // Serve returned without ever connecting: create_connection must not
    // wait on.
    end_first_attempt(first_attempt_failed);
    // Serve has returned: what is left is the timers it armed (recovery),
    // until one of them or a stop ends the loop.
    loop_.run([this](unsigned id) { timer_fired(id); });
    finished_.store(true, std::memory_order_release);
}
