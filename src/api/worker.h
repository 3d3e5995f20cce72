// The worker base: what every transport's worker shares. It owns the
// connection on a thread of its own, reads from it, reports its status to the
// connection monitor and recovers a lost connection on its worker loop.
#pragma once

#include <atomic>
#include <string>

#include "api/worker_loop.h"

class CVartoEngine;
class CVartoSpy;

class CVartoWorker {
public:
    // Where the connection stands: connecting for the first time, first
    // attempt failed (recovery goes on), connected at least once.
    enum ConnectionState { first_attempt = -1, first_attempt_failed = 0, connected_once = 1 };

    CVartoWorker();
    virtual ~CVartoWorker() = default;
    CVartoWorker(const CVartoWorker &) = delete;
    CVartoWorker &operator=(const CVartoWorker &) = delete;

    // Hands a report to the monitor, or, once a stop is requested, ends the
    // worker's loop instead. @locality worker thread
    virtual int reportStatus(int level, std::string text);
    // Connects, then receives until the connection ends.
    virtual int serve() = 0;
    // Re-establishes a lost connection.
    virtual int recover() = 0;
    // Reads what the transport has and hands it on.
    virtual int receive() = 0;
    // What a reconnect attempt does: a whole new connection, unless the
    // transport keeps its link itself.
    virtual int retry() { return serve(); }
    // A non-zero `code` starts recovery and is reported as "<text> : <code>".
    virtual int onError(int code, const char *text);
    virtual int sendHeartbeat() = 0;
    // The thread body: serve, then acknowledge a stop request.
    virtual int run();
    // Interrupts the worker's wait so that it notices new work or a stop at
    // once. @locality any thread
    virtual int wake() = 0;
    // A timer armed on loop() has expired. The reconnect timer makes the next
    // attempt: unless a stop is requested or the lifetime budget of 120
    // attempts is spent, it serves again, and the worker lives on while
    // that attempt leaves the next one armed. @locality worker thread
    virtual void timer_fired(unsigned id);

    int setMonitor(CVartoSpy *monitor);
    CVartoSpy *monitor() const { return monitor_; }
    zel::WorkerLoop &loop() { return loop_; }

    int connection_state() const { return connection_state_.load(std::memory_order_acquire); }
    // Leaves first_attempt for `state`; later calls change nothing.
    void end_first_attempt(ConnectionState state);
    bool finished() const { return finished_.load(std::memory_order_acquire); }

    // The engine whose stop request this worker obeys; null without monitor.
    CVartoEngine *engine() const;
    // Whether that engine asks this worker to stop. @locality any thread
    bool stop_requested() const;

    // The wait before the next reconnect attempt. @locality worker thread
    unsigned reconnect_delay_ms() const { return reconnect_delay_ms_; }

    // Heartbeats every `period` x 1000 / 60000 idle turns of the worker.
    // @locality any thread
    void enable_heartbeat(long period)
    {
        heartbeat_period_.store(period, std::memory_order_relaxed);
        heartbeat_on_.store(true, std::memory_order_relaxed);
    }

protected:
    // Doubles the reconnect delay (2000 ms after a connect, 4000 ms at the
    // first retry; saturating) and arms the reconnect timer with it.
    void schedule_reconnect();
    // A connect has succeeded: the next outage starts from the base again.
    void reset_reconnect_delay();
    // Counts an idle turn; sends the heartbeat when the count reaches the
    // threshold, and starts counting again. Turns with traffic are not
    // counted and do not start the count again. @locality worker thread
    void count_idle_turn();
    // The turns between heartbeats; -1 while heartbeats are off.
    long heartbeat_threshold() const;

private:
    friend class CVartoEngine;
    void thread_main();

    CVartoSpy *monitor_ = nullptr;
    zel::WorkerLoop loop_;
    std::atomic<int> connection_state_{first_attempt};
    std::atomic<bool> finished_{false};
    int attempts_left_ = 120;
    unsigned reconnect_delay_ms_;
    bool reconnect_armed_ = false;
    std::atomic<bool> heartbeat_on_{false};
    std::atomic<long> heartbeat_period_{50000};
    long idle_turns_ = 0;
};
