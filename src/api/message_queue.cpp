// Per-thread message queues and the pump that empties them.
#include "api/message_queue.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cerrno>
#include <string>

#include <zel/engine.h>

#include "api/alert.h"

namespace zel {

namespace {

// Registered names get ids from here up, out of the way of small constants.
constexpr uint32_t first_registered_id = 0xC000;

std::atomic<uint64_t> next_target_id{1};

} // namespace

uint32_t register_message(std::string_view name)
{
    static std::mutex lock;
    static std::unordered_map<std::string, uint32_t> ids;
    std::lock_guard<std::mutex> guard(lock);
    auto [at, added] = ids.try_emplace(std::string(name), first_registered_id + uint32_t(ids.size()));
    return at->second;
}

MessageTarget::MessageTarget() : id_(next_target_id.fetch_add(1)), queue_(ThreadQueue::current())
{
    queue_->targets_.emplace(id_, this);
}

MessageTarget::~MessageTarget()
{
    queue_->targets_.erase(id_);
}

ThreadQueue::ThreadQueue() : event_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    // Without a descriptor the queue still works, but pumps cannot wait.
    if (event_fd_ < 0)
        alert("No event descriptor for this thread's message queue: pumps will not wait");
}

ThreadQueue::~ThreadQueue()
{
    // The owning thread has ended: whatever is still queued has no one to go to.
    for (const Posted &p : pending_)
        if (p.dispose)
            p.dispose(p.lparam);
    ::close(event_fd_);
}

const std::shared_ptr<ThreadQueue> &ThreadQueue::current()
{
    thread_local std::shared_ptr<ThreadQueue> queue = std::make_shared<ThreadQueue>();
    return queue;
}

void ThreadQueue::post(uint64_t target, uint32_t message, uintptr_t wparam, intptr_t lparam, Dispose dispose)
{
    bool was_empty;
    {
        std::lock_guard<std::mutex> guard(lock_);
        was_empty = pending_.empty();
        pending_.push_back(Posted{target, message, wparam, lparam, dispose});
    }
    // Signalled when the queue becomes non-empty, after the lock is let go so
    // that the woken thread does not block on it. A pump resets the
    // descriptor under the lock, so no wake-up is lost: a post after the
    // reset finds the queue empty and signals again. A late signal can leave
    // the descriptor readable with nothing queued; the next pump clears it.
    if (was_empty) {
        uint64_t one = 1;
        while (::write(event_fd_, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }
}

void ThreadQueue::wait_for_posts(int timeout_ms)
{
    if (event_fd_ < 0)
        return;
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    pollfd readable{event_fd_, POLLIN, 0};
    while (::poll(&readable, 1, timeout_ms) < 0 && errno == EINTR) {
        if (timeout_ms > 0) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            timeout_ms = left > 0 ? int(left) : 0;
        }
    }
}

std::vector<ThreadQueue::Posted> ThreadQueue::take_pending()
{
    std::vector<Posted> batch = std::move(spare_);
    batch.clear();
    std::lock_guard<std::mutex> guard(lock_);
    batch.swap(pending_);
    uint64_t count;
    while (::read(event_fd_, &count, sizeof count) < 0 && errno == EINTR) {
    }
    return batch;
}

void ThreadQueue::deliver(const Posted &p)
{
    // Looked up for every message: an earlier one may have destroyed it.
    auto at = targets_.find(p.target);
    if (at == targets_.end()) {
        if (p.dispose)
            p.dispose(p.lparam);
        return;
    }
    try {
        at->second->handle(p.message, p.wparam, p.lparam);
    } catch (...) {
        alert("A message handler failed; the message was dropped");
    }
}

int ThreadQueue::pump(int timeout_ms)
{
    if (timeout_ms != 0)
        wait_for_posts(timeout_ms);
    std::vector<Posted> batch = take_pending();
    for (const Posted &p : batch)
        deliver(p);
    int handled = int(batch.size());
    if (spare_.capacity() < batch.capacity())
        spare_ = std::move(batch);
    return handled;
}

} // namespace zel

extern "C" int zel_pump_messages(int timeout_ms)
{
    return zel::ThreadQueue::current()->pump(timeout_ms);
}

extern "C" int zel_message_fd(void)
{
    return zel::ThreadQueue::current()->fd();
}
