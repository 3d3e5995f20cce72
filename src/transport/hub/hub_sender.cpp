// Queueing frames for the hub worker to write.
#include "transport/hub/hub_sender.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "transport/hub/framing.h"

CHubSender::CHubSender() : wake_fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

CHubSender::~CHubSender()
{
    if (wake_fd_ >= 0)
        ::close(wake_fd_);
}

void CHubSender::queue_message(std::string_view message)
{
    char header[zel::hub::frame_header_size];
    zel::hub::put_frame_length(header, uint32_t(message.size()));
    queue({std::string_view(header, sizeof header), message});
}

void CHubSender::queue_frame(std::string_view frame)
{
    queue({frame});
}

void CHubSender::queue(std::initializer_list<std::string_view> parts)
{
    bool was_empty;
    {
        std::lock_guard<std::recursive_mutex> guard(lock_);
        was_empty = queued_.empty();
        for (std::string_view part : parts)
            queued_.append(part);
    }
    // A queue that was not empty has a wake pending already: the worker
    // drains the wakes before it takes the queue.
    if (was_empty)
        wake();
}

void CHubSender::attach()
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    queued_.clear();
}

void CHubSender::take_queued(std::string &out)
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    if (out.empty())
        out.swap(queued_);
    else
        out.append(queued_);
    queued_.clear();
}

void CHubSender::wake()
{
    uint64_t one = 1;
    // A full counter still leaves the descriptor readable: nothing is lost.
    [[maybe_unused]] ssize_t n = ::write(wake_fd_, &one, sizeof one);
}

void CHubSender::drain_wakes()
{
    uint64_t count;
    [[maybe_unused]] ssize_t n = ::read(wake_fd_, &count, sizeof count);
}
