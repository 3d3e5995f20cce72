// Queueing frames for the hub worker to write.
#include "transport/hub/hub_sender.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <iterator>
#include <limits>

#include "api/alert.h"
#include "transport/hub/framing.h"

namespace {

constexpr uint64_t unbounded = std::numeric_limits<uint64_t>::max();
constexpr size_t kept_buffer_capacity = 1024 * 1024;

} // namespace

void zel::hub::clear_send_buffer(std::string &buffer)
{
    if (buffer.capacity() > kept_buffer_capacity)
        std::string().swap(buffer);
    else
        buffer.clear();
}

CHubSender::CHubSender()
{
    // Without it everything still leaves, at the worker's next turn.
    if (wake_.fd() < 0)
        zel::alert("No event descriptor for a hub connection: what it sends waits for the worker's next turn");
}

bool CHubSender::queue_bounded_message(std::string_view message)
{
    return queue_framed(message, queue_limit());
}

void CHubSender::queue_message(std::string_view message)
{
    queue_framed(message, unbounded);
}

void CHubSender::queue_frame(std::string_view frame)
{
    queue({frame}, unbounded);
}

bool CHubSender::queue_framed(std::string_view message, uint64_t limit)
{
    char header[zel::hub::frame_header_size];
    zel::hub::put_frame_length(header, uint32_t(message.size()));
    return queue({std::string_view(header, sizeof header), message}, limit);
}

bool CHubSender::queue(std::initializer_list<std::string_view> parts, uint64_t limit)
{
    uint64_t size = 0;
    for (std::string_view part : parts)
        size += part.size();
    bool was_empty;
    {
        std::lock_guard<std::recursive_mutex> guard(lock_);
        // The worker lowers the count without the lock: at worst this sees
        // a higher count than there is and refuses a little early.
        if (unwritten_.load(std::memory_order_relaxed) + size > limit)
            return false;
        size_t written = write_now(parts);
        if (written == size)
            return true;
        unwritten_.fetch_add(size - written, std::memory_order_relaxed);
        was_empty = queued_.empty();
        for (std::string_view part : parts) {
            size_t skip = std::min(written, part.size());
            queued_.append(part.substr(skip));
            written -= skip;
        }
    }
    // A queue that was not empty has a wake pending already: the worker
    // drains the wakes before it takes the queue.
    if (was_empty)
        wake();
    return true;
}

// Writes a frame to the socket from the calling thread when nothing queued
// or taken by the worker could go before it, and the last such write is not
// so recent that this looks like a stream. Answers the bytes written; the
// rest is for the worker. @locality any thread, holding the sender's lock
size_t CHubSender::write_now(std::initializer_list<std::string_view> parts)
{
    // Nothing unwritten means the worker has finished its last write and
    // cannot take another without this lock.
    iovec pieces[2]; // a header and a message at most
    if (socket_ < 0 || parts.size() > std::size(pieces) || unwritten_.load(std::memory_order_acquire) != 0)
        return 0;
    Clock::time_point now = Clock::now();
    if (now - last_written_now_ < streaming_gap)
        return 0;
    last_written_now_ = now;
    msghdr frame{};
    frame.msg_iov = pieces;
    for (std::string_view part : parts)
        pieces[frame.msg_iovlen++] = {const_cast<char *>(part.data()), part.size()};
    // A refusal (a full socket, a lost connection) leaves it all to the
    // worker, which notices a loss itself.
    ssize_t n = ::sendmsg(socket_, &frame, MSG_NOSIGNAL | MSG_DONTWAIT);
    return n > 0 ? size_t(n) : 0;
}

void CHubSender::attach_socket(int socket)
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    socket_ = socket;
}

std::string CHubSender::discard_queued()
{
    std::string discarded;
    std::lock_guard<std::recursive_mutex> guard(lock_);
    discarded.swap(queued_);
    unwritten_.store(0, std::memory_order_relaxed);
    return discarded;
}

void CHubSender::take_queued(std::string &out)
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    out.swap(queued_);
}

void CHubSender::trim()
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    if (queued_.empty())
        zel::hub::clear_send_buffer(queued_);
}

void CHubSender::written(size_t bytes)
{
    unwritten_.fetch_sub(bytes, std::memory_order_release);
}
