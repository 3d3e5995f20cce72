// What the worker base does itself: status reports, errors that start
// recovery, the thread body and the stop request it obeys.
#include "api/worker.h"

#include "api/connection_monitor.h"
#include "api/engine_interface.h"

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
