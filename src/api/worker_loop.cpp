// One-shot timers and a quit request for worker threads.
#include "api/worker_loop.h"

#include <algorithm>

namespace zel {

void WorkerLoop::set_timer(unsigned id, unsigned delay_ms)
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        timers_[id] = Clock::now() + std::chrono::milliseconds(delay_ms);
    }
    changed_.notify_all();
}

bool WorkerLoop::kill_timer(unsigned id)
{
    std::lock_guard<std::mutex> guard(lock_);
    return timers_.erase(id) > 0;
}

void WorkerLoop::post_quit()
{
    {
        std::lock_guard<std::mutex> guard(lock_);
        quit_ = true;
    }
    changed_.notify_all();
}

bool WorkerLoop::quit_requested() const
{
    std::lock_guard<std::mutex> guard(lock_);
    return quit_;
}

void WorkerLoop::run(const TimerHandler &on_timer)
{
    std::unique_lock<std::mutex> guard(lock_);
    while (!quit_) {
        if (timers_.empty()) {
            changed_.wait(guard);
            continue;
        }
        auto earliest = std::min_element(timers_.begin(), timers_.end(),
                                         [](const auto &a, const auto &b) { return a.second < b.second; });
        if (earliest->second > Clock::now()) {
            changed_.wait_until(guard, earliest->second);
            continue;
        }
        unsigned id = earliest->first;
        timers_.erase(earliest);
        guard.unlock();
        on_timer(id);
        guard.lock();
    }
}

} // namespace zel
