// What the worker base does itself: status reports, errors that start
// recovery, the thread body and the stop request it obeys.
#include "api/worker.h"

#include "api/connection_monitor.h"
#include "api/engine_interface.h"
#include "platform/environment_number.h"

#include <climits>

namespace {

constexpr unsigned reconnect_timer_id = 1000;

// Reconnect delays: 2000 ms doubled before every retry, saturating. Tests may
// lower the base and cap the delay through the environment.
unsigned base_delay_ms()
{
    return zel::positive_from_environment("ZEL_RECONNECT_BASE_MS", 2000);
}

unsigned doubled_delay_ms(unsigned delay)
{
    const unsigned cap = zel::positive_from_environment("ZEL_RECONNECT_MAX_MS", INT_MAX);
    return delay >= cap / 2 ? cap : delay * 2;
}

} // namespace

CVartoWorker::CVartoWorker() : reconnect_delay_ms_(base_delay_ms()) {}

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

void CVartoWorker::schedule_reconnect()
{
    reconnect_delay_ms_ = doubled_delay_ms(reconnect_delay_ms_);
    loop_.set_timer(reconnect_timer_id, reconnect_delay_ms_);
    reconnect_armed_ = true;
}

void CVartoWorker::reset_reconnect_delay()
{
    reconnect_delay_ms_ = base_delay_ms();
}

long CVartoWorker::heartbeat_threshold() const
{
    if (!heartbeat_on_.load(std::memory_order_relaxed))
        return -1;
    return heartbeat_period_.load(std::memory_order_relaxed) * 1000 / 60000;
}

void CVartoWorker::count_idle_turn()
{
    long threshold = heartbeat_threshold();
    if (threshold < 0)
        return;
    if (++idle_turns_ == threshold) {
        sendHeartbeat();
        idle_turns_ = 0;
    }
}

void CVartoWorker::timer_fired(unsigned id)
{
    if (id != reconnect_timer_id || !reconnect_armed_)
        return;
    reconnect_armed_ = false;
    if (stop_requested()) {
        engine()->acknowledge_stop();
        loop_.post_quit();
        return;
    }
    if (attempts_left_ == 0) {
        reportStatus(0, "no of reconnection attempts limit breached. shutting down.");
        loop_.post_quit();
        return;
    }
    --attempts_left_;
    retry();
    // A failed attempt that armed the next retry keeps the worker alive;
    // anything else (a stop, a failure with no retry) ends it.
    if (!reconnect_armed_)
        loop_.post_quit();
}

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
