// zel pub: sends the message given as admin text, or one message per line
// of standard input.
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>

#include "connection.h"
#include "progress.h"

namespace zelcli {

namespace {

using Clock = std::chrono::steady_clock;

struct PubOptions {
    ConnectionOptions connection;
    std::vector<std::string> words;
    std::optional<uint64_t> count; // not given: once for a message argument, all of standard input
    double rate = 0;
    int settle_ms = 300;
};

// Paces sends to `rate` per second (0: no pacing), handling the
// connection's own traffic while it waits.
class Pacer {
public:
    explicit Pacer(double rate) : rate_(rate), start_(Clock::now()) {}
    void wait_turn(uint64_t sent)
    {
        if (rate_ <= 0)
            return;
        auto due = start_ + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(sent / rate_));
        for (auto now = Clock::now(); now < due && !interrupted(); now = Clock::now())
            zel_pump_messages(int(std::chrono::duration_cast<std::chrono::milliseconds>(due - now).count()) + 1);
    }

private:
    double rate_;
    Clock::time_point start_;
};

int run_pub(const PubOptions &o)
{
    MessageText text;
    std::string given = joined(o.words);
    scratchcb *message = o.words.empty() ? nullptr : text.from_admin(given);
    if (!o.words.empty() && !message)
        throw UsageError("not admin text ('tag count value ...'): " + given);

    // A new ZeroMQ publisher loses what it sends before its link to the
    // forwarder stands, and what is still queued when it closes: it has no
    // way to learn when either is done, so it gives each a moment.
    Connection connection(o.connection, Connection::Use::send);
    if (connection.is_zmq())
        pump_for(o.settle_ms / 1000.0);
    Progress progress("zel pub", "messages");
    Pacer pacer(o.rate);
    std::string failure;
    if (message) {
        uint64_t count = o.count.value_or(1);
        for (uint64_t i = 0; (count == 0 || i < count) && !interrupted(); ++i) {
            pacer.wait_turn(i);
            connection.send(message);
            progress.add();
        }
    } else {
        uint64_t limit = o.count.value_or(0);
        uint64_t bad_line = for_each_admin_line(
            std::cin, text, [&] { return (limit == 0 || progress.count() < limit) && !interrupted(); },
            [&](scratchcb *message) {
                pacer.wait_turn(progress.count());
                connection.send(message);
                progress.add();
            });
        if (bad_line)
            failure = "line " + std::to_string(bad_line) + " is not admin text; sent the lines before it";
    }
    if (connection.is_zmq())
        pump_for(o.settle_ms / 1000.0);
    else
        connection.round_trip(o.connection.connect_timeout_s);
    progress.finish();
    if (!failure.empty())
        throw Failure(failure);
    return 0;
}

} // namespace

Command add_pub(CLI::App &zel)
{
    auto o = std::make_shared<PubOptions>();
    CLI::App *app = zel.add_subcommand(
        "pub", "Send a message given as admin text ('tag count value ...'), or one per line of standard input.");
    app->add_option("message", o->words, "the message's admin text; without it, standard input");
    app->add_option(
        "--count", o->count, "send the message N times (0: until interrupted); with standard input, at most N lines");
    app->add_option("--rate", o->rate, "at most N messages per second")->check(CLI::PositiveNumber);
    app->add_option("--settle", o->settle_ms, "ZeroMQ: milliseconds for the link to form and to drain")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    add_connection_options(app, o->connection);
    return {app, [o] { return run_pub(*o); }};
}

} // namespace zelcli
