// The one way from any thread to an application thread: each thread has a
// queue (made on first use) that carries (target, message, wParam, lParam)
// records, in order, to that thread, where zel_pump_messages hands them to
// their targets. Posting never blocks on the consumer and never fails.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace zel {

// A process-wide id for a message name; the same name always gets the same id.
// Any thread.
uint32_t register_message(std::string_view name);

// Frees what a message's lParam owns when the message cannot be delivered
// (its target is gone).
using Dispose = void (*)(intptr_t lparam);

class ThreadQueue;

// Something posted messages are delivered to, such as a connection's window.
// It belongs to the thread that constructs it, is destroyed on that thread,
// and its handle() runs only there. Messages still queued for it when it is
// destroyed are disposed, never delivered.
class MessageTarget {
public:
    MessageTarget();
    virtual ~MessageTarget();
    MessageTarget(const MessageTarget &) = delete;
    MessageTarget &operator=(const MessageTarget &) = delete;

    uint64_t target_id() const { return id_; }
    // The queue of the owning thread, for posters on other threads to keep.
    const std::shared_ptr<ThreadQueue> &queue() const { return queue_; }

    // @locality owning thread, inside zel_pump_messages
    virtual void handle(uint32_t message, uintptr_t wparam, intptr_t lparam) = 0;

private:
    uint64_t id_;
    std::shared_ptr<ThreadQueue> queue_;
};

class ThreadQueue {
public:
    ThreadQueue();
    ~ThreadQueue();
    ThreadQueue(const ThreadQueue &) = delete;
    ThreadQueue &operator=(const ThreadQueue &) = delete;

    // The calling thread's queue.
    static const std::shared_ptr<ThreadQueue> &current();

    // @locality any thread; takes the queue's lock briefly
    void post(uint64_t target, uint32_t message, uintptr_t wparam, intptr_t lparam, Dispose dispose = nullptr);
    // @locality owning thread
    int pump(int timeout_ms);
    int fd() const { return event_fd_; }

private:
    friend class MessageTarget;
    struct Posted {
        uint64_t target;
        uint32_t message;
        uintptr_t wparam;
        intptr_t lparam;
        Dispose dispose;
    };

    void wait_for_posts(int timeout_ms);
    std::vector<Posted> take_pending();
    void deliver(const Posted &p);

    int event_fd_;
    std::mutex lock_;
    std::vector<Posted> pending_;   // guarded by lock_
    std::vector<Posted> spare_;     // owning thread: capacity reused between pumps
    // Live targets of the owning thread; touched only there.
    std::unordered_map<uint64_t, MessageTarget *> targets_;
};

} // namespace zel
