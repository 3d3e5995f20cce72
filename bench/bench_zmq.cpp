// Through the ZeroMQ forwarder, beside raw libzmq doing the same:
//  - a PUB engine -> zelproxy -> a SUB engine with one watch filter that
//    pumps its messages, [topic][100-byte message]; a raw PUB socket and a
//    raw SUB socket with the same filter through the same forwarder;
//  - datagrams per second delivered to the application thread by the UDP
//    facade, beside a raw recvfrom loop on a socket of its own.
//
//     build/bench/bench_zmq [messages] [datagrams]
#include <zel/zel.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "reference/raw_zmq.h"
#include "support/ports.h"
#include "support/messages.h"
#include "support/zelproxy_process.h"

namespace {

using Clock = std::chrono::steady_clock;
using zel::test::build_message;

const std::string hundred_bytes = build_message({{5, "x"}, {44, std::string(81, 'p')}});
const std::string topic = "^5.x.^44." + std::string(81, 'p') + ".";

struct Counter : CZelReceiver {
    long messages = 0;
    int processMsg(vartocb *, int, sWatchData *, void *, int *) override { return ++messages, 1; }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Messages per second over the `count` that arrive after the first, which
// starts the clock.
double pumped_rate(const Counter &counter, long count)
{
    while (counter.messages == 0)
        zel_pump_messages(10);
    long first = counter.messages;
    auto start = Clock::now();
    while (counter.messages - first < count)
        zel_pump_messages(10);
    return double(counter.messages - first) / seconds_since(start);
}

// Publishes until told to stop: a subscription reaches a publisher only some
// time after it was made, so the measurement starts at the first arrival.
double engines(const zel::test::ZelproxyProcess &proxy, long messages)
{
    CZelEngine subscriber;
    subscriber.create_connection(proxy.subscribers(), "127.0.0.1", "ZMQ_SUB", "", "", "bench", "sub", 0, "", "", "",
                                 nullptr);
    Counter counter;
    int tag = 5, err = 0;
    sPChar value{const_cast<char *>("x"), 1};
    void *watch = nullptr;
    subscriber.addWatch(&watch, &tag, &value, 1, &counter, nullptr, false, 0, false, false, &err);
    std::atomic<bool> done{false};
    std::thread publisher_thread([&] {
        CZelEngine publisher;
        publisher.create_connection(proxy.publishers(), "127.0.0.1", "ZMQ_PUB", "", "", "bench", "pub", 0, "", "", "",
                                    nullptr);
        std::string message = hundred_bytes;
        scratchcb m{int32_t(message.size()), int32_t(message.size()), int32_t(message.size()), message.data()};
        int e = 0;
        while (!done)
            publisher.sendMsg(&m, &e);
    });
    double rate = pumped_rate(counter, messages);
    done = true;
    publisher_thread.join();
    return rate;
}

// ---- Datagrams ----------------------------------------------------------------------

// Sends 8-byte datagrams to `port` until told to stop.
std::thread flood(int port, std::atomic<bool> &done)
{
    return std::thread([port, &done] {
        int s = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(uint16_t(port));
        while (!done)
            ::sendto(s, "datagram", 8, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        ::close(s);
    });
}

double facade_datagrams(long datagrams)
{
    int port = zel::test::free_loopback_port(SOCK_DGRAM);
    Counter counter;
    CUdpFacade::getInstance().init("", "", "127.0.0.1:" + std::to_string(port), &counter);
    std::atomic<bool> done{false};
    std::thread sender = flood(port, done);
    double rate = pumped_rate(counter, datagrams);
    done = true;
    sender.join();
    return rate;
}

double raw_datagrams(long datagrams)
{
    int port = 0;
    int s = zel::test::bound_loopback_socket(SOCK_DGRAM, &port);
    std::atomic<bool> done{false};
    std::thread sender = flood(port, done);
    char buffer[8];
    ::recv(s, buffer, sizeof buffer, 0);
    auto start = Clock::now();
    for (long i = 0; i < datagrams; ++i)
        ::recv(s, buffer, sizeof buffer, 0);
    double rate = double(datagrams) / seconds_since(start);
    done = true;
    sender.join();
    ::close(s);
    return rate;
}

} // namespace

int main(int argc, char **argv)
{
    long messages = argc > 1 ? std::atol(argv[1]) : 1000000;
    long datagrams = argc > 2 ? std::atol(argv[2]) : 200000;
    zel::test::ZelproxyProcess proxy;
    double engine_rate = engines(proxy, messages);
    auto at = [](int port) { return "tcp://127.0.0.1:" + std::to_string(port); };
    double raw_rate = zel::reference::raw_zmq_throughput(at(proxy.publishers()), at(proxy.subscribers()), "^5.x.", topic,
                                                         hundred_bytes, messages, 30000);
    double facade_rate = facade_datagrams(datagrams);
    double recv_rate = raw_datagrams(datagrams);
    std::printf("%-52s %12s %12s %7s\n", "", "zel", "raw", "ratio");
    std::printf("%-52s %12.0f %12.0f %7.2f\n", "ZeroMQ via zelproxy, 100-byte messages, msg/s", engine_rate, raw_rate,
                engine_rate / raw_rate);
    std::printf("%-52s %12.0f %12.0f %7.2f\n", "UDP datagrams to the application thread, /s", facade_rate, recv_rate,
                facade_rate / recv_rate);
    return 0;
}
