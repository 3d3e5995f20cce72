// What the engine and sender bases do themselves: starting and stopping the
// worker's thread, the stop request, and the send-queue bound.
#include "api/engine_interface.h"

#include <chrono>
#include <system_error>

// ---- Engine ---------------------------------------------------------------

void CVartoEngine::acknowledge_stop()
{
    // Lowered only while raised: a worker that ends for another reason must
    // not leave a negative count that would read as a stop later on.
    int seen = stop_request_.load(std::memory_order_acquire);
    while (seen > 0 && !stop_request_.compare_exchange_weak(seen, seen - 1, std::memory_order_acq_rel)) {
    }
}

int CVartoEngine::removeWatchesByContext(void *context)
{
    if (!connected() || !context)
        return 0;
    return remove_watches([context](const sWatchData &w) { return w.context == context; });
}

int CVartoEngine::removeWatchesByReceiver(CZelReceiver *receiver)
{
    if (!connected() || !receiver)
        return 0;
    return remove_watches([receiver](const sWatchData &w) { return w.receiver == receiver; });
}

int CVartoEngine::removeAllWatches(int *)
{
    if (!connected())
        return 0;
    // A watch without receiver stays.
    return remove_watches([](const sWatchData &w) { return w.receiver != nullptr; });
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
