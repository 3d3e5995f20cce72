// The ZeroMQ connection's life on its worker thread.
#include "transport/zmq/zmq_worker.h"

#include <poll.h>
#include <zmq.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "api/alert.h"
#include "api/batch_buffer.h"
#include "api/receive_window.h"
#include "message/wire.h"

namespace {

constexpr int turn_ms = 30;

// Every connect of the process takes the next number for its own filters.
std::atomic<int> name_counter{1};

void print_error(FILE *stream)
{
    std::fprintf(stream, "%s\n", zmq_strerror(errno));
}

} // namespace

void *zmq_context()
{
    static void *context = zmq_ctx_new();
    return context;
}

CZmqWorker::CZmqWorker(ZmqSettings settings) : settings_(std::move(settings)) {}

CZmqWorker::~CZmqWorker()
{
    close_socket();
}

void CZmqWorker::close_socket()
{
    int no_linger = 0;
    if (monitor_) {
        zmq_socket_monitor(socket_, nullptr, 0);
        zmq_setsockopt(monitor_, ZMQ_LINGER, &no_linger, sizeof no_linger);
        zmq_close(monitor_);
        monitor_ = nullptr;
        monitor_fd_ = -1;
    }
    if (!socket_)
        return;
    zmq_setsockopt(socket_, ZMQ_LINGER, &no_linger, sizeof no_linger);
    zmq_close(socket_);
    socket_ = nullptr;
}

// ---- Connecting -------------------------------------------------------------

int CZmqWorker::serve()
{
    std::lock_guard<std::unique_lock<std::mutex>> hold(worker_hold_);
    const std::string name = settings_.name + "_" + std::to_string(name_counter.fetch_add(1));
    const std::string endpoint = "tcp://" + settings_.host + ":" + std::to_string(settings_.port);
    int kind = publishes() ? ZMQ_PUB : ZMQ_SUB;
    int no_limit = 0;
    socket_ = zmq_socket(zmq_context(), kind);
    if (socket_)
        start_monitor(name);
    if (!socket_ || zmq_setsockopt(socket_, publishes() ? ZMQ_SNDHWM : ZMQ_RCVHWM, &no_limit, sizeof no_limit) != 0 ||
        zmq_connect(socket_, endpoint.c_str()) != 0) {
        print_error(stderr);
        close_socket();
        return 0;
    }
    size_t size = sizeof socket_fd_;
    if (zmq_getsockopt(socket_, ZMQ_FD, &socket_fd_, &size) != 0 || socket_fd_ < 0) {
        end_first_attempt(first_attempt_failed);
        return onError(-1, "socket open");
    }
    report(100, "connection success");
    // A publisher takes no subscriptions: its own filters are a subscriber's.
    if (!publishes() &&
        (!set_subscription("^32761." + name, true) || !set_subscription("set_device_aka|" + name, true)))
        return 0;
    trace_.status("Connected");
    end_first_attempt(connected_once);
    reset_reconnect_delay();
    return receive();
}

int CZmqWorker::onError(int code, const char *text)
{
    if (code >= 0)
        return 1;
    std::string what = std::string(text) + " : " + zmq_strerror(errno);
    recover();
    report(0, what);
    return 1;
}

// The socket stays: ZeroMQ reconnects it; the timer re-enters the loop.
int CZmqWorker::recover()
{
    schedule_reconnect();
    report(0, "recovery attempt failed, trying again");
    return 1;
}

// Reports without the socket lock: the monitor takes the window's lock,
// which the application thread holds while it asks for the socket.
void CZmqWorker::report(int level, const std::string &text)
{
    bool held = worker_hold_.owns_lock();
    if (held)
        worker_hold_.unlock();
    reportStatus(level, text);
    if (held)
        worker_hold_.lock();
}

// ---- Receiving ----------------------------------------------------------------

int CZmqWorker::receive()
{
    std::unique_lock<std::mutex> &hold = worker_hold_;
    bool held = hold.owns_lock();
    if (!held)
        hold.lock();
    int error = 0;
    while (!stop_requested()) {
        bool idle = false;
        bool may_read = wait_for_input(&idle);
        if (idle)
            count_idle_turn();
        if (may_read && !take_waiting(&error)) {
            std::printf("%s\n", zmq_strerror(error));
            break;
        }
    }
    if (!held)
        hold.unlock();
    return error ? -1 : 0;
}

// Waits up to one turn on the socket's signal and the wake event, without
// the lock. Answers whether the socket may have input; ZeroMQ's signal is a
// level only for what it has not yet reported, so every turn looks.
bool CZmqWorker::wait_for_input(bool *idle)
{
    pollfd waits[3] = {{socket_fd_, POLLIN, 0}, {wake_.fd(), POLLIN, 0}, {monitor_fd_, POLLIN, 0}};
    worker_hold_.unlock();
    *idle = ::poll(waits, 3, turn_ms) == 0;
    worker_hold_.lock();
    if (waits[1].revents & POLLIN)
        wake_.drain();
    read_monitor();
    return !publishes();
}

// ---- Socket monitor ---------------------------------------------------------

// The socket reports its connection events on an endpoint of its own; the
// worker writes them to the trace file, and nowhere else.
void CZmqWorker::start_monitor(const std::string &name)
{
    const std::string endpoint = "inproc://zel-monitor-" + name;
    if (zmq_socket_monitor(socket_, endpoint.c_str(), ZMQ_EVENT_ALL) != 0)
        return;
    monitor_ = zmq_socket(zmq_context(), ZMQ_PAIR);
    if (!monitor_ || zmq_connect(monitor_, endpoint.c_str()) != 0) {
        print_error(stdout);
        if (monitor_)
            zmq_close(monitor_);
        monitor_ = nullptr;
        return;
    }
    size_t size = sizeof monitor_fd_;
    zmq_getsockopt(monitor_, ZMQ_FD, &monitor_fd_, &size);
    trace_.status("Starting socket monitor...");
}

// Each event is two parts: the code and value, then the endpoint. Five of
// the codes have a line of their own.
void CZmqWorker::read_monitor()
{
    if (!monitor_)
        return;
    zmq_msg_t part;
    zmq_msg_init(&part);
    while (zmq_msg_recv(&part, monitor_, ZMQ_DONTWAIT) >= 0) {
        uint16_t code = 0;
        uint32_t value = 0;
        if (zmq_msg_size(&part) >= 6) {
            std::memcpy(&code, zmq_msg_data(&part), 2);
            std::memcpy(&value, static_cast<char *>(zmq_msg_data(&part)) + 2, 4);
        }
        zmq_msg_recv(&part, monitor_, 0);
        const char *line = code == ZMQ_EVENT_LISTENING      ? "Listening socket descriptor "
                           : code == ZMQ_EVENT_ACCEPTED     ? "Accepted socket descriptor "
                           : code == ZMQ_EVENT_CLOSED       ? "Closed socket descriptor "
                           : code == ZMQ_EVENT_CLOSE_FAILED ? "Socket close failure error code "
                           : code == ZMQ_EVENT_DISCONNECTED ? "Disconnected socket descriptor "
                                                            : nullptr;
        if (line)
            trace_.status(line + std::to_string(value));
    }
    zmq_msg_close(&part);
}

// Receives the next message waiting into `part`, keeping only the last part
// of a multipart message. False when nothing waits, or on a socket error.
bool CZmqWorker::receive_last_part(zmq_msg_t *part, int *error)
{
    int more = 0;
    size_t size = sizeof more;
    int flags = ZMQ_DONTWAIT;
    do {
        if (zmq_msg_recv(part, socket_, flags) < 0) {
            if (errno != EAGAIN && errno != EINTR)
                *error = errno;
            return false;
        }
        flags = 0;
        zmq_getsockopt(socket_, ZMQ_RCVMORE, &more, &size);
    } while (more);
    return true;
}

// Takes every message waiting into one batch and posts it. A part that is
// not one whole message is left out with an alert, and the messages around
// it still go. False on a socket error.
bool CZmqWorker::take_waiting(int *error)
{
    batch_.clear();
    int32_t messages = 0;
    zmq_msg_t part;
    zmq_msg_init(&part);
    while (receive_last_part(&part, error)) {
        const char *data = static_cast<const char *>(zmq_msg_data(&part));
        size_t length = zmq_msg_size(&part);
        if (length == 0 || length > INT32_MAX || !zel::wire::holds_one_message(data, int64_t(length))) {
            zel::alert("A ZeroMQ message that is not one whole message is dropped");
            continue;
        }
        trace_.received_data(settings_.label, data, int32_t(length));
        batch_.append(data, length);
        ++messages;
    }
    zmq_msg_close(&part);
    if (messages > 0 && settings_.window) {
        zel::wait_for_batch_room();
        auto batch = std::make_unique<zel::BatchBuffer>();
        if (batch->append(batch_.data(), int32_t(batch_.size()), messages))
            settings_.window->post_batch(batch.release());
    }
    return *error == 0;
}

// A publisher's heartbeat: no subscriber's filter starts with "0.", so only
// a peer that takes everything sees it.
int CZmqWorker::sendHeartbeat()
{
    if (!publishes())
        return 1;
    static const std::string topic = "0.varto_heartbeat";
    static const std::string body = "0 1 varto_heartbeat";
    zmq_send(socket_, topic.data(), topic.size(), ZMQ_SNDMORE);
    zmq_send(socket_, body.data(), body.size(), 0);
    return 1;
}

// ---- Application side ---------------------------------------------------------

int CZmqWorker::wake()
{
    wake_.raise();
    return 1;
}

bool CZmqWorker::set_subscription(const std::string &filter, bool on)
{
    if (!socket_)
        return false;
    bool done = zmq_setsockopt(socket_, on ? ZMQ_SUBSCRIBE : ZMQ_UNSUBSCRIBE, filter.data(), filter.size()) == 0;
    if (!done)
        trace_.status(on ? "Subscription failed!.." : "Unsubscribe failed!..");
    else
        trace_.status(filter + "     |    " + settings_.label + "\t\t|\t" + std::to_string(filter.size()),
                      on ? "0 1 subscribe " : "0 1 unsubscribe ");
    return done;
}

void CZmqWorker::subscribe(const std::string &filter, bool on)
{
    {
        std::lock_guard<std::mutex> hold(socket_lock_);
        set_subscription(filter, on);
    }
    // What the socket did with the option may have used up its signal.
    wake_.raise();
}

bool CZmqWorker::publish(const std::string &topic, std::string_view message)
{
    bool sent;
    {
        std::lock_guard<std::mutex> hold(socket_lock_);
        sent = socket_ && zmq_send(socket_, topic.data(), topic.size(), ZMQ_SNDMORE) >= 0 &&
               zmq_send(socket_, message.data(), message.size(), 0) >= 0;
    }
    if (sent)
        sent_bytes_.fetch_add(message.size(), std::memory_order_relaxed);
    return sent;
}
