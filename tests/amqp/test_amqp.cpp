// The client API over a real AMQP broker, started once for this program:
// engines meeting through a topic exchange, the broker's own view of the
// queues and bindings, a raw client library peer that inspects what an
// engine publishes and sends what an engine must survive, TLS, outages and
// the reconnect budget.
#include <gtest/gtest.h>
#include <zel/compress.h>
#include <zel/engine.h>

#include <amqp.h>
#include <signal.h>
#include <stdlib.h>

#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "reference/raw_amqp.h"
#include "support/clients.h"
#include "support/messages.h"
#include "support/rabbitmq_broker.h"
#include "support/time_factor.h"
#include "support/tool_process.h"
#include "support/worker_reports.h"
#include "transport/amqp/amqp_engine.h"

using namespace zel::test;

namespace {

RabbitBroker *broker;

struct BrokerEnvironment : ::testing::Environment {
    void SetUp() override
    {
        broker = new RabbitBroker();
        // Data messages are routed by their fields, so that they reach
        // watches; one test looks at the default.
        ::setenv("ZEL_AMQP_ROUTE_BY_FIELDS", "1", 1);
    }
    void TearDown() override { delete broker; }
};
const auto *const environment = ::testing::AddGlobalTestEnvironment(new BrokerEnvironment);

// The broker is slower than a hub: this suite's own patience hides the shared one.
bool pump_until(const std::function<bool()> &done)
{
    return zel::test::pump_until(done, patience(20000));
}

struct Tls {
    std::string ca, key, certificate;
};

// One application's connection to the broker.
struct Client : Connection {
    Client(const std::string &name, int mode = 0, const Tls &tls = {}, std::string host = "127.0.0.1",
           std::string exchange = "amq.topic")
    {
        engine.create_connection(tls.ca.empty() ? broker->port() : broker->tls_port(), host, "/", "guest", "guest",
                                 exchange, name, mode, tls.ca, tls.key, tls.certificate, nullptr);
        engine.setConnectionListener(&statuses, &err);
    }
    bool connect() { return pump_until([&] { return status() == ZEL_STATUS_CONNECTED; }); }
    // The binds are taken by the worker between deliveries: a round trip
    // through the broker shows every one asked for so far is done.
    bool settle() { return round_trip(patience(20000)); }
};

// The raw client as the tests use it: plain TCP, one content type.
struct RawPeer : zel::reference::RawAmqp {
    using Delivery = zel::reference::RawAmqp::Delivery;
    RawPeer() : RawAmqp({.port = broker->port()}) {}
    Delivery next()
    {
        timeval wait{10 * time_factor, 0};
        Delivery d;
        RawAmqp::next(&wait, &d);
        return d;
    }
    void publish(const std::string &key, const std::string &body, const char *content_type)
    {
        amqp_basic_properties_t p{};
        p._flags = AMQP_BASIC_CONTENT_TYPE_FLAG;
        p.content_type = amqp_cstring_bytes(content_type);
        RawAmqp::publish(key, body, &p);
    }
};

std::string unique_name(const char *base)
{
    static int next = 0;
    return std::string(base) + std::to_string(::getpid()) + "x" + std::to_string(++next);
}

// ---- Engines meeting through the broker --------------------------------------

TEST(AmqpBroker, WatchesServicesAndRepliesMeetBetweenEnginesOnBindingsThatFollowTheKeyGrammars)
{
    std::string requester_name = unique_name("requester"), server_name = unique_name("server");
    Client server(server_name), requester(requester_name);
    ASSERT_TRUE(server.connect() && requester.connect());
    Recorder prices, service, replies;
    requester.watch({5, 3}, {"IBM", ""}, &prices);
    // The reply names its requester, whose queue is bound to its name.
    service.respond = [&](vartocb *request) {
        server.send({{32767, "1"}, {32760, request_number(request)}, {100, requester_name}});
    };
    ASSERT_EQ(server.serve("quotes", &service), 1);
    ASSERT_TRUE(server.settle() && requester.settle());

    server.send({{3, "x"}, {5, "MSFT"}});
    server.send({{5, "IBM"}});         // no field 3: no match
    server.send({{3, "y"}, {5, "IBM"}}); // both pieces, in tag order
    void *handle = nullptr;
    ASSERT_EQ(requester.ask({{0, "quotes"}, {10, "q"}}, &replies, nullptr, &handle), 1);

    ASSERT_TRUE(pump_until([&] { return !replies.requests.empty() && !prices.messages.empty(); }));
    EXPECT_EQ(prices.messages, std::vector<std::string>{"3 1 y 5 1 IBM "});
    EXPECT_EQ(replies.requests, std::vector<void *>{handle});
    ASSERT_EQ(service.messages.size(), 1u);
    EXPECT_EQ(service.messages[0].rfind("0 1 quotes 10 1 q 32760 1 ", 0), 0u) << service.messages[0];

    // The pairs sorted by tag, an empty value a wildcard; each queue is its
    // client's own, named after it and deleted with the connection.
    std::string bindings = broker->ctl("list_bindings source_name destination_name routing_key");
    for (auto [name, key] : {std::pair{requester_name, "#." + requester_name + ".#"},
                             std::pair{requester_name, std::string("#.^3.*.#.^5.IBM.#")},
                             std::pair{server_name, std::string("^0.quotes")}}) {
        std::regex line("amq\\.topic\t" + name + "_[0-9]+\t" +
                        std::regex_replace(key, std::regex(R"([.^*#])"), R"(\$&)") + "\n");
        EXPECT_TRUE(std::regex_search(bindings, line)) << key << "\n" << bindings;
    }
    std::string queues = broker->ctl("list_queues name auto_delete");
    EXPECT_TRUE(std::regex_search(queues, std::regex(requester_name + "_[0-9]+\ttrue\n"))) << queues;
}

// ---- What an engine publishes, and what it survives ---------------------------

// `body` compressed, or expanded, by `codec`.
std::string through(int codec, std::string body, bool compress)
{
    void *handle = nullptr;
    scratchcb *out = nullptr;
    int err = 0;
    zel_compress_open(&handle, &codec, &err);
    zel_open_scratch(&out, 1 << 16, &err);
    scratchcb in{int32_t(body.size()), int32_t(body.size()), int32_t(body.size()), body.data()};
    EXPECT_EQ((compress ? zel_compress : zel_decompress)(handle, &in, out, &err), 1) << err;
    std::string text(out->data, size_t(out->len));
    zel_close_scratch(&out, &err);
    zel_compress_close(&handle, &err);
    return text;
}

TEST(AmqpBroker, PublishPropertiesBodiesAndHeartbeatsForEachCompressionMode)
{
    RawPeer peer;
    peer.listen("#.^7.props.#");
    peer.listen("0.varto_heartbeat");
    // Field 8 does not compress: LZMA frames it all the same.
    std::string noise(300, '\0');
    for (size_t i = 0; i < noise.size(); ++i)
        noise[i] = char((i * 2654435761u) >> 13);
    std::string message = build_message({{7, "props"}, {8, noise}});
    for (int mode : {0, 1, 2}) {
        std::string name = unique_name("props");
        Client client(name, mode);
        ASSERT_TRUE(client.connect());
        ASSERT_EQ(client.send({{7, "props"}, {8, noise}}), 1);
        RawPeer::Delivery d;
        do // past the heartbeats the client before sent
            d = peer.next();
        while (!d.body.empty() && d.reply_to != name);
        EXPECT_EQ(d.content_type, mode == 0 ? "zel" : "zelz") << mode;
        EXPECT_EQ(d.delivery_mode, 2);
        EXPECT_EQ(d.reply_to, name);
        EXPECT_EQ(d.routing_key, "^7.props"); // the next piece would pass 255 characters
        if (mode == 2) { // the message's length, then the block
            ASSERT_GE(d.body.size(), 4u);
            EXPECT_EQ(uint8_t(d.body[0]) | uint8_t(d.body[1]) << 8, int(message.size()));
            d.body.erase(0, 4);
        }
        EXPECT_EQ(mode == 0 ? d.body : through(mode == 1 ? ZEL_COMPRESS_LZMA : ZEL_COMPRESS_BLOCK, d.body, false),
                  message);
        // Heartbeats claim compression in mode 1 alone, and are never
        // compressed. A period of 60 ms is one idle turn of the worker.
        ASSERT_EQ(client.engine.enableHeartbeat(nullptr, 60, &client.err), 1);
        do
            d = peer.next();
        while (!d.body.empty() && d.reply_to != name);
        EXPECT_EQ(d.body, "0 1 varto_heartbeat");
        EXPECT_EQ(d.content_type, mode == 1 ? "zelz" : "zel");
    }

    // By default a data message leaves with the routing key of the
    // connection's last request.
    ScopedEnv by_fields("ZEL_AMQP_ROUTE_BY_FIELDS", nullptr);
    RawPeer service;
    service.listen("^0.last");
    Client client(unique_name("default"));
    ASSERT_TRUE(client.connect());
    Recorder replies;
    ASSERT_EQ(client.ask({{0, "last"}}, &replies), 1);
    client.send({{7, "data"}});
    EXPECT_EQ(service.next().routing_key, "^0.last");
    RawPeer::Delivery data = service.next();
    EXPECT_EQ(data.routing_key, "^0.last");
    EXPECT_EQ(data.body, build_message({{7, "data"}}));
}

TEST(AmqpBroker, BadDeliveriesAreDroppedWithAnAlertAndTheRestArrive)
{
    AlertLog alerts;
    Client client(unique_name("bad"));
    ASSERT_TRUE(client.connect());
    Recorder in;
    client.watch({9}, {"in"}, &in);
    ASSERT_TRUE(client.settle());
    RawPeer peer;
    // A compressed body as an LZMA-mode sender makes it; the receiver (mode
    // 0) expands with LZMA.
    std::string frame =
        through(ZEL_COMPRESS_LZMA, build_message({{9, "in"}, {1, "one"}, {2, std::string(400, 'p')}}), true);
    peer.publish("^9.in", "not a message", "zel");
    peer.publish("^9.in", frame.substr(0, frame.size() / 2), "zelz"); // truncated
    peer.publish("^9.in", frame, "zelz");
    peer.publish("^9.in", build_message({{9, "in"}, {1, "two"}}), "zel");
    ASSERT_TRUE(pump_until([&] { return in.messages.size() == 2; }));
    EXPECT_EQ(in.messages, (std::vector<std::string>{"9 1 in 1 1 one 2 1 " + std::string(400, 'p') + " ",
                                                     "9 1 in 1 1 two "}));
    EXPECT_EQ(alerts.count(), 2u);
}

// ---- TLS ------------------------------------------------------------------------

TEST(AmqpBroker, TlsConnectsWithTheRightCaAndAKnownCertificateAndAMissingExchangeIsRecovered)
{
    auto file = [](const char *name) { return broker->tls_file(name); };
    struct Case {
        const char *what;
        Tls tls;
        bool verify, connects;
        const char *exchange = "amq.topic";
    };
    const Case cases[] = {
        {"a CA alone", {file("ca.pem")}, false, true},
        {"a client certificate", {file("ca.pem"), file("client.key"), file("client.pem")}, false, true},
        // Refused: create returns once that first attempt has failed.
        {"a certificate of a CA the broker does not know", {file("ca.pem"), file("stranger.key"), file("stranger.pem")},
         false, false},
        {"a broker the CA did not sign, verified", {file("other_ca.pem")}, true, false},
        {"a broker the CA signed, verified", {file("ca.pem")}, true, true},
        {"a broker the CA did not sign, unverified", {file("other_ca.pem")}, false, true},
        {"an exchange that does not exist", {}, false, false, "no.such.exchange"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ScopedEnv verify("ZEL_TLS_VERIFY_PEER", c.verify ? "1" : "0");
        Client client(unique_name("tls"), 2, c.tls, c.tls.ca.empty() ? "127.0.0.1" : "localhost", c.exchange);
        if (c.connects) {
            EXPECT_TRUE(client.connect());
            EXPECT_TRUE(client.settle());
        } else {
            EXPECT_EQ(client.status(), ZEL_STATUS_RECOVERING);
        }
    }
}

TEST(AmqpBroker, ABrokerThatNeverAnswersEndsTheWorkerAfterTheAttemptBudget)
{
    ReconnectDelays quick("1", "1");
    // Port 1: nothing listens there, so every connect is refused at once.
    WorkerReports<CAmqpEngine> reports("amq.topic@budget@guest@127.0.0.1@1@/@guest");
    ASSERT_TRUE(pump_until([&] { return !reports.engine.worker_running(); }));
    std::lock_guard<std::mutex> guard(reports.lock);
    EXPECT_EQ(reports.texts.back(), "no of reconnection attempts limit breached. shutting down.");
    EXPECT_EQ(reports.retry_delays.size(), 121u);
}

// ---- Trace file -----------------------------------------------------------------------

TEST(AmqpBroker, TheTraceShowsBindsSendsAndDeliveriesInAdminText)
{
    std::string path = ::testing::TempDir() + "amqp.trace";
    Client client(unique_name("trace"));
    ASSERT_TRUE(client.connect());
    client.engine.enable_log(nullptr, path);
    Recorder r;
    client.watch({60002}, {"t"}, &r);
    client.send({{60002, "t"}});
    ASSERT_TRUE(pump_until([&] { return !r.messages.empty(); }));
    client.engine.disable_log(nullptr, path);
    const std::string text = file_text(path);
    const std::string stamp = R"([0-9]{1,2}-[0-9]{1,2}-[0-9]{4} [0-9]{1,2}:[0-9]{1,2}:[0-9]{1,2}:[0-9]{1,3})";
    for (const std::string &group : {"> " + stamp + R"( \| amq\.topic \| 1 \| #\.\^60002\.t\.# \n)" +
                                         R"(> #\.\^60002\.t\.#\n>\n)",
                                     "< " + stamp + R"( \| Amqp Send Message Failed \n \n< \n<\n)",
                                     "> " + stamp + R"( \| amq\.topic \| 13 \| \^60002\.t \n> 60002 1 t \n>\n)",
                                     "< " + stamp + R"( \| amq\.topic \| 13 \| \^60002\.t \n< 60002 1 t \n<\n)"})
        EXPECT_TRUE(std::regex_search(text, std::regex(group))) << group << "\n" << text;
}

// ---- Outages ----------------------------------------------------------------------

TEST(AmqpBroker, StoppedAndKilledBrokersAreLostThenRecoveringAndARestartBindsEveryWatchAgain)
{
    // Retries keep coming within the budget however long the restart takes.
    ReconnectDelays delays("50", "1000");
    Client client(unique_name("outage"));
    ASSERT_TRUE(client.connect());
    Recorder prices;
    client.watch({5}, {"up"}, &prices);
    ASSERT_TRUE(client.settle());
    for (int signal : {SIGTERM, SIGKILL}) {
        size_t heard = client.statuses.seen.size();
        broker->stop(signal);
        ASSERT_TRUE(pump_until([&] { return client.statuses.seen.size() == heard + 2; })) << signal;
        EXPECT_EQ(client.statuses.seen.back(), ZEL_STATUS_RECOVERING);
        EXPECT_EQ(client.status(), ZEL_STATUS_RECOVERING);
        broker->start();
        ASSERT_TRUE(client.connect());
        ASSERT_TRUE(client.settle()); // the watch went to the new queue before the status said connected
        size_t seen = prices.messages.size();
        client.send({{5, "up"}});
        ASSERT_TRUE(pump_until([&] { return prices.messages.size() == seen + 1; }));
    }
}

} // namespace

// ---- The command-line tool through the broker ----------------------------------

TEST(AmqpBroker, ToolPublishesSubscribesAsksAndServes)
{
    std::string plain = "127.0.0.1:" + std::to_string(broker->port());
    auto over_tls = [&](std::vector<std::string> args) {
        args.insert(args.end(), {"--amqp", "127.0.0.1:" + std::to_string(broker->tls_port()), "--tls-ca",
                                 broker->tls_file("ca.pem"), "--tls-key", broker->tls_file("client.key"), "--tls-cert",
                                 broker->tls_file("client.pem")});
        return args;
    };
    // The tool routes by fields of its own accord.
    ScopedEnv by_fields("ZEL_AMQP_ROUTE_BY_FIELDS", nullptr);

    ToolProcess sub({"sub", "--amqp", plain, "--compression", "1", "55=EURUSD", "--count", "2"});
    ASSERT_TRUE(sub.wait_for_error_text("zel sub: ready")) << sub.err;
    EXPECT_EQ(run_tool(over_tls({"pub", "--compression", "1", "55 1 EURUSD 44 1 1.0841"})).status, 0);
    EXPECT_EQ(run_tool({"pub", "--amqp", plain}, "55 1 USDJPY\n55 1 EURUSD 44 1 1.5\n").status, 0);
    EXPECT_EQ(sub.finish(), 0) << sub.err;
    EXPECT_EQ(sub.out, "55 1 EURUSD 44 1 1.0841\n55 1 EURUSD 44 1 1.5\n");

    // The reply finds its requester by the name the request carries.
    ToolProcess serve({"serve", "quote", "--amqp", plain, "--count", "1"});
    ASSERT_TRUE(serve.wait_for_error_text("zel serve: ready")) << serve.err;
    auto reply = run_tool(over_tls({"req", "quote", "55 1 EURUSD", "--name", "asker"}));
    EXPECT_EQ(reply.status, 0) << reply.err;
    EXPECT_NE(reply.out.find(" 55 1 EURUSD 32761 1 asker\n"), std::string::npos) << reply.out;
    EXPECT_EQ(serve.finish(), 0);

    auto refused = run_tool({"pub", "--amqp", plain, "--password", "wrong", "1 1 x"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "zel: cannot connect to the broker " + plain + "\n");
}
