// A plain client of the broker, written on the client library directly: the
// AMQP suite's peer and the benchmark's reference. It publishes to and
// consumes from amq.topic on channel 1.
#pragma once

#include <amqp.h>
#include <amqp_ssl_socket.h>
#include <amqp_tcp_socket.h>

#include <stdexcept>
#include <string>

namespace zel::test {

class RawAmqp {
public:
    // `ca` set: TLS, the broker not verified. `confirms`: publisher confirms.
    explicit RawAmqp(int port, const std::string &ca = "", bool confirms = false)
    {
        c_ = amqp_new_connection();
        amqp_socket_t *socket = ca.empty() ? amqp_tcp_socket_new(c_) : amqp_ssl_socket_new(c_);
        if (!ca.empty()) {
            amqp_ssl_socket_set_cacert(socket, ca.c_str());
            amqp_ssl_socket_set_verify_peer(socket, 0);
            amqp_ssl_socket_set_verify_hostname(socket, 0);
        }
        if (amqp_socket_open(socket, "127.0.0.1", port) != AMQP_STATUS_OK)
            throw std::runtime_error("the raw client cannot reach the broker");
        amqp_login(c_, "/", 0, 131072, 0, AMQP_SASL_METHOD_PLAIN, "guest", "guest");
        amqp_channel_open(c_, 1);
        amqp_get_rpc_reply(c_);
        if (confirms)
            amqp_confirm_select(c_, 1);
    }
    ~RawAmqp()
    {
        amqp_channel_close(c_, 1, AMQP_REPLY_SUCCESS);
        amqp_connection_close(c_, AMQP_REPLY_SUCCESS);
        amqp_destroy_connection(c_);
    }
    RawAmqp(const RawAmqp &) = delete;
    RawAmqp &operator=(const RawAmqp &) = delete;

    // Consumes, without acknowledgements, everything `key` matches.
    void listen(const std::string &key)
    {
        auto *queue = amqp_queue_declare(c_, 1, amqp_empty_bytes, 0, 0, 1, 1, amqp_empty_table);
        amqp_queue_bind(c_, 1, queue->queue, amqp_cstring_bytes("amq.topic"), amqp_cstring_bytes(key.c_str()),
                        amqp_empty_table);
        amqp_basic_consume(c_, 1, queue->queue, amqp_empty_bytes, 0, 1, 0, amqp_empty_table);
        if (amqp_get_rpc_reply(c_).reply_type != AMQP_RESPONSE_NORMAL)
            throw std::runtime_error("the raw client cannot consume");
    }

    struct Delivery {
        std::string routing_key, content_type, reply_to, body;
        int delivery_mode = 0;
    };
    // Takes the next delivery (into `out` when given), passing over the
    // confirms on the way; false once `wait` (null: no limit) has passed.
    bool next(timeval *wait = nullptr, Delivery *out = nullptr)
    {
        amqp_envelope_t envelope;
        for (;;) {
            amqp_maybe_release_buffers(c_);
            amqp_rpc_reply_t r = amqp_consume_message(c_, &envelope, wait, 0);
            if (r.reply_type == AMQP_RESPONSE_NORMAL)
                break;
            amqp_frame_t frame;
            if (r.reply_type != AMQP_RESPONSE_LIBRARY_EXCEPTION || r.library_error != AMQP_STATUS_UNEXPECTED_STATE ||
                amqp_simple_wait_frame(c_, &frame) != AMQP_STATUS_OK)
                return false;
        }
        if (out) {
            auto text = [](amqp_bytes_t b) { return std::string(static_cast<char *>(b.bytes), b.len); };
            out->routing_key = text(envelope.routing_key);
            out->content_type = text(envelope.message.properties.content_type);
            out->reply_to = text(envelope.message.properties.reply_to);
            out->body = text(envelope.message.body);
            out->delivery_mode = envelope.message.properties.delivery_mode;
        }
        amqp_destroy_envelope(&envelope);
        return true;
    }

    void publish(const std::string &key, const std::string &body, const amqp_basic_properties_t *properties = nullptr,
                 bool mandatory = false)
    {
        amqp_basic_publish(c_, 1, amqp_cstring_bytes("amq.topic"), amqp_cstring_bytes(key.c_str()), mandatory, 0,
                           properties, amqp_bytes_t{body.size(), const_cast<char *>(body.data())});
    }
    // Reads the confirms that have arrived, as a publisher must.
    void take_confirms()
    {
        amqp_frame_t frame;
        timeval no_wait{0, 0};
        while (amqp_simple_wait_frame_noblock(c_, &frame, &no_wait) == AMQP_STATUS_OK) {
        }
    }

private:
    amqp_connection_state_t c_;
};

} // namespace zel::test
