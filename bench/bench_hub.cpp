// End to end through the hub server, beside a raw TCP relay as reference:
//  - throughput: a publisher engine -> hub -> a subscriber engine with one
//    watch that pumps its messages, 100-byte messages; the same two engines
//    through a relay that forwards bytes without parsing;
//  - latency: request/reply round trips between two engines through the hub;
//    a raw frame ping-pong through the relay.
//
//     build/bench/bench_hub [messages] [round-trips]
#include <zel/zel.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "reference/percentiles.h"
#include "reference/raw_relay.h"
#include "support/frame_socket.h"
#include "support/messages.h"
#include "support/zelhub_process.h"

namespace {

using zel::reference::Percentiles;
using zel::reference::RawRelay;
using zel::reference::time_round_trips;

using Clock = std::chrono::steady_clock;
using zel::test::build_message;

int status_of(CZelEngine &engine)
{
    int status = 0, err = 0;
    engine.getConnectionStatus(&status, &err);
    return status;
}

void connect(CZelEngine &engine, int port, const char *name)
{
    engine.create_connection(port, "127.0.0.1", "hub", "", "", "", name, 0, "", "", "", nullptr);
    while (status_of(engine) != ZEL_STATUS_CONNECTED)
        zel_pump_messages(10);
}

struct Counter : CZelReceiver {
    std::atomic<long> messages{0};
    long replies = 0;
    std::string last_sync;
    int processMsg(vartocb *msg, int, sWatchData *, void *, int *) override
    {
        ++messages;
        int err = 0;
        sPChar v{};
        if (zel_get_data(msg, 60000, 0, &v, &err))
            last_sync.assign(v.data, size_t(v.len));
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return ++replies, 1; }
};

int send(CZelEngine &engine, std::string &bytes)
{
    scratchcb message{int32_t(bytes.size()), int32_t(bytes.size()), int32_t(bytes.size()), bytes.data()};
    int err = 0;
    return engine.sendMsg(&message, &err);
}

// Messages per second from a publisher engine on its own thread to a
// subscriber engine with one watch, pumped here. `ready` runs once both are
// connected and the watch is placed, before publishing starts.
double throughput(int port, long messages, const std::function<void(CZelEngine &, Counter &)> &ready)
{
    CZelEngine subscriber;
    Counter counter;
    std::promise<void> go;
    std::atomic<bool> publisher_connected{false};
    std::thread publisher_thread([&] {
        CZelEngine publisher;
        connect(publisher, port, "bench-publisher");
        publisher_connected = true;
        go.get_future().wait();
        std::string message = build_message({{5, "x"}, {44, std::string(81, 'p')}}); // 100 bytes
        // A full send queue refuses a message: the publisher tries it again,
        // as an application that must not lose it would.
        for (long i = 0; i < messages; ++i)
            while (!send(publisher, message))
                std::this_thread::yield();
        // Stay connected until everything has left.
        while (counter.messages < messages)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    connect(subscriber, port, "bench-subscriber");
    int tag = 5, err = 0;
    sPChar any{nullptr, 0};
    void *watch = nullptr;
    subscriber.addWatch(&watch, &tag, &any, 1, &counter, nullptr, false, 0, false, false, &err);
    int tag_sync = 60000;
    subscriber.addWatch(&watch, &tag_sync, &any, 1, &counter, nullptr, false, 0, false, false, &err);
    while (!publisher_connected)
        std::this_thread::yield();
    ready(subscriber, counter);
    long before = counter.messages;
    auto start = Clock::now();
    go.set_value();
    while (counter.messages - before < messages)
        zel_pump_messages(10);
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    publisher_thread.join();
    return double(messages) / seconds;
}

// Request/reply round trips between two engines through the hub; the service
// runs on its own thread.
Percentiles engine_round_trips(int port, int trips)
{
    // Builds each reply with one kept builder, as a service would: a new
    // builder per reply costs more than the round trip.
    struct Echo : CZelReceiver {
        CZelEngine *engine = nullptr;
        vartocb *builder = nullptr;
        scratchcb *reply = nullptr;
        std::string filler = std::string(60, 'r');
        Echo()
        {
            int err = 0;
            zel_ctor_vartocb(&builder, &err);
            zel_open_scratch(&reply, 256, &err);
        }
        ~Echo() override
        {
            int err = 0;
            zel_close_scratch(&reply, &err);
            zel_dtor_vartocb(&builder, &err);
        }
        int processMsg(vartocb *request, int, sWatchData *, void *, int *) override
        {
            int err = 0;
            sPChar number{}, is_reply{const_cast<char *>("1"), 1}, body{filler.data(), int32_t(filler.size())};
            zel_get_data(request, 32760, 0, &number, &err);
            reply->len = 0;
            zel_start_msg(builder, reply, &err);
            zel_add_data(builder, 32767, 1, &is_reply, &err);
            zel_add_data(builder, 32760, 1, &number, &err);
            zel_add_data(builder, 44, 1, &body, &err);
            engine->sendMsg(reply, &err);
            return 1;
        }
        int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
    };
    std::atomic<bool> serving{false}, done{false};
    std::thread server_thread([&] {
        CZelEngine server;
        Echo echo;
        echo.engine = &server;
        connect(server, port, "bench-server");
        sPChar name{const_cast<char *>("echo"), 4};
        int err = 0;
        server.registerSrvc(&name, &echo, 0, &err);
        serving = true;
        while (!done)
            zel_pump_messages(10);
    });
    while (!serving)
        std::this_thread::yield();
    CZelEngine client;
    connect(client, port, "bench-client");
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

// A raw frame ping-pong between two sockets through the relay.
Percentiles raw_round_trips(int trips)
{
    RawRelay relay;
    auto pinger = zel::test::FrameSocket::connect_to(relay.port());
    auto ponger = zel::test::FrameSocket::connect_to(relay.port());
    std::thread echo([&] {
        while (auto message = ponger.read_message())
            ponger.send_message(*message);
    });
    std::string frame = build_message({{0, "echo"}, {44, std::string(70, 'q')}});
    Percentiles result = time_round_trips(trips, [&] {
        pinger.send_message(frame);
        pinger.read_message();
    });
    ::shutdown(ponger.fd(), SHUT_RDWR);
    echo.join();
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    long messages = argc > 1 ? std::atol(argv[1]) : 1000000;
    int trips = argc > 2 ? std::atoi(argv[2]) : 10000;
    zel::test::ZelhubProcess hub({"--max-backlog", "1073741824"});

    // Through the hub: the subscriber's own sync message coming back proves
    // the hub holds its watch before the publisher starts.
    double hub_rate = throughput(hub.port(), messages, [](CZelEngine &subscriber, Counter &counter) {
        std::string sync = build_message({{60000, "ready"}});
        send(subscriber, sync);
        while (counter.last_sync != "ready")
            zel_pump_messages(10);
    });

    double raw_rate;
    {
        // The relay filters nothing: the watch is the subscriber's own.
        RawRelay relay;
        raw_rate = throughput(relay.port(), messages, [](CZelEngine &, Counter &) {});
    }

    Percentiles hub_trip = engine_round_trips(hub.port(), trips);
    Percentiles raw_trip = raw_round_trips(trips);

    std::printf("%-52s %12s %12s %7s\n", "", "hub", "raw relay", "ratio");
    std::printf("%-52s %12.0f %12.0f %7.2f\n", "throughput, 100-byte messages, msg/s", hub_rate, raw_rate,
                hub_rate / raw_rate);
    std::printf("%-52s %12.1f %12.1f %7.2f\n", "round trip median, us (engines vs raw ping-pong)",
                hub_trip.median_us, raw_trip.median_us, hub_trip.median_us / raw_trip.median_us);
    std::printf("%-52s %12.1f %12.1f %7.2f\n", "round trip 99th percentile, us", hub_trip.p99_us, raw_trip.p99_us,
                hub_trip.p99_us / raw_trip.p99_us);
    return 0;
}
