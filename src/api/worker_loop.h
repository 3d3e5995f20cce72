// The loop a worker thread runs once its connection work returns: it fires
// one-shot timers by id until a quit is requested. Timers and quit may be
// set from any thread; the timer handler runs on the thread inside run().
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>

namespace zel {

class WorkerLoop {
public:
    using TimerHandler = std::function<void(unsigned id)>;

    // Arms timer `id` to fire once, `delay_ms` from now; arming an armed id
    // moves its deadline. @locality any thread
    void set_timer(unsigned id, unsigned delay_ms);
    // Disarms timer `id`; false when it was not armed. @locality any thread
    bool kill_timer(unsigned id);
    // Makes run() return before firing anything more. @locality any thread
    void post_quit();
    bool quit_requested() const;

    // Fires due timers, earliest first, until a quit is requested. A handler
    // may arm timers and request the quit. @locality the worker's thread
    void run(const TimerHandler &on_timer);

private:
    using Clock = std::chrono::steady_clock;

    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::map<unsigned, Clock::time_point> timers_; // guarded by lock_
    bool quit_ = false;                            // guarded by lock_
};

} // namespace zel
