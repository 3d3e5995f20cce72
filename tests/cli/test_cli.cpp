// The command-line tool as a user drives it: spawned, fed, read and judged
// by its outputs and exit status, against the real hub and forwarder.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include "support/ports.h"
#include "support/tool_process.h"
#include "support/zelhub_process.h"
#include "support/zelproxy_process.h"

namespace {

using namespace zel::test;

// A run's exit status and both its outputs, to be compared at once.
std::tuple<int, std::string, std::string> outcome(const ToolRun &run) { return {run.status, run.out, run.err}; }

// Runs the tool and checks its exit status and that its standard output
// holds `part`.
ToolRun expect_tool(const std::vector<std::string> &args, int status, const std::string &part)
{
    ToolRun run = run_tool(args);
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_NE(run.out.find(part), std::string::npos) << run.out;
    return run;
}

struct AtHub : ::testing::Test {
    ZelhubProcess hub;
    std::string at = "127.0.0.1:" + std::to_string(hub.port());
};

TEST_F(AtHub, ToolSubscribesPublishesAsksAndServes)
{
    ToolProcess sub({"sub", "--hub", at, "55=EURUSD", "--watch", "30=", "--count", "3", "--json"});
    ASSERT_TRUE(sub.wait_for_error_text("zel sub: ready")) << sub.err;

    EXPECT_EQ(run_tool({"pub", "--hub", at, "55 1 EURUSD 44 1 1.0841"}).status, 0);
    // One message per line of standard input; comments and blank lines are
    // not messages, and a field without value or with a blank survives.
    std::string lines = "55 1 USDJPY 44 1 151\n# a comment\n\n55 1 EURUSD 44 1 'a b'\n30 1 LDN 7 0\n";
    EXPECT_EQ(run_tool({"pub", "--hub", at}, lines).status, 0);
    EXPECT_EQ(sub.finish(), 0) << sub.err;
    EXPECT_EQ(sub.out, "{\"55\":\"EURUSD\",\"44\":\"1.0841\"}\n"
                       "{\"55\":\"EURUSD\",\"44\":\"a b\"}\n"
                       "{\"30\":\"LDN\",\"7\":\"\"}\n");
    EXPECT_NE(sub.err.find("zel sub: 3 messages"), std::string::npos) << sub.err;

    ToolProcess serve({"serve", "quote", "--hub", at, "--count", "2"});
    ASSERT_TRUE(serve.wait_for_error_text("zel serve: ready")) << serve.err;
    auto echoed = expect_tool({"req", "quote", "55 1 EURUSD 7 2 x y", "--hub", at}, 0, " 55 1 EURUSD 7 1 x 7 1 y\n");
    EXPECT_EQ(echoed.out.rfind("32767 1 1 32760 1 ", 0), 0u) << echoed.out;
    // A reply script answers with the fields it writes.
    ToolProcess scripted({"serve", "calc", "--hub", at, "--count", "1", "--reply", "read r; echo \"9 1 seen\""});
    ASSERT_TRUE(scripted.wait_for_error_text("zel serve: ready")) << scripted.err;
    expect_tool({"req", "calc", "--hub", at, "--json"}, 0, "\"9\":\"seen\"}");
    EXPECT_EQ(scripted.finish(), 0);
    expect_tool({"req", "quote", "--hub", at}, 0, "32767 1 1 32760 1 ");
    EXPECT_EQ(serve.finish(), 0);
    EXPECT_NE(serve.out.find("0 1 quote 55 1 EURUSD 7 1 x 7 1 y 32760 1 "), std::string::npos) << serve.out;
}

TEST(Tool, PublishesAndSubscribesThroughTheForwarder)
{
    ZelproxyProcess proxy;
    std::string subscribers = "127.0.0.1:" + std::to_string(proxy.subscribers()),
                publishers = "127.0.0.1:" + std::to_string(proxy.publishers());
    // Given out of order, the pairs still form a filter that starts the
    // message's topic.
    ToolProcess sub({"sub", "--zmq-sub", subscribers, "60=", "55=EURUSD", "--count", "1"});
    ASSERT_TRUE(sub.wait_for_error_text("zel sub: ready")) << sub.err;
    // A subscription reaches the forwarder in its own time: publish until
    // the subscriber has one.
    ToolProcess pub({"pub", "--zmq-pub", publishers, "--count", "0", "--rate", "50", "55 1 EURUSD 60 1 1.5"});
    EXPECT_EQ(sub.finish(), 0) << sub.err;
    EXPECT_EQ(sub.out, "55 1 EURUSD 60 1 1.5\n");
    pub.signal(SIGINT);
    EXPECT_EQ(pub.finish(), 0) << pub.err;
    EXPECT_EQ(run_tool({"req", "quote", "--zmq-pub", publishers}).status, 2);
}

TEST(Tool, ConvertsTextToRecordsAndBack)
{
    std::string text = "55 1 EURUSD 44 1 1.0841\n7 1 a 7 1 b 1 1 'it''s' 9 0\n";
    auto binary = run_tool({"conv", "--to", "binary"}, text);
    ASSERT_EQ(binary.status, 0) << binary.err;
    EXPECT_EQ(binary.out.compare(0, 2, "BB"), 0);
    // The direction follows from the input.
    EXPECT_EQ(outcome(run_tool({"conv"}, binary.out)), std::make_tuple(0, text, ""));

    // Bad input: what came before it is converted, the rest refused.
    EXPECT_EQ(outcome(run_tool({"conv"}, binary.out.substr(0, binary.out.size() - 3))),
              std::make_tuple(1, "55 1 EURUSD 44 1 1.0841\n",
                              "zel: the input is not well formed from byte 30, after 1 messages\n"));
    auto bad_line = run_tool({"conv", "--to", "binary"}, "1 1 a\n1 2 b\n");
    EXPECT_EQ(bad_line.status, 1);
    EXPECT_EQ(run_tool({"conv"}, bad_line.out).out, "1 1 a\n");
    EXPECT_NE(bad_line.err.find("line 2 "), std::string::npos) << bad_line.err;
}

TEST(Tool, ExplainsUsageErrorsAndFailuresInOneLine)
{
    std::string hub = "127.0.0.1:" + std::to_string(free_loopback_port());
    // The arguments, the exit status and the first line the tool says.
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{}, 2, "zel: A subcommand is required\n"},
        {{"publish"}, 2, "zel: unknown subcommand 'publish'\n"},
        {{"sub", "--hub", hub, "--amqp", hub, "5=x"}, 2, "zel: give one of --hub, --amqp, or --zmq-sub/--zmq-pub\n"},
        {{"sub", "--hub", hub, "5"}, 2, "zel: '5' is not TAG=VALUE\n"},
        {{"sub", "--hub", hub, "0=quote"}, 2, "zel: field 0 names a service: answer its requests with zel serve\n"},
        {{"pub", "--hub", "localhost", "1 1 x"}, 2, "zel: --hub wants HOST:PORT, not 'localhost'\n"},
        {{"pub", "--hub", hub, "1 2 x"}, 2, "zel: not admin text ('tag count value ...'): 1 2 x\n"},
        {{"pub", "--hub", hub, "1 1 x"}, 1, "zel: cannot connect to the hub " + hub + "\n"},
        {{"addrbk", "set", "key"}, 2, "zel: give the address book with --addrbk HOST:PORT (or PL_LOC_BROK_ADDR)\n"},
        {{"addrbk", "get", "key", "--addrbk", hub}, 1, "zel: cannot reach the address book at " + hub + "\n"},
    };
    for (const auto &[args, status, says] : cases) {
        auto started = std::chrono::steady_clock::now();
        auto run = run_tool(args);
        EXPECT_EQ(run.status, status) << says;
        EXPECT_EQ(run.err.substr(0, run.err.find('\n') + 1), says);
        EXPECT_LT(std::chrono::steady_clock::now() - started, patience(5000));
    }
    for (const std::string command : {"sub", "pub", "req", "serve", "conv", "addrbk", "status"})
        expect_tool({command, "--help"}, 0, "Usage: zel " + command);
}

TEST_F(AtHub, ToolKeepsAddressesShowsTheConnectionAndMeasuresTheHubBesideARawRelay)
{
    EXPECT_EQ(run_tool({"addrbk", "set", "quotes", "10.1.2.3:7000", "--addrbk", at}).status, 0);
    EXPECT_EQ(outcome(run_tool({"addrbk", "get", "quotes", "--addrbk", at})),
              std::make_tuple(0, "10.1.2.3:7000\n", ""));
    EXPECT_EQ(run_tool({"addrbk", "rm", "quotes", "--addrbk", at}).status, 0);
    EXPECT_EQ(outcome(run_tool({"addrbk", "get", "quotes", "--addrbk", at})),
              std::make_tuple(1, "", "zel: no entry for 'quotes'\n"));

    auto status = expect_tool({"status", "--hub", at, "--interval", "0.05", "--timeout", "0.12"}, 0,
                              " status 2 connected\n");
    EXPECT_NE(status.out.find(" meters: watches 0, "), std::string::npos) << status.out;
    EXPECT_EQ(outcome(run_tool({"req", "nobody", "--hub", at, "--timeout", "0.2"})),
              std::make_tuple(1, "", "zel: no reply from 'nobody' within 0.2 s\n"));
    for (const char *kind : {"pubsub", "reqrep"})
        expect_tool({"bench", kind, "--count", "200", "--hub", at}, 0, "ratio");
}

} // namespace
