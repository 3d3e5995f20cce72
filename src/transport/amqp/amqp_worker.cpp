// The AMQP connection's life on its worker thread: connect, consume, send,
// heartbeats, loss and recovery.
#include "transport/amqp/amqp_worker.h"

#include <zel/addrbk.h>

#include <amqp_ssl_socket.h>
#include <amqp_tcp_socket.h>
#include <poll.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "api/alert.h"
#include "api/batch_buffer.h"
#include "api/receive_window.h"
#include "message/wire.h"

namespace {

constexpr int channel = 1;
constexpr int frame_max = 262144;
constexpr int broker_heartbeat_s = 15;
constexpr int turn_ms = 30;
// A broker that stops answering must not hold the worker in a call forever:
// after this long an RPC gives up and the connection recovers.
constexpr timeval rpc_timeout{10, 0};
constexpr std::string_view heartbeat_body = "0 1 varto_heartbeat";
constexpr const char *heartbeat_routing_key = "0.varto_heartbeat";

// Every connect attempt of the process takes the next number for its queue.
std::atomic<int> queue_counter{1};

amqp_bytes_t bytes_of(std::string_view text)
{
    return amqp_bytes_t{text.size(), const_cast<char *>(text.data())};
}

std::string_view text_of(amqp_bytes_t bytes)
{
    return std::string_view(static_cast<const char *>(bytes.bytes), bytes.len);
}

bool is_library_error(const amqp_rpc_reply_t &reply, int code)
{
    return reply.reply_type == AMQP_RESPONSE_LIBRARY_EXCEPTION && reply.library_error == code;
}

// Peer verification is off unless the application asks for it: the CA then
// checks the broker's chain and its host name.
bool verify_peer()
{
    const char *value = std::getenv("ZEL_TLS_VERIFY_PEER");
    return value && std::strcmp(value, "1") == 0;
}

} // namespace

CAmqpWorker::CAmqpWorker(AmqpSettings settings) : settings_(std::move(settings)), codec_(settings_.compression) {}

CAmqpWorker::~CAmqpWorker()
{
    tear_down();
    amqp_bytes_free(queue_);
}

// ---- Connecting -------------------------------------------------------------

// The broker's host: the address the address book gives for the server name
// when an address book is configured, the name itself otherwise.
std::string CAmqpWorker::host_for_server_name() const
{
    if (!std::getenv("PL_LOC_BROK_ADDR"))
        return settings_.server_name;
    sPChar key{const_cast<char *>(settings_.server_name.data()), int32_t(settings_.server_name.size())};
    sPChar pair2[2] = {};
    uint32_t err = 0;
    if (!p_addr_local_addrbk_lookup(&key, pair2, &err) || !pair2[0].data)
        return settings_.server_name;
    std::string host(pair2[0].data, size_t(pair2[0].len));
    int ignored = 0;
    pchar_destroy_mem(&pair2[0], &ignored);
    return host;
}

int CAmqpWorker::serve()
{
    worker_hold_.lock();
    int result = connect_and_receive();
    worker_hold_.unlock();
    return result;
}

int CAmqpWorker::connect_and_receive()
{
    const std::string binding_key = "#." + settings_.name + ".#";
    const std::string queue_name = settings_.name + "_" + std::to_string(queue_counter.fetch_add(1));
    const std::string host = host_for_server_name();

    connection_ = amqp_new_connection();
    if (connection_)
        amqp_set_rpc_timeout(connection_, &rpc_timeout);
    int result = 0;
    bool opened = settings_.ca_path.empty() ? open_plain_socket(host, &result) : open_tls_socket(host, &result);
    if (!opened)
        return result;

    amqp_rpc_reply_t login = amqp_login(connection_, settings_.virtual_host.c_str(), 0, frame_max,
                                        broker_heartbeat_s, AMQP_SASL_METHOD_PLAIN, settings_.user.c_str(),
                                        settings_.password.c_str());
    if (login.reply_type != AMQP_RESPONSE_NORMAL)
        return first_attempt_failed_with(check_reply(login, "logging in", false));

    amqp_channel_open(connection_, channel);
    if (!rpc_succeeded("Opening channel", &result))
        return first_attempt_failed_with(result);

    amqp_queue_declare_ok_t *declared = amqp_queue_declare(connection_, channel, bytes_of(queue_name), 0, 0, 0, 1,
                                                           amqp_empty_table);
    if (!rpc_succeeded("Declaring queue", &result))
        return first_attempt_failed_with(result);
    amqp_bytes_free(queue_);
    queue_ = amqp_bytes_malloc_dup(declared->queue);
    if (queue_.len == 0)
        return first_attempt_failed_with(0);

    amqp_queue_bind(connection_, channel, queue_, bytes_of(settings_.exchange), bytes_of(binding_key),
                    amqp_empty_table);
    if (!rpc_succeeded("Binding queue", &result))
        return first_attempt_failed_with(result);

    recovering_.store(false, std::memory_order_release);
    reportStatus(100, "connection success");
    amqp_confirm_select(connection_, channel);
    trace_.status("Connected");
    end_first_attempt(connected_once);
    reset_reconnect_delay();
    return receive();
}

bool CAmqpWorker::open_plain_socket(const std::string &host, int *result)
{
    socket_fd_ = amqp_open_socket(host.c_str(), settings_.port);
    if (socket_fd_ < 0) {
        end_first_attempt(first_attempt_failed);
        *result = onError(socket_fd_, "socket open");
        return false;
    }
    amqp_socket_t *plain = connection_ ? amqp_tcp_socket_new(connection_) : nullptr;
    if (!plain) {
        *result = 0;
        return false;
    }
    amqp_tcp_socket_set_sockfd(plain, socket_fd_);
    return true;
}

bool CAmqpWorker::open_tls_socket(const std::string &host, int *result)
{
    tls_socket_ = connection_ ? amqp_ssl_socket_new(connection_) : nullptr;
    if (!tls_socket_) {
        reportStatus(0, "Error while creating SSL connection");
        *result = first_attempt_failed_with(0);
        return false;
    }
    int code = amqp_ssl_socket_set_cacert(tls_socket_, settings_.ca_path.c_str());
    if (code != 0) {
        reportStatus(0, "Error while setting SSL auth\\CA certificate");
        *result = first_attempt_failed_with(check_code(code));
        return false;
    }
    if (!settings_.key_path.empty() && !settings_.certificate_path.empty()) {
        code = amqp_ssl_socket_set_key(tls_socket_, settings_.certificate_path.c_str(), settings_.key_path.c_str());
        if (code != 0) {
            reportStatus(0, "Error while setting SSL client key & certificate");
            *result = first_attempt_failed_with(check_code(code));
            return false;
        }
    }
    bool verify = verify_peer();
    amqp_ssl_socket_set_verify_peer(tls_socket_, verify);
    amqp_ssl_socket_set_verify_hostname(tls_socket_, verify);
    code = amqp_socket_open(tls_socket_, host.c_str(), settings_.port);
    if (code != 0) {
        reportStatus(0, "Error while opening SSL connection");
        *result = first_attempt_failed_with(check_code(code));
        return false;
    }
    return true;
}

// Only the first connect attempt of the worker's life sets how it ended.
int CAmqpWorker::first_attempt_failed_with(int result)
{
    end_first_attempt(first_attempt_failed);
    return result;
}

bool CAmqpWorker::rpc_succeeded(const char *context, int *result)
{
    amqp_rpc_reply_t reply = amqp_get_rpc_reply(connection_);
    if (reply.reply_type == AMQP_RESPONSE_NORMAL)
        return true;
    *result = check_reply(reply, context, false);
    return false;
}

// Whether a failed reply leaves the worker going (1) or ends it (0); the
// failures of a lost or closed connection recover unless `quiet`. The
// recoverable sets of this check and of check_code differ, as they always
// have: this one knows the heartbeat time-out, that one the TCP and TLS
// detail codes.
int CAmqpWorker::check_reply(const amqp_rpc_reply_t &reply, const char *, bool quiet)
{
    bool recoverable = false;
    switch (reply.reply_type) {
    case AMQP_RESPONSE_NORMAL:
        return 1;
    case AMQP_RESPONSE_NONE:
        return 0;
    case AMQP_RESPONSE_LIBRARY_EXCEPTION:
        recoverable = reply.library_error == AMQP_STATUS_SOCKET_ERROR ||
                      reply.library_error == AMQP_STATUS_SSL_ERROR ||
                      reply.library_error == AMQP_STATUS_CONNECTION_CLOSED ||
                      reply.library_error == AMQP_STATUS_HEARTBEAT_TIMEOUT;
        break;
    case AMQP_RESPONSE_SERVER_EXCEPTION:
        recoverable = reply.reply.id == AMQP_CONNECTION_CLOSE_METHOD || reply.reply.id == AMQP_CHANNEL_CLOSE_METHOD;
        break;
    }
    if (!recoverable)
        return 0;
    if (!quiet)
        recover();
    return 1;
}

int CAmqpWorker::check_code(int code)
{
    switch (code) {
    case AMQP_STATUS_SOCKET_ERROR:
    case AMQP_STATUS_CONNECTION_CLOSED:
    case AMQP_STATUS_TCP_ERROR:
    case AMQP_STATUS_SSL_ERROR:
    case AMQP_STATUS_SSL_HOSTNAME_VERIFY_FAILED:
    case AMQP_STATUS_SSL_PEER_VERIFY_FAILED:
    case AMQP_STATUS_SSL_CONNECTION_FAILED:
    case AMQP_STATUS_SSL_SET_ENGINE_FAILED:
    case AMQP_STATUS_HOSTNAME_RESOLUTION_FAILED:
        recover();
        return 1;
    default:
        return 0;
    }
}

int CAmqpWorker::onError(int code, const char *text)
{
    if (code >= 0)
        return 1;
    recover();
    reportStatus(0, std::string(text) + " : " + amqp_error_string2(code));
    return 1;
}

// ---- Consuming ----------------------------------------------------------------

int CAmqpWorker::receive()
{
    amqp_basic_consume(connection_, channel, queue_, amqp_empty_bytes, 0, 1, 0, amqp_empty_table);
    int result = 0;
    if (!rpc_succeeded("Consuming", &result))
        return result;
    while (!stop_requested()) {
        if (close_requested_.exchange(false, std::memory_order_acq_rel))
            close_connection();
        amqp_maybe_release_buffers(connection_);
        bool idle = false;
        bool woken = wait_for_input(&idle);
        amqp_envelope_t envelope;
        timeval no_wait{0, 0};
        amqp_rpc_reply_t reply = amqp_consume_message(connection_, &envelope, &no_wait, 0);
        if (is_library_error(reply, AMQP_STATUS_TIMEOUT)) {
            drain_sender();
            if (idle)
                count_idle_turn();
            continue;
        }
        if (woken)
            drain_sender();
        if (is_library_error(reply, AMQP_STATUS_UNEXPECTED_STATE)) {
            take_frame();
            continue;
        }
        if (reply.reply_type != AMQP_RESPONSE_NORMAL)
            return check_reply(reply, "Consume Message", false);
        deliver(envelope);
        amqp_destroy_envelope(&envelope);
    }
    return 0;
}

// Waits up to one turn for the broker or for the engine to queue something.
// Answers whether the engine did; `idle` says the whole turn passed with
// nothing at all. Input already buffered inside the connection is not
// waited for.
bool CAmqpWorker::wait_for_input(bool *idle)
{
    if (amqp_frames_enqueued(connection_) || amqp_data_in_buffer(connection_))
        return false;
    pollfd waits[2] = {{amqp_get_sockfd(connection_), POLLIN, 0}, {sender_.wake_fd(), POLLIN, 0}};
    worker_hold_.unlock();
    int ready = ::poll(waits, 2, turn_ms);
    worker_hold_.lock();
    *idle = ready == 0;
    if (waits[1].revents & POLLIN) {
        sender_.drain_wakes();
        return true;
    }
    return false;
}

// A frame that is not a delivery: a publisher confirm, or a message the
// broker could not route and returns.
void CAmqpWorker::take_frame()
{
    amqp_frame_t frame;
    if (amqp_simple_wait_frame(connection_, &frame) != AMQP_STATUS_OK || frame.frame_type != AMQP_FRAME_METHOD ||
        frame.payload.method.id != AMQP_BASIC_RETURN_METHOD)
        return;
    auto *returned = static_cast<amqp_basic_return_t *>(frame.payload.method.decoded);
    std::string detail = std::string(text_of(returned->exchange)) + " | " + std::string(text_of(returned->routing_key)) +
                         " | " + std::string(text_of(returned->reply_text));
    amqp_message_t content;
    if (amqp_read_message(connection_, channel, &content, 0).reply_type == AMQP_RESPONSE_NORMAL)
        amqp_destroy_message(&content);
    trace_.status("Returned", detail);
}

// Hands one delivery to the application thread, expanded when it came
// compressed. What is not one whole message is dropped with an alert; the
// heartbeats of other clients, which a fanout exchange brings too, are
// dropped silently.
void CAmqpWorker::deliver(const amqp_envelope_t &envelope)
{
    const amqp_message_t &message = envelope.message;
    const char *body = static_cast<const char *>(message.body.bytes);
    size_t length = message.body.len;
    bool compressed = (message.properties._flags & AMQP_BASIC_CONTENT_TYPE_FLAG) &&
                      text_of(message.properties.content_type) == zel::amqp::compressed_content;
    if (compressed) {
        const scratchcb *expanded = codec_.unpack(body, length);
        if (!expanded) {
            zel::alert("A compressed delivery does not expand: it is dropped");
            return;
        }
        body = expanded->data;
        length = size_t(expanded->len);
    }
    if (std::string_view(body, length) == heartbeat_body)
        return;
    if (length > size_t(INT32_MAX) || !zel::wire::holds_one_message(body, int64_t(length))) {
        zel::alert("A delivery that is not one whole message is dropped");
        return;
    }
    trace_.received_message(text_of(envelope.exchange), text_of(envelope.routing_key), body, int32_t(length));
    if (!settings_.window)
        return;
    zel::wait_for_batch_room();
    auto batch = std::make_unique<zel::BatchBuffer>();
    if (!batch->append(body, int32_t(length), 1))
        return;
    settings_.window->post_batch(batch.release());
}

// ---- Sending -------------------------------------------------------------------

void CAmqpWorker::drain_sender()
{
    sender_.take_queued(taken_binds_, taken_publishes_);
    for (const CPublishMessage &request : taken_binds_) {
        if (request.exchange.empty() || request.key.empty())
            continue;
        bool bind = request.kind == CPublishMessage::bind;
        if (bind)
            amqp_queue_bind(connection_, channel, queue_, bytes_of(request.exchange), bytes_of(request.key),
                            amqp_empty_table);
        else
            amqp_queue_unbind(connection_, channel, queue_, bytes_of(request.exchange), bytes_of(request.key),
                              amqp_empty_table);
        amqp_rpc_reply_t reply = amqp_get_rpc_reply(connection_);
        // A refused bind is dropped: it is not worth the connection.
        if (reply.reply_type != AMQP_RESPONSE_NORMAL)
            check_reply(reply, bind ? "while subscribing" : "while unsubscribing", true);
        else
            trace_.sent_request(request.exchange, request.kind, request.key);
    }
    taken_binds_.clear();
    for (const CPublishMessage &message : taken_publishes_)
        publish(message.exchange, message.key, message.body);
    taken_publishes_.clear();
}

bool CAmqpWorker::publish_now(const std::string &routing_key, std::string_view body)
{
    std::unique_lock<std::mutex> hold(connection_lock_, std::try_to_lock);
    if (!hold || recovering() || !connection_ || !sender_.nothing_queued())
        return false;
    sender_.count_published_now(body.size());
    publish(settings_.exchange, routing_key, body);
    // What the library read from the socket while sending waits inside the
    // connection, where the worker's wait would not see it.
    if (amqp_frames_enqueued(connection_) || amqp_data_in_buffer(connection_))
        sender_.wake();
    return true;
}

void CAmqpWorker::publish(const std::string &exchange, const std::string &routing_key, std::string_view message)
{
    const scratchcb *body = codec_.pack(message.data(), int32_t(message.size()));
    if (body) {
        amqp_basic_properties_t properties{};
        properties._flags = AMQP_BASIC_CONTENT_TYPE_FLAG | AMQP_BASIC_DELIVERY_MODE_FLAG | AMQP_BASIC_REPLY_TO_FLAG;
        properties.content_type = bytes_of(codec_.content_type());
        properties.delivery_mode = AMQP_DELIVERY_PERSISTENT;
        properties.reply_to = bytes_of(settings_.name);
        int code = amqp_basic_publish(connection_, channel, bytes_of(exchange), bytes_of(routing_key), 1, 0,
                                      &properties, amqp_bytes_t{size_t(body->len), body->data});
        if (code == AMQP_STATUS_OK)
            trace_.sent_message(exchange, routing_key, message.data(), int32_t(message.size()));
        else
            reportStatus(0, "Error while sending " + routing_key + " message : " + amqp_error_string2(code));
    }
    sender_.published(message.size());
}

// ---- Heartbeat -----------------------------------------------------------------

int CAmqpWorker::sendHeartbeat()
{
    amqp_basic_properties_t properties{};
    properties._flags = AMQP_BASIC_CONTENT_TYPE_FLAG | AMQP_BASIC_DELIVERY_MODE_FLAG | AMQP_BASIC_REPLY_TO_FLAG;
    // Compressed is claimed for mode 1 only, and the body is never
    // compressed: receivers have always read heartbeats this way.
    properties.content_type =
        bytes_of(settings_.compression == 1 ? zel::amqp::compressed_content : zel::amqp::plain_content);
    properties.delivery_mode = AMQP_DELIVERY_PERSISTENT;
    properties.reply_to = bytes_of(settings_.name);
    int code = amqp_basic_publish(connection_, channel, bytes_of(settings_.exchange),
                                  amqp_cstring_bytes(heartbeat_routing_key), 1, 0, &properties,
                                  bytes_of(heartbeat_body));
    if (code != AMQP_STATUS_OK) {
        reportStatus(0, std::string("Error while sending varto heartbeat message : ") + amqp_error_string2(code));
        if (code == AMQP_STATUS_CONNECTION_CLOSED)
            recover();
    }
    return 1;
}

// ---- Losing the connection and recovering -----------------------------------

// The listener hears "lost" when a working connection breaks, then
// "recovering".
int CAmqpWorker::recover()
{
    if (!recovering_.exchange(true, std::memory_order_acq_rel))
        reportStatus(0, "connection not open");
    schedule_reconnect();
    reportStatus(0, "recovery attempt failed, trying again");
    bool was_open = socket_open();
    tear_down();
    if (was_open)
        trace_.status("Dis - Connected");
    return 1;
}

bool CAmqpWorker::socket_open() const
{
    return (tls_socket_ && amqp_socket_get_sockfd(tls_socket_) > -1) || socket_fd_ >= 0;
}

// Closes channel and connection at the broker; the next receive turn finds
// the connection closed and recovers.
void CAmqpWorker::close_connection()
{
    if (!connection_ || !socket_open())
        return;
    amqp_channel_close(connection_, channel, AMQP_REPLY_SUCCESS);
    amqp_connection_close(connection_, AMQP_REPLY_SUCCESS);
}

void CAmqpWorker::tear_down()
{
    close_connection();
    socket_fd_ = -1;
    tls_socket_ = nullptr;
    // The connection goes even when no socket was opened, or every failed
    // attempt would leave one behind.
    if (connection_)
        amqp_destroy_connection(connection_);
    connection_ = nullptr;
}

// ---- Application side ---------------------------------------------------------

int CAmqpWorker::wake()
{
    sender_.wake();
    return 1;
}

void CAmqpWorker::close_channel()
{
    close_requested_.store(true, std::memory_order_release);
    sender_.wake();
}
