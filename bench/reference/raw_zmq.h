// ZeroMQ's reference: a raw PUB socket and a raw SUB socket through the same
// forwarder as the engines, with the engines' topic, filter and unbounded
// queues.
#pragma once

#include <zmq.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>

namespace zel::reference {

// What a raw run holds, released in reverse order however the run ends.
struct ZmqContext {
    void *context = zmq_ctx_new();
    ~ZmqContext() { zmq_ctx_term(context); }
};

// Closed without waiting for what it still queues.
struct ZmqSocket {
    void *socket;
    ZmqSocket(ZmqContext &c, int type, int high_water_option) : socket(zmq_socket(c.context, type))
    {
        int no_limit = 0, linger = 0;
        zmq_setsockopt(socket, high_water_option, &no_limit, sizeof no_limit);
        zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
    }
    ~ZmqSocket() { zmq_close(socket); }
    ZmqSocket(const ZmqSocket &) = delete;
    ZmqSocket &operator=(const ZmqSocket &) = delete;
};

struct ZmqPart {
    zmq_msg_t part;
    ZmqPart() { zmq_msg_init(&part); }
    ~ZmqPart() { zmq_msg_close(&part); }
};

// Messages per second from a raw PUB socket connected to the forwarder's
// publisher side `publishers` ("tcp://host:port") to a raw SUB socket with
// filter `filter` on its subscriber side `subscribers`. The publisher sends
// [topic][body] until the subscriber has counted `messages`: a subscription
// reaches a publisher only some time after it was made, so the count and the
// clock start at the first arrival. `tick` is told the count now and then,
// at least once a second, and what it throws ends the run. Throws when
// nothing arrives for `patience_ms`.
inline double raw_zmq_throughput(const std::string &publishers, const std::string &subscribers,
                                 const std::string &filter, const std::string &topic, const std::string &body,
                                 long messages, int patience_ms,
                                 const std::function<void(long done)> &tick = [](long) {})
{
    ZmqContext context;
    ZmqSocket sub(context, ZMQ_SUB, ZMQ_RCVHWM);
    const int slice_ms = std::min(patience_ms, 1000);
    zmq_setsockopt(sub.socket, ZMQ_RCVTIMEO, &slice_ms, sizeof slice_ms);
    zmq_setsockopt(sub.socket, ZMQ_SUBSCRIBE, filter.data(), filter.size());
    zmq_connect(sub.socket, subscribers.c_str());
    ZmqPart part;
    std::jthread publisher_thread([&](std::stop_token stop) {
        ZmqSocket pub(context, ZMQ_PUB, ZMQ_SNDHWM);
        zmq_connect(pub.socket, publishers.c_str());
        while (!stop.stop_requested()) {
            zmq_send(pub.socket, topic.data(), topic.size(), ZMQ_SNDMORE);
            zmq_send(pub.socket, body.data(), body.size(), 0);
        }
    });
    // One whole message, its parts taken one by one (they arrive together);
    // false when none came within the slice.
    auto take_one = [&] {
        int more = 1;
        size_t size = sizeof more;
        while (more) {
            if (zmq_msg_recv(&part.part, sub.socket, 0) < 0)
                return false;
            zmq_getsockopt(sub.socket, ZMQ_RCVMORE, &more, &size);
        }
        return true;
    };
    long received = -1; // the first arrival starts the count
    auto start = std::chrono::steady_clock::now();
    for (int idle_ms = 0; received < messages && idle_ms < patience_ms;) {
        if (!take_one()) {
            idle_ms += slice_ms;
            tick(std::max(received, 0L));
            continue;
        }
        idle_ms = 0;
        if (++received == 0)
            start = std::chrono::steady_clock::now();
        else if (received % 1024 == 0)
            tick(received);
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (received < messages)
        throw std::runtime_error("the ZeroMQ forwarder passed on " + std::to_string(std::max(received, 0L)) + " of " +
                                 std::to_string(messages) + " raw messages, then nothing for " +
                                 std::to_string(patience_ms / 1000) + " s");
    tick(received);
    return double(messages) / seconds;
}

} // namespace zel::reference
