// A plain client of the broker, written on the client library directly: the
// AMQP suite's peer, and the reference that the benchmark and `zel bench`
// measure the engines against. It publishes to and consumes from one
// exchange on channel 1.
#pragma once

#include <amqp.h>
#include <amqp_ssl_socket.h>
#include <amqp_tcp_socket.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <stop_token>
#include <thread>

#include "percentiles.h"

namespace zel::reference {

// Where the broker is and how to log in; the defaults are those of a
// private test broker.
struct AmqpBroker {
    std::string host = "127.0.0.1";
    int port = 5672;
    std::string vhost = "/", user = "guest", password = "guest", exchange = "amq.topic";
    // `ca` set: TLS; `key` and `certificate` set as well: with the client's
    // certificate. The broker is verified only when `verify_peer` is set,
    // as an engine does by default.
    std::string ca, key, certificate;
    bool verify_peer = false;

    std::string where() const { return host + ":" + std::to_string(port); }
};

class RawAmqp {
public:
    // `confirms`: publisher confirms on the channel.
    explicit RawAmqp(const AmqpBroker &broker, bool confirms = false) : exchange_(broker.exchange)
    {
        c_ = amqp_new_connection();
        amqp_socket_t *socket = broker.ca.empty() ? amqp_tcp_socket_new(c_) : amqp_ssl_socket_new(c_);
        if (socket && !broker.ca.empty()) {
            amqp_ssl_socket_set_cacert(socket, broker.ca.c_str());
            if (!broker.key.empty() && !broker.certificate.empty())
                amqp_ssl_socket_set_key(socket, broker.certificate.c_str(), broker.key.c_str());
            amqp_ssl_socket_set_verify_peer(socket, broker.verify_peer);
            amqp_ssl_socket_set_verify_hostname(socket, broker.verify_peer);
        }
        if (!socket || amqp_socket_open(socket, broker.host.c_str(), broker.port) != AMQP_STATUS_OK) {
            amqp_destroy_connection(c_);
            throw std::runtime_error("the raw client cannot reach the broker at " + broker.where());
        }
        amqp_rpc_reply_t login = amqp_login(c_, broker.vhost.c_str(), 0, 131072, 0, AMQP_SASL_METHOD_PLAIN,
                                            broker.user.c_str(), broker.password.c_str());
        amqp_channel_open(c_, 1);
        if (login.reply_type != AMQP_RESPONSE_NORMAL || amqp_get_rpc_reply(c_).reply_type != AMQP_RESPONSE_NORMAL) {
            amqp_destroy_connection(c_);
            throw std::runtime_error("the broker at " + broker.where() + " refused the raw client's login");
        }
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
        if (queue)
            amqp_queue_bind(c_, 1, queue->queue, amqp_cstring_bytes(exchange_.c_str()), amqp_cstring_bytes(key.c_str()),
                            amqp_empty_table);
        if (queue)
            amqp_basic_consume(c_, 1, queue->queue, amqp_empty_bytes, 0, 1, 0, amqp_empty_table);
        if (!queue || amqp_get_rpc_reply(c_).reply_type != AMQP_RESPONSE_NORMAL)
            throw std::runtime_error("the raw client cannot consume from " + exchange_);
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
        amqp_basic_publish(c_, 1, amqp_cstring_bytes(exchange_.c_str()), amqp_cstring_bytes(key.c_str()), mandatory, 0,
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
    std::string exchange_;
};

// What a raw client asks of the broker: what an engine asks for the same
// traffic, or the least that carries it. The difference between the two is
// what that broker work costs, apart from any client.
enum class BrokerWork { engine, minimal };

// A raw client that binds and publishes as an engine does, or as cheaply as
// carries the same messages.
class RawAmqpPeer : public RawAmqp {
public:
    RawAmqpPeer(const AmqpBroker &broker, BrokerWork work)
        : RawAmqp(broker, work == BrokerWork::engine), work_(work)
    {
    }

    // Receives what a watch on `pieces` ("^tag.value", joined by ".")
    // receives. An engine's watch key starts with "#", which the broker
    // matches at a cost; the least is a key that starts with the pieces.
    void watch(const std::string &pieces) { listen((work_ == BrokerWork::engine ? "#." : "") + pieces + ".#"); }

    // With an engine's properties, mandatory flag and publisher confirms,
    // or none of them.
    void send(const std::string &key, const std::string &body)
    {
        if (work_ == BrokerWork::minimal)
            return publish(key, body);
        amqp_basic_properties_t p{};
        p._flags = AMQP_BASIC_CONTENT_TYPE_FLAG | AMQP_BASIC_DELIVERY_MODE_FLAG | AMQP_BASIC_REPLY_TO_FLAG;
        p.content_type = amqp_cstring_bytes("zel");
        p.delivery_mode = AMQP_DELIVERY_PERSISTENT;
        p.reply_to = amqp_cstring_bytes("raw");
        publish(key, body, &p, true);
        if (++published_ % 256 == 0)
            take_confirms();
    }

private:
    BrokerWork work_;
    long published_ = 0;
};

// Told how many messages or round trips are done, now and then (at least
// once a second), so that a long run can show its progress; what it throws
// ends the run.
using Tick = std::function<void(long done)>;

// A broker that passes nothing on for this long has lost what it was given.
constexpr int broker_patience_s = 30;

// Messages per second from a raw publisher, on a thread of its own, to a raw
// consumer of what a watch on `watched` receives: `messages` publishes of
// `body` with routing key `key`, timed from the first publish to the last
// delivery.
inline double raw_amqp_throughput(const AmqpBroker &broker, BrokerWork work, const std::string &watched,
                                  const std::string &key, const std::string &body, long messages,
                                  const Tick &tick = [](long) {})
{
    RawAmqpPeer consumer(broker, work);
    consumer.watch(watched);
    std::exception_ptr failed;
    std::atomic<bool> publisher_failed{false};
    auto start = std::chrono::steady_clock::now();
    std::jthread publisher_thread([&](std::stop_token stop) {
        try {
            RawAmqpPeer publisher(broker, work);
            for (long i = 0; i < messages && !stop.stop_requested(); ++i)
                publisher.send(key, body);
        } catch (...) {
            failed = std::current_exception();
            publisher_failed = true;
        }
    });
    long received = 0;
    for (int idle_s = 0; received < messages && idle_s < broker_patience_s && !publisher_failed;) {
        timeval wait{1, 0};
        if (!consumer.next(&wait)) {
            ++idle_s;
            tick(received);
            continue;
        }
        idle_s = 0;
        if (++received % 1024 == 0)
            tick(received);
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    publisher_thread.join();
    if (failed)
        std::rethrow_exception(failed);
    if (received < messages)
        throw std::runtime_error("the broker at " + broker.where() + " passed on " + std::to_string(received) + " of " +
                                 std::to_string(messages) + " raw messages");
    tick(received);
    return double(messages) / seconds;
}

// Request/reply round trips between two raw clients, the responder on a
// thread of its own. The request goes to "^0.<service>", which the
// responder binds as an engine's service does; the reply goes to
// "^32761.<requester>", which the requester binds as an engine binds its
// own name ("#.<name>.#"), or with that very key for the least work. Both
// carry `body`.
inline Percentiles raw_amqp_round_trips(const AmqpBroker &broker, BrokerWork work, const std::string &service,
                                        const std::string &requester, const std::string &body, int trips,
                                        const Tick &tick = [](long) {})
{
    const std::string request_key = "^0." + service, reply_key = "^32761." + requester;
    RawAmqpPeer pinger(broker, work), ponger(broker, work);
    pinger.listen(work == BrokerWork::engine ? "#." + requester + ".#" : reply_key);
    ponger.listen(request_key);
    std::jthread echo([&](std::stop_token stop) {
        while (!stop.stop_requested()) {
            timeval wait{0, 200000};
            if (ponger.next(&wait))
                ponger.send(reply_key, body);
        }
    });
    long done = 0;
    return time_round_trips(trips, [&] {
        pinger.send(request_key, body);
        for (int waited_s = 0;; ++waited_s) {
            timeval wait{1, 0};
            if (pinger.next(&wait))
                break;
            if (waited_s == broker_patience_s)
                throw std::runtime_error("the broker at " + broker.where() + " passed no raw reply on within " +
                                         std::to_string(broker_patience_s) + " s");
            tick(done);
        }
        tick(++done);
    });
}

} // namespace zel::reference
