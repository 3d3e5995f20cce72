// End to end through a private RabbitMQ, beside the client library used raw
// as reference, plain TCP and TLS:
//  - throughput: a publisher engine -> broker -> a subscriber engine with one
//    watch that pumps its messages, 100-byte messages; a raw publisher and a
//    raw no-ack consumer doing the same through the same broker;
//  - latency: request/reply round trips between two engines through the
//    broker; a raw ping-pong between two raw connections.
// "The same" is the same broker work: the raw clients bind and publish with
// the keys the engines use (a watch's key starts with "#", which the broker
// matches at a cost), with the same properties, mandatory flag and publisher
// confirms. A minimal raw pair (plain keys, no confirms) is shown beside it,
// for what that broker work costs.
//
//     build/bench/bench_amqp [messages] [round-trips]
#include <zel/zel.h>

#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "reference/percentiles.h"
#include "reference/raw_amqp.h"
#include "support/messages.h"
#include "support/rabbitmq_broker.h"

namespace {

using zel::reference::BrokerWork;
using zel::reference::Percentiles;
using zel::reference::time_round_trips;

using Clock = std::chrono::steady_clock;
using zel::test::build_message;

zel::test::RabbitBroker *broker;
bool tls = false;

int port()
{
    return tls ? broker->tls_port() : broker->port();
}

std::string ca()
{
    return tls ? broker->tls_file("ca.pem") : "";
}

// The broker as the raw clients see it.
zel::reference::AmqpBroker raw_broker()
{
    return {.port = port(), .ca = ca()};
}

// ---- Engines --------------------------------------------------------------------------

int status_of(CZelEngine &engine)
{
    int status = 0, err = 0;
    engine.getConnectionStatus(&status, &err);
    return status;
}

void connect(CZelEngine &engine, const char *name)
{
    engine.create_connection(port(), "127.0.0.1", "/", "guest", "guest", "amq.topic", name, 0, ca(), "", "",
                             nullptr);
    while (status_of(engine) != ZEL_STATUS_CONNECTED)
        zel_pump_messages(10);
}

struct Counter : CZelReceiver {
    std::atomic<long> messages{0};
    long replies = 0;
    int processMsg(vartocb *, int, sWatchData *, void *, int *) override { return ++messages, 1; }
    int processReply(vartocb *, int, void *, void *, int *) override { return ++replies, 1; }
};

int send(CZelEngine &engine, std::string &bytes)
{
    scratchcb message{int32_t(bytes.size()), int32_t(bytes.size()), int32_t(bytes.size()), bytes.data()};
    int err = 0;
    return engine.sendMsg(&message, &err);
}

void *watch(CZelEngine &engine, int tag, const char *value, CZelReceiver *receiver)
{
    sPChar v{const_cast<char *>(value), int32_t(std::strlen(value))};
    void *handle = nullptr;
    int err = 0;
    engine.addWatch(&handle, &tag, &v, 1, receiver, nullptr, false, 0, false, false, &err);
    return handle;
}

// Waits until the broker holds every bind `engine` asked for.
void settle(CZelEngine &engine, const char *mark)
{
    Counter sync;
    watch(engine, 60000, mark, &sync);
    std::string message = build_message({{60000, mark}});
    send(engine, message);
    while (sync.messages == 0)
        zel_pump_messages(10);
}

const std::string hundred_bytes = build_message({{5, "x"}, {44, std::string(81, 'p')}});

double engine_throughput(long messages)
{
    CZelEngine subscriber;
    connect(subscriber, "bench-sub");
    Counter counter;
    watch(subscriber, 5, "x", &counter);
    settle(subscriber, "sub");
    std::atomic<bool> done{false};
    auto start = Clock::now();
    std::thread publisher_thread([&] {
        CZelEngine publisher;
        connect(publisher, "bench-pub");
        std::string message = hundred_bytes;
        for (long i = 0; i < messages; ++i)
            while (!send(publisher, message))
                std::this_thread::yield(); // the send queue is full: the broker sets the pace
        while (!done)
            zel_pump_messages(10);
    });
    while (counter.messages < messages)
        zel_pump_messages(10);
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    done = true;
    publisher_thread.join();
    return double(messages) / seconds;
}

Percentiles engine_round_trips(int trips)
{
    struct Echo : CZelReceiver {
        CZelEngine *engine = nullptr;
        int processMsg(vartocb *request, int, sWatchData *, void *, int *) override
        {
            int err = 0;
            sPChar number{};
            zel_get_data(request, 32760, 0, &number, &err);
            std::string reply = build_message(
                {{32767, "1"}, {32760, std::string(number.data, size_t(number.len))}, {100, "bench-client"}});
            send(*engine, reply);
            return 1;
        }
        int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
    };
    std::atomic<bool> serving{false}, done{false};
    std::thread server_thread([&] {
        CZelEngine server;
        Echo echo;
        echo.engine = &server;
        connect(server, "bench-server");
        sPChar name{const_cast<char *>("echo"), 4};
        int err = 0;
        server.registerSrvc(&name, &echo, 0, &err);
        settle(server, "server");
        serving = true;
        while (!done)
            zel_pump_messages(10);
    });
    CZelEngine client;
    connect(client, "bench-client");
    settle(client, "client");
    while (!serving)
        std::this_thread::yield();
    Counter counter;
    std::string request_bytes = build_message({{0, "echo"}, {44, std::string(70, 'q')}});
    scratchcb *request = nullptr;
    int err = 0;
    zel_open_scratch(&request, 256, &err);
    Percentiles result = time_round_trips(trips, [&] {
        std::memcpy(request->data, request_bytes.data(), request_bytes.size());
        request->len = int32_t(request_bytes.size());
        void *handle = nullptr;
        long before = counter.replies;
        client.addRqDontStore(&handle, request, &counter, nullptr, &err);
        while (counter.replies == before)
            zel_pump_messages(-1);
    });
    zel_close_scratch(&request, &err);
    done = true;
    server_thread.join();
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    long messages = argc > 1 ? std::atol(argv[1]) : 100000;
    int trips = argc > 2 ? std::atoi(argv[2]) : 2000;
    // Data messages are routed by their fields, so that they reach watches.
    ::setenv("ZEL_AMQP_ROUTE_BY_FIELDS", "1", 1);
    zel::test::RabbitBroker private_broker;
    broker = &private_broker;

    std::printf("%-52s %12s %12s %7s %12s\n", "", "engines", "raw", "ratio", "raw minimal");
    for (bool with_tls : {false, true}) {
        tls = with_tls;
        const char *how = tls ? "TLS" : "plain";
        // The raw clients publish with the fields' own key, as the engines do.
        const std::string key = "^5.x.^44." + std::string(81, 'p');
        auto raw_rate_of = [&](BrokerWork work) {
            return zel::reference::raw_amqp_throughput(raw_broker(), work, "^5.x", key, hundred_bytes, messages);
        };
        auto raw_trips_of = [&](BrokerWork work) {
            std::string body = build_message({{0, "echo"}, {44, std::string(70, 'q')}});
            return zel::reference::raw_amqp_round_trips(raw_broker(), work, "echo", "bench-raw", body, trips);
        };
        double engine_rate = engine_throughput(messages);
        double raw_rate = raw_rate_of(BrokerWork::engine);
        Percentiles engine_trip = engine_round_trips(trips);
        Percentiles raw_trip = raw_trips_of(BrokerWork::engine);
        double minimal_rate = raw_rate_of(BrokerWork::minimal);
        Percentiles minimal_trip = raw_trips_of(BrokerWork::minimal);
        std::printf("%-5s %-46s %12.0f %12.0f %7.2f %12.0f\n", how, "throughput, 100-byte messages, msg/s",
                    engine_rate, raw_rate, engine_rate / raw_rate, minimal_rate);
        std::printf("%-5s %-46s %12.1f %12.1f %7.2f %12.1f\n", how, "round trip median, us", engine_trip.median_us,
                    raw_trip.median_us, engine_trip.median_us / raw_trip.median_us, minimal_trip.median_us);
        std::printf("%-5s %-46s %12.1f %12.1f %7.2f %12.1f\n", how, "round trip 99th percentile, us",
                    engine_trip.p99_us, raw_trip.p99_us, engine_trip.p99_us / raw_trip.p99_us, minimal_trip.p99_us);
        std::fflush(stdout);
    }
    return 0;
}
