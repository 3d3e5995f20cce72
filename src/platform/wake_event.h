// An event descriptor that one thread raises to end another thread's poll()
// at once: how a queued send reaches a worker that waits on its socket.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace zel {

class WakeEvent {
public:
    WakeEvent() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~WakeEvent()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    WakeEvent(const WakeEvent &) = delete;
    WakeEvent &operator=(const WakeEvent &) = delete;

    // -1 when the system gave none: the waiter then notices work only at the
    // end of its own wait.
    int fd() const { return fd_; }

    // @locality any thread
    void raise()
    {
        uint64_t one = 1;
        // A full counter still leaves the descriptor readable: nothing is lost.
        [[maybe_unused]] ssize_t n = ::write(fd_, &one, sizeof one);
    }

    // @locality the waiting thread
    void drain()
    {
        uint64_t count;
        [[maybe_unused]] ssize_t n = ::read(fd_, &count, sizeof count);
    }

private:
    int fd_;
};

} // namespace zel
