// The AMQP worker: owns one connection to an AMQP 0-9-1 broker on a thread of
// its own. It connects (plain TCP, or TLS when a CA is given), logs in, opens
// channel 1, declares the connection's private auto-delete queue, binds it to
// the exchange with the client's own key and enables publisher confirms; then
// it consumes, handing each delivery to the application thread, and between
// deliveries sends what the engine queued and the periodic heartbeat. A
// broken connection is torn down and tried again with a doubling delay.
#pragma once

#include <amqp.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>

#include "api/worker.h"
#include "transport/amqp/amqp_sender.h"
#include "transport/amqp/body_codec.h"
#include "transport/trace_file.h"

class CIntRxWnd;

struct AmqpSettings {
    std::string server_name; // looked up in the address book when one is configured
    int port = 0;
    std::string virtual_host;
    std::string user;
    std::string password;
    std::string name;        // the client: its queue, its binding key, reply_to
    std::string exchange;
    std::string ca_path;     // TLS when set
    std::string key_path;    // with the certificate: the client authenticates
    std::string certificate_path;
    int compression = 0;
    CIntRxWnd *window = nullptr;
};

class CAmqpWorker : public CVartoWorker {
public:
    explicit CAmqpWorker(AmqpSettings settings);
    ~CAmqpWorker() override;

    // ---- Worker thread -------------------------------------------------------
    int serve() override;
    int recover() override;
    int receive() override;
    int onError(int code, const char *text) override;
    int sendHeartbeat() override;

    // ---- Any thread ----------------------------------------------------------
    int wake() override;
    CAmqpSender &sender() { return sender_; }
    const std::string &exchange() const { return settings_.exchange; }
    // While a recovery is pending, publishing is refused.
    bool recovering() const { return recovering_.load(std::memory_order_acquire); }
    // Publishes `message` from the calling thread at once, when the worker
    // is waiting and nothing queued before it would be overtaken: a hand-off
    // to the worker costs a thread wake-up on every request and reply.
    // False when it must be queued instead. @locality application thread
    bool publish_now(const std::string &routing_key, std::string_view body);
    zel::TraceFile &trace() { return trace_; }
    // Has the worker close channel and connection at the broker (only the
    // worker's thread talks to the broker); it then finds the connection
    // closed and recovers. @locality any thread
    void close_channel();

private:
    int connect_and_receive();
    bool open_plain_socket(const std::string &host, int *result);
    bool open_tls_socket(const std::string &host, int *result);
    bool rpc_succeeded(const char *context, int *result);
    int check_reply(const amqp_rpc_reply_t &reply, const char *context, bool quiet);
    int check_code(int code);
    int first_attempt_failed_with(int result);
    bool wait_for_input(bool *idle);
    void take_frame();
    void deliver(const amqp_envelope_t &envelope);
    void drain_sender();
    void publish(const std::string &exchange, const std::string &routing_key, std::string_view body);
    bool socket_open() const;
    void close_connection();
    void tear_down();
    std::string host_for_server_name() const;

    // Every call into the client library on the connection is made under
    // connection_lock_. The worker holds it all the time except while it
    // waits for input, which is when an application thread may publish.
    std::mutex connection_lock_;
    std::unique_lock<std::mutex> worker_hold_{connection_lock_, std::defer_lock};

    AmqpSettings settings_;
    CAmqpSender sender_;
    zel::TraceFile trace_;
    zel::amqp::BodyCodec codec_;
    amqp_connection_state_t connection_ = nullptr;
    amqp_socket_t *tls_socket_ = nullptr;
    int socket_fd_ = -1;
    amqp_bytes_t queue_ = amqp_empty_bytes;
    std::atomic<bool> recovering_{true};
    std::atomic<bool> close_requested_{false};
    std::deque<CPublishMessage> taken_binds_;     // being sent
    std::deque<CPublishMessage> taken_publishes_; // being sent
};
