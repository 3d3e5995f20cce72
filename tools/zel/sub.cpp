// zel sub: places watches and prints each message that matches one.
#include <charconv>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>

#include "connection.h"
#include "progress.h"

namespace zelcli {

namespace {

struct SubOptions {
    ConnectionOptions connection;
    std::vector<std::string> pairs;
    std::vector<std::string> more_watches;
    bool json = false;
    uint64_t count = 0;
    double timeout_s = 0;
};

struct Watch {
    std::vector<int> tags;
    std::vector<std::string> values;
};

int parse_tag(std::string_view text, std::string_view pair)
{
    int tag = -1;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), tag);
    if (ec != std::errc() || end != text.data() + text.size() || tag < 0 || tag >= ZEL_DELETED_TAG)
        throw UsageError("'" + std::string(pair) + "' is not TAG=VALUE with a tag from 1 to 65534");
    if (tag == 0)
        throw UsageError("field 0 names a service: answer its requests with zel serve");
    return tag;
}

// In ascending tag order: a ZeroMQ filter is the pairs in the order given,
// and topics list fields in ascending order.
Watch parse_watch(const std::vector<std::string> &pairs)
{
    std::map<int, std::string> sorted;
    for (const std::string &pair : pairs) {
        size_t equals = pair.find('=');
        if (equals == std::string::npos)
            throw UsageError("'" + pair + "' is not TAG=VALUE");
        int tag = parse_tag(std::string_view(pair).substr(0, equals), pair);
        if (!sorted.emplace(tag, pair.substr(equals + 1)).second)
            throw UsageError("a watch names field " + std::to_string(tag) + " twice");
    }
    Watch watch;
    for (auto &[tag, value] : sorted) {
        watch.tags.push_back(tag);
        watch.values.push_back(std::move(value));
    }
    return watch;
}

std::vector<std::string> split_blanks(const std::string &text)
{
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string word; in >> word;)
        out.push_back(word);
    return out;
}

struct Printer : CZelReceiver {
    MessageText text;
    bool json = false;
    uint64_t limit = 0;
    Progress progress{"zel sub", "messages"};

    bool done() const { return limit && progress.count() >= limit; }
    int processMsg(vartocb *message, int, sWatchData *, void *, int *) override
    {
        if (done())
            return 1;
        std::string line = json ? zelcli::json(message) : text.admin(message);
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
        progress.add();
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

int run_sub(const SubOptions &o)
{
    std::vector<Watch> watches;
    if (!o.pairs.empty())
        watches.push_back(parse_watch(o.pairs));
    for (const std::string &more : o.more_watches)
        watches.push_back(parse_watch(split_blanks(more)));
    if (watches.empty())
        throw UsageError("give a watch: zel sub TAG=VALUE ...");

    Connection connection(o.connection, Connection::Use::receive);
    Printer printer;
    printer.json = o.json;
    printer.limit = o.count;
    for (Watch &watch : watches) {
        std::vector<sPChar> values;
        for (std::string &value : watch.values)
            values.push_back({value.empty() ? nullptr : value.data(), int32_t(value.size())});
        void *handle = nullptr;
        int err = 0;
        if (!connection.engine().addWatch(&handle, watch.tags.data(), values.data(), int(watch.tags.size()),
                                          &printer, nullptr, false, 0, false, false, &err))
            throw Failure("the watch was refused (detail " + std::to_string(err) + ")");
    }
    // Once a marker has come back, the hub or broker holds every watch.
    // ZeroMQ subscriptions reach the forwarder on their own time.
    if (!connection.is_zmq())
        connection.round_trip(o.connection.connect_timeout_s);
    std::fprintf(stderr, "zel sub: ready, %zu watch%s on the %s\n", watches.size(), watches.size() == 1 ? "" : "es",
                 connection.where().c_str());

    bool finished = pump_until(
        [&] {
            std::fflush(stdout);
            printer.progress.show();
            return printer.done();
        },
        o.timeout_s > 0 ? o.timeout_s : 1e9);
    std::fflush(stdout);
    printer.progress.finish();
    if (!finished && o.count && !interrupted())
        throw Failure("timed out with " + std::to_string(printer.progress.count()) + " of " + std::to_string(o.count) +
                      " messages");
    return 0;
}

} // namespace

Command add_sub(CLI::App &zel)
{
    auto o = std::make_shared<SubOptions>();
    CLI::App *app = zel.add_subcommand("sub", "Print the messages that match watches, one per line.");
    app->add_option("pairs", o->pairs, "TAG=VALUE ...: one watch; an empty VALUE matches any value");
    app->add_option("--watch", o->more_watches, "one more watch, 'TAG=VALUE TAG=VALUE ...'")
        ->allow_extra_args(false);
    app->add_flag("--json", o->json, "print each message as one JSON object");
    app->add_option("--count", o->count, "stop after N messages");
    app->add_option("--timeout", o->timeout_s, "stop after S seconds")->check(CLI::PositiveNumber);
    add_connection_options(app, o->connection);
    return {app, [o] { return run_sub(*o); }};
}

} // namespace zelcli
