// The ZeroMQ worker: owns one SUB or PUB socket on a thread of its own. The
// socket connects to its peer (a publisher's or subscriber's bound socket,
// usually the forwarder zelproxy); ZeroMQ itself reconnects the link. A SUB
// worker takes every message waiting into one batch for the application
// thread, keeping only the last part of a multipart message. The socket's
// connection events go to the trace file.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>

#include <zmq.h>

#include "api/worker.h"
#include "platform/wake_event.h"
#include "transport/trace_file.h"

class CIntRxWnd;

struct ZmqSettings {
    std::string host;
    int port = 0;
    std::string type;  // "ZMQ_SUB" or "ZMQ_PUB"
    std::string name;  // base of the connection's own filters
    std::string label; // shown in the trace
    CIntRxWnd *window = nullptr;
};

class CZmqWorker : public CVartoWorker {
public:
    explicit CZmqWorker(ZmqSettings settings);
    ~CZmqWorker() override;

    // ---- Worker thread -------------------------------------------------------
    int serve() override;
    int recover() override;
    int receive() override;
    int onError(int code, const char *text) override;
    int sendHeartbeat() override;
    // A retry re-enters the receive loop: ZeroMQ keeps the link itself.
    int retry() override { return receive(); }

    // ---- Any thread ----------------------------------------------------------
    int wake() override;
    bool publishes() const { return settings_.type == "ZMQ_PUB"; }
    // Sets ZMQ_SUBSCRIBE or ZMQ_UNSUBSCRIBE for `filter` and writes the trace
    // of it. @locality application thread
    void subscribe(const std::string &filter, bool on);
    // Sends [topic][message] on a PUB socket; false when it could not.
    bool publish(const std::string &topic, std::string_view message);
    zel::TraceFile &trace() { return trace_; }
    uint64_t sent_bytes() const { return sent_bytes_.load(std::memory_order_relaxed); }
    void reset_sent_bytes() { sent_bytes_.store(0, std::memory_order_relaxed); }

private:
    void report(int level, const std::string &text);
    bool set_subscription(const std::string &filter, bool on);
    bool wait_for_input(bool *idle);
    void start_monitor(const std::string &name);
    void read_monitor();
    bool receive_last_part(zmq_msg_t *part, int *error);
    bool take_waiting(int *error);
    void close_socket();

    // Every call on the socket is made under socket_lock_; the worker holds
    // it except while it waits, so that the application thread can send and
    // subscribe on the socket ZeroMQ does not let two threads share.
    std::mutex socket_lock_;
    std::unique_lock<std::mutex> worker_hold_{socket_lock_, std::defer_lock};

    ZmqSettings settings_;
    zel::TraceFile trace_;
    zel::WakeEvent wake_;
    void *socket_ = nullptr;
    int socket_fd_ = -1;
    void *monitor_ = nullptr; // the socket's own event endpoint, read into the trace
    int monitor_fd_ = -1;
    std::atomic<uint64_t> sent_bytes_{0};
    std::string batch_; // messages taken this turn
};

// The process-wide ZeroMQ context: made by the first ZeroMQ connection.
void *zmq_context();
