// The hub connection's life on its worker thread: connect, receive, write,
// heartbeats, loss and recovery.
#include "transport/hub/hub_worker.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "api/batch_buffer.h"
#include "api/receive_window.h"
#include "message/fields.h"
#include "transport/hub/framing.h"

namespace {

constexpr int turn_ms = 30;                    // one receive pass waits at most this long
constexpr size_t receive_buffer_size = 0x10000;
constexpr int reserve_beyond_frame = 256;

} // namespace

CHubworker::CHubworker(HubSettings settings)
    : settings_(std::move(settings)), received_(receive_buffer_size),
      heartbeat_frame_(zel::hub::make_frame({{zel::field::name, "varto_heartbeat"}}))
{
}

CHubworker::~CHubworker()
{
    close_socket();
    close_log();
}

// ---- Connecting -------------------------------------------------------------

int CHubworker::serve()
{
    if (!connect_socket()) {
        end_first_attempt(first_attempt_failed);
        return 0;
    }
    // The announce goes first on every connection; what an earlier
    // connection left queued is dropped.
    discard_unsent();
    received_used_ = 0;
    frames_waiting_ = false;
    std::string name = settings_.window ? settings_.window->instance_text() : std::string();
    sender_.queue_frame(
        zel::hub::make_frame({{zel::field::name, "set_device_aka"}, {zel::field::device_name, name}}));
    sender_.attach_socket(socket_);
    closed_.store(0, std::memory_order_release);
    reportStatus(100, "connection success");
    end_first_attempt(connected_once);
    sent_bytes_.store(0, std::memory_order_relaxed);
    if (settings_.window)
        reportStatus(100, "Connected");
    reset_reconnect_delay();
    receive();
    return 1;
}

bool CHubworker::connect_socket()
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    std::string port = std::to_string(settings_.port);
    if (::getaddrinfo(settings_.host.c_str(), port.c_str(), &hints, &found) != 0 || !found) {
        onError(EADDRNOTAVAIL, "socket connection error");
        return false;
    }
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> address(found, ::freeaddrinfo);

    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket_ < 0) {
        onError(errno, "socket open error");
        return false;
    }
    timeval receive_timeout{0, turn_ms * 1000};
    int one = 1;
    if (::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof receive_timeout) != 0 ||
        ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) {
        onError(errno, "socket opt error");
        return false;
    }
    if (::connect(socket_, address->ai_addr, address->ai_addrlen) != 0 && errno != EINPROGRESS) {
        onError(errno, "socket connection error");
        return false;
    }
    return wait_until_connected();
}

// Waits for the connect in short turns, so that a stop is noticed while a
// distant hub does not answer.
bool CHubworker::wait_until_connected()
{
    for (;;) {
        if (stop_requested()) {
            close_socket();
            return false;
        }
        pollfd p{socket_, POLLOUT, 0};
        int ready = ::poll(&p, 1, turn_ms);
        if (ready == 0 || (ready < 0 && errno == EINTR))
            continue;
        int error = 0;
        socklen_t size = sizeof error;
        if (::getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
            error = errno;
        if (error == 0)
            return true;
        onError(error, "socket connection error");
        return false;
    }
}

// ---- Receiving and writing --------------------------------------------------

int CHubworker::receive()
{
    int passes = 0;
    int error = 0;
    for (;;) {
        if (stop_requested())
            return 0;
        bool writing = !all_taken_written();
        pollfd waits[2] = {{socket_, short(POLLIN | (writing ? POLLOUT : 0)), 0}, {sender_.wake_fd(), POLLIN, 0}};
        int ready = ::poll(waits, 2, turn_ms);
        if (ready < 0 && errno != EINTR) {
            error = errno;
            break;
        }
        if (ready == 0)
            give_back_send_memory();
        if (waits[1].revents & POLLIN)
            sender_.drain_wakes();
        bool readable = waits[0].revents & (POLLIN | POLLHUP | POLLERR);
        if ((readable || frames_waiting_) && !read_available(&error))
            break;
        if (!flush(&error))
            break;
        count_heartbeat_pass(&passes);
    }
    connection_lost(error);
    return 0;
}

// Reads what the socket has and posts the complete frames. False when the
// connection is over (peer closed, broken stream, or an error).
bool CHubworker::read_available(int *error)
{
    // A buffer full of frames that wait for a batch is not read into.
    if (received_used_ < received_.size()) {
        ssize_t n = ::recv(socket_, received_.data() + received_used_, received_.size() - received_used_, 0);
        if (n == 0) {
            *error = ECONNRESET;
            return false;
        }
        if (n > 0) {
            received_used_ += size_t(n);
        } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != ETIMEDOUT && errno != EINTR) {
            *error = errno;
            return false;
        } else if (!frames_waiting_) {
            return true; // nothing new, and nothing waits
        }
    }
    return hand_on_frames(error);
}

// Posts the whole frames at the front of the buffer and drops them from it.
// False when the stream is broken.
bool CHubworker::hand_on_frames(int *error)
{
    int64_t payload = 0;
    int32_t messages = 0;
    auto measure = [&](const char *, int32_t length) {
        payload += length;
        messages += length > 0;
    };
    zel::hub::Cut cut = zel::hub::cut_frames(received_.data(), int64_t(received_used_), measure);
    // Frames that no batch could be made for stay at the front: every pass
    // tries them again until memory allows, and nothing read is lost.
    frames_waiting_ = messages > 0 && !post_frames(cut.consumed, payload);
    if (frames_waiting_)
        return true;
    if (cut.broken) {
        *error = EPROTO;
        return false;
    }
    std::memmove(received_.data(), received_.data() + cut.consumed, received_used_ - size_t(cut.consumed));
    received_used_ -= size_t(cut.consumed);
    if (size_t(cut.needed) > received_.size())
        received_.resize(received_used_ + size_t(cut.needed) + reserve_beyond_frame);
    return true;
}

// The `framed` bytes of whole frames at the front of the buffer go to the
// application thread in one batch of `payload` message bytes; false when no
// batch could be made (the buffer has raised its alert).
// Empty frames carry no message and are skipped.
bool CHubworker::post_frames(int64_t framed, int64_t payload)
{
    if (!settings_.window)
        return true;
    zel::wait_for_batch_room();
    auto batch = std::make_unique<zel::BatchBuffer>();
    if (!batch->reserve(int32_t(payload)))
        return false;
    // Reserved: the appends cannot fail.
    zel::hub::cut_frames(received_.data(), framed, [&](const char *message, int32_t length) {
        if (length > 0)
            batch->append(message, length, 1);
    });
    settings_.window->post_batch(batch.release());
    return true;
}

// Writes what the sender queued, as far as the socket takes it now. What
// was taken is written to the end before more is taken, so the worker never
// copies: it swaps its emptied buffer for the sender's.
bool CHubworker::flush(int *error)
{
    if (all_taken_written()) {
        unsent_.clear();
        unsent_offset_ = 0;
        sender_.take_queued(unsent_);
    }
    while (!all_taken_written()) {
        ssize_t n = ::send(socket_, unsent_.data() + unsent_offset_, unsent_.size() - unsent_offset_, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
                return true;
            *error = errno;
            return false;
        }
        unsent_offset_ += size_t(n);
        sender_.written(size_t(n));
    }
    return true;
}

// A stream keeps its send buffers at the size its backlogs reached; a turn
// with nothing to do gives back what is larger than is worth keeping.
void CHubworker::give_back_send_memory()
{
    if (all_taken_written()) {
        zel::hub::clear_send_buffer(unsent_);
        unsent_offset_ = 0;
    }
    sender_.trim();
}

// The frames in `bytes` that end past its first `written` bytes.
int64_t CHubworker::frames_not_written(const std::string &bytes, size_t written)
{
    int64_t frames = 0;
    zel::hub::cut_frames(bytes.data(), int64_t(bytes.size()), [&](const char *message, int32_t length) {
        frames += size_t(message + length - bytes.data()) > written;
    });
    return frames;
}

// What the last connection left queued or half written is gone with it (the
// watches are bound again on the new one). Counted and reported, so that an
// application can see what an outage cost. @locality worker thread
void CHubworker::discard_unsent()
{
    std::string queued = sender_.discard_queued();
    int64_t frames = frames_not_written(unsent_, unsent_offset_) + frames_not_written(queued, 0);
    size_t bytes = unsent_.size() - unsent_offset_ + queued.size();
    zel::hub::clear_send_buffer(unsent_);
    unsent_offset_ = 0;
    if (frames == 0)
        return;
    discarded_frames_.fetch_add(uint64_t(frames), std::memory_order_relaxed);
    reportStatus(1, "discarded " + std::to_string(frames) + " unsent frames (" + std::to_string(bytes) +
                        " bytes) of the lost connection");
}

void CHubworker::count_heartbeat_pass(int *passes)
{
    long per_heartbeat = heartbeat_threshold();
    if (per_heartbeat < 0)
        return;
    if (++*passes >= per_heartbeat) {
        sendHeartbeat();
        *passes = 0;
    }
}

int CHubworker::sendHeartbeat()
{
    send(heartbeat_frame_.data() + zel::hub::frame_header_size,
         int32_t(heartbeat_frame_.size()) - zel::hub::frame_header_size);
    return 1;
}

// ---- Losing the connection and recovering -----------------------------------

// The listener hears "lost" before recovery starts, then "recovering".
void CHubworker::connection_lost(int error)
{
    reportStatus(0, "Dis-Connected");
    reportStatus(0, "connection not open");
    onError(error ? error : ECONNRESET, "connection not open");
}

int CHubworker::recover()
{
    close_socket();
    schedule_reconnect();
    reportStatus(0, "recovery attempt failed, trying again");
    return 1;
}

void CHubworker::close_socket()
{
    sender_.detach_socket();
    if (socket_ >= 0)
        ::close(socket_);
    socket_ = -1;
    closed_.store(1, std::memory_order_release);
}

// ---- Application side ---------------------------------------------------------

int CHubworker::wake()
{
    sender_.wake();
    return 1;
}

CHubworker::SendResult CHubworker::send(const char *message, int32_t length)
{
    if (closed_.load(std::memory_order_acquire)) {
        reportStatus(1, "connection not open");
        return SendResult::not_open;
    }
    if (!sender_.queue_bounded_message(std::string_view(message, size_t(length))))
        return SendResult::queue_full;
    sent_bytes_.fetch_add(uint64_t(length), std::memory_order_relaxed);
    return SendResult::queued;
}

void CHubworker::send_watch_request(const std::string &request)
{
    sender_.queue_message(request);
}

void CHubworker::open_log(const std::string &path)
{
    std::lock_guard<std::mutex> guard(log_lock_);
    if (log_)
        std::fclose(log_);
    log_ = std::fopen(path.c_str(), "w+");
}

void CHubworker::close_log()
{
    std::lock_guard<std::mutex> guard(log_lock_);
    if (log_)
        std::fclose(log_);
    log_ = nullptr;
}

int CHubworker::reportStatus(int level, std::string text)
{
    {
        std::lock_guard<std::mutex> guard(log_lock_);
        if (log_) {
            std::fprintf(log_, "level %d %s\n", level, text.c_str());
            std::fflush(log_);
        }
    }
    return CVartoWorker::reportStatus(level, std::move(text));
}
