// The client API over ZeroMQ: engines meeting at the project's forwarder,
// and a raw socket of the library where bytes must be chosen (multipart
// messages, parts that are not messages).
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <signal.h>
#include <sys/wait.h>
#include <zmq.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "support/clients.h"
#include "support/messages.h"
#include "support/zelhub_process.h"

namespace {

using zel::test::build_message;
using zel::test::pump_until;
using zel::test::Recorder;

// The forwarder, on ports it picks, stopped by its process id.
class ZelproxyProcess {
public:
    ZelproxyProcess() { start({ZELPROXY_PATH}); }
    ~ZelproxyProcess() { stop(); }
    // Kills it and starts it again on the same ports.
    void restart()
    {
        stop();
        start({ZELPROXY_PATH, "--publishers", std::to_string(publishers_), "--subscribers",
               std::to_string(subscribers_)});
    }
    int publishers() const { return publishers_; }
    int subscribers() const { return subscribers_; }

private:
    void start(std::vector<std::string> args)
    {
        int out = -1;
        pid_ = zel::test::spawn_program(std::move(args), out);
        std::string line = zel::test::first_line(out);
        char in[64] = {}, to[64] = {};
        if (std::sscanf(line.c_str(), "zelproxy listening on 127.0.0.1:%63s 127.0.0.1:%63s", in, to) != 2)
            throw std::runtime_error("zelproxy did not start: " + line);
        publishers_ = std::atoi(in);
        subscribers_ = std::atoi(to);
    }
    void stop()
    {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    pid_t pid_ = -1;
    int publishers_ = 0, subscribers_ = 0;
};

struct Client : zel::test::Connection {
    Client(const char *type, int port, const std::string &name)
    {
        engine.create_connection(port, "127.0.0.1", type, "", "", "label", name, 0, "", "", "", nullptr);
        engine.setConnectionListener(&statuses, &err);
    }
};

std::vector<std::string> alerts;
std::mutex alerts_lock;
void record_alert(const char *text)
{
    std::lock_guard<std::mutex> guard(alerts_lock);
    alerts.emplace_back(text);
}

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

TEST(Zmq, PublishersAndSubscribersMeetAtTheForwarderByPrefixFilters)
{
    ZelproxyProcess proxy;
    Client subscriber("ZMQ_SUB", proxy.subscribers(), "sub"), publisher("ZMQ_PUB", proxy.publishers(), "pub");
    ASSERT_EQ(subscriber.status(), ZEL_STATUS_CONNECTED);
    ASSERT_EQ(publisher.status(), ZEL_STATUS_CONNECTED);
    Recorder prices, sync;
    subscriber.watch({60000}, {""}, &sync);
    subscriber.watch({5, 7}, {"IBM", ""}, &prices); // "^5.IBM.^7.": pairs in tag order prefix the topic
    settle(publisher, sync, 1);

    publisher.send({{5, "IBM"}, {7, "a"}});
    publisher.send({{5, "MSFT"}, {7, "b"}});
    publisher.send({{5, "IBM"}, {7, "c"}, {60000, "end"}});
    EXPECT_EQ(subscriber.send({{5, "IBM"}}), 0); // a subscriber does not send
    ASSERT_TRUE(pump_until([&] { return sync.saw("5 1 IBM 7 1 c 60000 1 end "); }));
    EXPECT_EQ(prices.messages, (std::vector<std::string>{"5 1 IBM 7 1 a ", "5 1 IBM 7 1 c 60000 1 end "}));
}

TEST(Zmq, ARestartedForwarderIsReachedAgainWithoutAnyStatusChange)
{
    ZelproxyProcess proxy;
    Client subscriber("ZMQ_SUB", proxy.subscribers(), "sub"), publisher("ZMQ_PUB", proxy.publishers(), "pub");
    Recorder sync;
    subscriber.watch({60000}, {""}, &sync);
    settle(publisher, sync, 1);
    proxy.restart();
    // ZeroMQ reconnects both and sends the subscriptions again.
    settle(publisher, sync, 2);
    EXPECT_EQ(subscriber.status(), ZEL_STATUS_CONNECTED);
    EXPECT_EQ(subscriber.statuses.seen, std::vector<int>{ZEL_STATUS_CONNECTED});
}

TEST(Zmq, OnlyTheLastPartOfAMultipartMessageArrivesAndPartsThatAreNotMessagesAreDropped)
{
    zel_set_alert_handler(record_alert);
    void *context = zmq_ctx_new();
    void *publisher = zmq_socket(context, ZMQ_PUB);
    ASSERT_EQ(zmq_bind(publisher, "tcp://127.0.0.1:*"), 0);
    char endpoint[256];
    size_t size = sizeof endpoint;
    zmq_getsockopt(publisher, ZMQ_LAST_ENDPOINT, endpoint, &size);
    int port = std::atoi(std::strrchr(endpoint, ':') + 1);

    Client subscriber("ZMQ_SUB", port, "raw");
    Recorder in;
    subscriber.watch({9}, {""}, &in);
    auto send_parts = [&](std::vector<std::string> parts) {
        for (size_t i = 0; i < parts.size(); ++i)
            zmq_send(publisher, parts[i].data(), parts[i].size(), i + 1 < parts.size() ? ZMQ_SNDMORE : 0);
    };
    ASSERT_TRUE(pump_until([&] {
        send_parts({"^9.", build_message({{9, "sync"}})});
        zel_pump_messages(5);
        return in.saw("9 1 sync ");
    }));
    size_t before = in.messages.size();
    send_parts({"^9.", "not the last part", build_message({{9, "last"}})});
    send_parts({"^9.", "not a message"});
    send_parts({"^9.", ""});
    send_parts({"^9.", build_message({{9, "after"}})});
    ASSERT_TRUE(pump_until([&] { return in.saw("9 1 after "); }));
    EXPECT_EQ(std::vector<std::string>(in.messages.begin() + long(before), in.messages.end()),
              (std::vector<std::string>{"9 1 last ", "9 1 after "}));
    {
        std::lock_guard<std::mutex> guard(alerts_lock);
        EXPECT_EQ(alerts.size(), 2u);
    }
    zel_set_alert_handler(nullptr);
    zmq_close(publisher);
    zmq_ctx_term(context);
}

} // namespace
