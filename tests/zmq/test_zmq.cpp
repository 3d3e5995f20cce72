// The client API over ZeroMQ: engines meeting at the project's forwarder,
// and a raw socket of the library where bytes must be chosen (multipart
// messages, parts that are not messages).
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/clients.h"
#include "support/messages.h"
#include "support/zelproxy_process.h"

namespace {

using namespace zel::test;

struct Client : Connection {
    Client(const char *type, int port, const std::string &name)
    {
        engine.create_connection(port, "127.0.0.1", type, "", "", "label", name, 0, "", "", "", nullptr);
        engine.setConnectionListener(&statuses, &err);
    }
};

// Subscriptions travel to the publisher on their own: until `sync` hears
// its mark, the publisher sends it again.
void settle(Client &publisher, Recorder &sync, int round)
{
    std::string mark = std::to_string(round);
    ASSERT_TRUE(pump_until([&] {
        publisher.send({{60000, mark}});
        zel_pump_messages(5);
        return sync.saw("60000 1 " + mark + " ");
    }));
}

TEST(Zmq, PublishersAndSubscribersMeetAtTheForwarderByPrefixFiltersAndAgainWhenItIsRestarted)
{
    ZelproxyProcess proxy;
    Client subscriber("ZMQ_SUB", proxy.subscribers(), "sub"), publisher("ZMQ_PUB", proxy.publishers(), "pub");
    ASSERT_EQ(subscriber.status(), ZEL_STATUS_CONNECTED);
    ASSERT_EQ(publisher.status(), ZEL_STATUS_CONNECTED);
    std::string trace = ::testing::TempDir() + "zmq-restart.trace";
    subscriber.engine.enable_log(nullptr, trace);
    Recorder prices, sync, service, replies;
    subscriber.watch({5, 7}, {"IBM", ""}, &prices); // "^5.IBM.^7.": pairs in tag order prefix the topic
    ASSERT_EQ(subscriber.serve("quotes", &service), 1);
    // Subscriptions travel in order: once the last one works, so do those before it.
    subscriber.watch({60000}, {""}, &sync);
    settle(publisher, sync, 1);
    ASSERT_EQ(publisher.ask({{0, "quotes"}}, &replies), 1);

    publisher.send({{5, "IBM"}, {7, "a"}});
    publisher.send({{5, "MSFT"}, {7, "b"}});
    publisher.send({{5, "IBM"}, {7, "c"}, {60000, "end"}});
    EXPECT_EQ(subscriber.send({{5, "IBM"}}), 0); // a subscriber does not send
    ASSERT_TRUE(pump_until([&] { return sync.saw("5 1 IBM 7 1 c 60000 1 end "); }));
    EXPECT_EQ(prices.messages, (std::vector<std::string>{"5 1 IBM 7 1 a ", "5 1 IBM 7 1 c 60000 1 end "}));
    ASSERT_EQ(service.messages.size(), 1u);
    EXPECT_EQ(service.messages[0].rfind("0 1 quotes 32760 1 ", 0), 0u) << service.messages[0];

    proxy.restart();
    // ZeroMQ reconnects both and sends the subscriptions again.
    settle(publisher, sync, 2);
    EXPECT_EQ(subscriber.status(), ZEL_STATUS_CONNECTED);
    EXPECT_EQ(subscriber.statuses.seen, std::vector<int>{ZEL_STATUS_CONNECTED});
    // The socket's own events show the outage in the trace.
    subscriber.engine.disable_log(nullptr, trace);
    EXPECT_NE(file_text(trace).find("| Disconnected socket descriptor "), std::string::npos);
}

// A raw socket of the test, bound to a free loopback port. As XPUB it sees
// the subscriptions a SUB connection makes, byte for byte, and publishes
// what the test chooses; as SUB it sees what a PUB connection sends.
struct RawSocket {
    void *socket;
    int port = 0;
    RawSocket(int type, int wait_ms) : socket(zmq_socket(context(), type))
    {
        if (type == ZMQ_SUB)
            zmq_setsockopt(socket, ZMQ_SUBSCRIBE, "", 0);
        zmq_setsockopt(socket, ZMQ_RCVTIMEO, &wait_ms, sizeof wait_ms);
        zmq_bind(socket, "tcp://127.0.0.1:*");
        char endpoint[256];
        size_t size = sizeof endpoint;
        zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &size);
        port = std::atoi(std::strrchr(endpoint, ':') + 1);
    }
    ~RawSocket()
    {
        int linger = 0;
        zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
        zmq_close(socket);
    }
    // One context for the whole run, never ended: now and then ending a
    // context whose XPUB socket a subscriber has just left waits for ever
    // inside ZeroMQ, with every socket closed.
    static void *context()
    {
        static void *const shared = zmq_ctx_new();
        return shared;
    }
    // The next subscription change: "+filter" or "-filter".
    std::string subscription()
    {
        char bytes[512];
        int n = zmq_recv(socket, bytes, sizeof bytes, 0);
        return n <= 0 ? std::string() : (bytes[0] ? "+" : "-") + std::string(bytes + 1, size_t(n - 1));
    }
    void send(std::vector<std::string> parts)
    {
        for (size_t i = 0; i < parts.size(); ++i)
            zmq_send(socket, parts[i].data(), parts[i].size(), i + 1 < parts.size() ? ZMQ_SNDMORE : 0);
    }
};

TEST(Zmq, ASubscriberSubscribesItsOwnAndItsWatchesFiltersAndTakesOnlyWholeMessagesFromTheLastPart)
{
    AlertLog alerts;
    RawSocket peer(ZMQ_XPUB, int(patience().count()));
    std::string trace = ::testing::TempDir() + "zmq.trace";
    {
        Client first("ZMQ_SUB", peer.port, "own"), second("ZMQ_SUB", peer.port, "own");
        std::vector<std::string> own(4);
        std::ranges::generate(own, [&] { return peer.subscription(); });
        std::ranges::sort(own);
        // Each connection takes the next number of the process's counter.
        int n = std::atoi(own[0].c_str() + std::strlen("+^32761.own_"));
        std::string number = std::to_string(n), next = std::to_string(n + 1);
        EXPECT_EQ(own, (std::vector<std::string>{"+^32761.own_" + number, "+^32761.own_" + next,
                                                 "+set_device_aka|own_" + number, "+set_device_aka|own_" + next}));
    }
    for (int i = 0; i < 4; ++i) // gone with their sockets
        EXPECT_EQ(peer.subscription()[0], '-');
    auto subscriber = std::make_unique<Client>("ZMQ_SUB", peer.port, "raw");
    peer.subscription();
    peer.subscription();
    subscriber->engine.enable_log(nullptr, trace);
    Recorder in;
    void *handle = subscriber->watch({9, 3}, {"", "x"}, &in);
    EXPECT_EQ(peer.subscription(), "+^9.^3.x.");
    subscriber->engine.removeWatch(handle, &subscriber->err);
    EXPECT_EQ(peer.subscription(), "-^9.^3.x.");
    subscriber->watch({9}, {""}, &in);
    EXPECT_EQ(peer.subscription(), "+^9.");

    peer.send({"^9.", "not the last part", build_message({{9, "last"}})});
    peer.send({"^9.", "not a message"});
    peer.send({"^9.", ""});
    peer.send({"^9.", build_message({{9, "after"}})});
    ASSERT_TRUE(pump_until([&] { return in.saw("9 1 after "); }));
    EXPECT_EQ(in.messages, (std::vector<std::string>{"9 1 last ", "9 1 after "}));
    EXPECT_EQ(alerts.count(), 2u);
    subscriber->engine.disable_log(nullptr, trace);
    const std::string text = file_text(trace);
    const std::string stamp = R"(< [0-9]{1,2}-[0-9]{1,2}-[0-9]{4} [0-9]{1,2}:[0-9]{1,2}:[0-9]{1,2}:[0-9]{1,3})";
    for (const std::string &group : {stamp + R"( \| \^9\.     \|    label\t\t\|\t3 \n< 0 1 subscribe \n<\n)",
                                     stamp + R"(\| 16 \| label \n< 9 1 last \n<\n)"})
        EXPECT_TRUE(std::regex_search(text, std::regex(group))) << group << "\n" << text;

    // Destroyed while its peer goes on sending: no hang, no crash.
    std::atomic<bool> sending{true};
    std::thread flood([&] {
        while (sending)
            peer.send({"^9.", build_message({{9, "more"}})});
    });
    ASSERT_TRUE(pump_until([&] { return in.messages.size() > 10; }));
    subscriber.reset();
    sending = false;
    flood.join();
}

TEST(Zmq, APublisherSendsTheTopicOfItsFieldsThenTheMessage)
{
    RawSocket sub(ZMQ_SUB, 20);
    Client publisher("ZMQ_PUB", sub.port, "pub");
    std::string message = build_message({{7, "a"}, {5, "IBM"}});
    std::vector<std::string> parts;
    // The subscription reaches the publisher a little after it connects.
    ASSERT_TRUE(pump_until([&] {
        publisher.send(message);
        char bytes[256];
        int n;
        while ((n = zmq_recv(sub.socket, bytes, sizeof bytes, 0)) >= 0)
            parts.emplace_back(bytes, size_t(n));
        return !parts.empty();
    }));
    parts.resize(2); // the first message's
    EXPECT_EQ(parts, (std::vector<std::string>{"^5.IBM.^7.a.", message}));
}

} // namespace
