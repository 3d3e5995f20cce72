// zel bench: measures the transport that the connection options name and,
// in the same run, its raw reference, and prints both with their ratio:
//  - the hub: the same engines through a relay that forwards bytes without
//    reading them, so that the ratio is what the hub itself costs;
//  - an AMQP broker: the client library used raw for the same broker work
//    (keys, properties, mandatory flag, publisher confirms);
//  - ZeroMQ: a raw PUB and a raw SUB socket through the same forwarder.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "connection.h"
#include "progress.h"
#include "reference/percentiles.h"
#include "reference/raw_amqp.h"
#include "reference/raw_relay.h"
#include "reference/raw_zmq.h"

namespace zelcli {

namespace {

using Clock = std::chrono::steady_clock;
using zel::reference::Percentiles;

// Fields no application uses (the round-trip marker has 65000): the run's
// own watch and service name, and the bytes that make a message as large as
// asked.
constexpr int run_tag = 65001;
constexpr int filler_tag = 65002;
// Requests and replies are about this large, like a typical message.
constexpr int request_size = 100;

struct BenchOptions {
    ConnectionOptions connection;
    long count = 0;
    int size = 100;
};

// Who takes part in a run. Each engine has a client name of its own, so
// that the broker's binding of one name never brings it the other's
// traffic; `run` is the value the run's messages carry and the service's
// name, unlike any client name.
struct Roles {
    std::string run;
    ConnectionOptions receiver, sender;
};

Roles roles_of(const ConnectionOptions &o, const std::string &receiver, const std::string &sender)
{
    Roles roles;
    roles.run = o.name.empty() ? "zel-bench-" + std::to_string(::getpid()) : o.name;
    roles.receiver = roles.sender = o;
    roles.receiver.name = roles.run + "-" + receiver;
    roles.sender.name = roles.run + "-" + sender;
    return roles;
}

// The same roles with both engines connected to the relay at `port`.
Roles through_relay(Roles roles, int port)
{
    roles.receiver.hub = roles.sender.hub = "127.0.0.1:" + std::to_string(port);
    return roles;
}

// `fields` and a filler field that brings the message to `size` bytes, or
// as near as `fields` allow.
Fields sized(Fields fields, int size)
{
    MessageText text;
    fields.emplace_back(filler_tag, "");
    // Each filler byte adds one byte to the message: one correction after
    // the first build is exact.
    long missing = long(size) - text.from_fields(fields)->len;
    fields.back().second.resize(size_t(std::max(0L, missing)), 'p');
    return fields;
}

std::string wire(const Fields &fields)
{
    MessageText text;
    scratchcb *message = text.from_fields(fields);
    return std::string(message->data, size_t(message->len));
}

// An engine names a field "^tag.value" in routing keys, topics and filters.
std::string piece(int tag, const std::string &value)
{
    return "^" + std::to_string(tag) + "." + value;
}

std::vector<std::string> pieces_in_tag_order(Fields fields)
{
    std::stable_sort(fields.begin(), fields.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<std::string> pieces;
    for (const auto &[tag, value] : fields)
        pieces.push_back(piece(tag, value));
    return pieces;
}

// The routing key an AMQP engine publishes a message with when it routes by
// fields: the pieces joined by ".", as many whole ones as fit in 255
// characters.
std::string routing_key_of(const Fields &fields)
{
    std::string key;
    for (const std::string &next : pieces_in_tag_order(fields)) {
        if (key.size() + (key.empty() ? 0 : 1) + next.size() > 255)
            break;
        key += (key.empty() ? "" : ".") + next;
    }
    return key;
}

// The topic a ZeroMQ engine sends before a message: every piece, each
// followed by ".".
std::string topic_of(const Fields &fields)
{
    std::string topic;
    for (const std::string &next : pieces_in_tag_order(fields))
        topic += next + ".";
    return topic;
}

struct Counter : CZelReceiver {
    long messages = 0, replies = 0;
    int processMsg(vartocb *, int, sWatchData *, void *, int *) override { return ++messages, 1; }
    int processReply(vartocb *, int, void *, void *, int *) override { return ++replies, 1; }
};

// An engine on a thread of its own, as an engine belongs to the thread that
// connected it. The body connects and prepares, calls ready(), then works
// until stopping(); what it throws reaches the main thread through
// wait_ready() before it was ready and through check() after.
class EngineThread {
public:
    template <typename Body>
    explicit EngineThread(Body body) : thread_([this, body] { run(body); })
    {
    }
    ~EngineThread()
    {
        stop_ = true;
        go();
        thread_.join();
    }
    EngineThread(const EngineThread &) = delete;
    EngineThread &operator=(const EngineThread &) = delete;

    // @locality the engine's thread
    void ready()
    {
        ready_.set_value();
        told_ready_ = true;
    }
    // @locality the engine's thread
    void wait_for_go() { go_.wait(false); }
    bool stopping() const { return stop_; }

    // @locality the main thread
    void wait_ready() { ready_.get_future().get(); }
    // @locality the main thread
    void go()
    {
        go_ = true;
        go_.notify_all();
    }
    // @locality the main thread
    void check()
    {
        if (failed_)
            std::rethrow_exception(failure_);
    }

private:
    template <typename Body>
    void run(const Body &body)
    {
        try {
            body(*this);
        } catch (...) {
            if (!told_ready_)
                return ready_.set_exception(std::current_exception());
            failure_ = std::current_exception();
            failed_ = true;
        }
    }

    std::promise<void> ready_;
    bool told_ready_ = false; // the engine's thread alone reads and writes it
    std::atomic<bool> go_{false}, stop_{false}, failed_{false};
    std::exception_ptr failure_;
    std::thread thread_; // last: it starts once the rest is made
};

// Pumps until `counter` holds `total` messages. Failure when the
// connection drops, the publisher fails, the user interrupts, or nothing
// arrives for the connect time-out.
void await_messages(Connection &subscriber, const Counter &counter, long total, EngineThread &publisher,
                    double patience_s, Progress *progress)
{
    long seen = counter.messages;
    const long first = seen;
    auto last = Clock::now();
    while (counter.messages < total) {
        publisher.check();
        if (interrupted())
            throw Failure("interrupted before the measurement ended");
        if (subscriber.status() != ZEL_STATUS_CONNECTED)
            throw Failure("lost the connection to the " + subscriber.where());
        if (Clock::now() - last > std::chrono::duration<double>(patience_s))
            throw Failure(counter.messages == first
                              ? "no message came through the " + subscriber.where() + " within " +
                                    std::to_string(int(patience_s)) + " s"
                              : "the " + subscriber.where() + " passed on " + std::to_string(counter.messages - first) +
                                    " of " + std::to_string(total - first) + " messages, then nothing for " +
                                    std::to_string(int(patience_s)) + " s");
        zel_pump_messages(20);
        if (counter.messages != seen) {
            if (progress)
                progress->add(uint64_t(counter.messages - seen));
            seen = counter.messages;
            last = Clock::now();
        }
    }
}

// Messages per second from a publisher engine to a subscriber engine that
// watches the run's field. The subscriber holds its watch before anything is
// published: a marker back through the hub or broker proves it, and over the
// relay the watch is the subscriber's own. A ZeroMQ publisher cannot learn
// when a subscription has reached it: it publishes until `count` messages
// have arrived after the first, which starts the clock.
double engine_rate(const Roles &roles, const Fields &fields, long count, const std::string &label, bool through_relay)
{
    const double patience_s = roles.receiver.connect_timeout_s;
    Connection subscriber(roles.receiver, Connection::Use::receive);
    const bool flood = subscriber.is_zmq();
    Counter counter;
    int tag = run_tag, err = 0;
    sPChar value{const_cast<char *>(roles.run.data()), int32_t(roles.run.size())};
    void *watch = nullptr;
    if (!subscriber.engine().addWatch(&watch, &tag, &value, 1, &counter, nullptr, false, 0, false, false, &err))
        throw Failure("the watch was refused (detail " + std::to_string(err) + ")");
    if (!flood && !through_relay)
        subscriber.round_trip(patience_s);

    EngineThread publisher([&](EngineThread &self) {
        Connection connection(roles.sender, Connection::Use::send);
        MessageText text;
        scratchcb *message = text.from_fields(fields);
        self.ready();
        self.wait_for_go();
        for (long sent = 0; !self.stopping() && (flood || sent < count); ++sent)
            connection.send(message);
        // Connected until the count is in: what is still queued leaves.
        while (!self.stopping())
            zel_pump_messages(10);
    });
    publisher.wait_ready();
    if (flood) {
        publisher.go();
        await_messages(subscriber, counter, 1, publisher, patience_s, nullptr);
    }
    const long first = counter.messages;
    Progress progress(label, "messages");
    auto start = Clock::now();
    publisher.go();
    await_messages(subscriber, counter, first + count, publisher, patience_s, &progress);
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    progress.finish();
    return double(counter.messages - first) / seconds;
}

std::string text_of(vartocb *message, int tag)
{
    sPChar value{};
    int err = 0;
    if (!zel_get_data(message, tag, 0, &value, &err) || !value.data)
        return "";
    return std::string(value.data, size_t(value.len));
}

// Answers each request with its number, the requester's name when it has
// one (the broker routes the reply by it) and a filler.
struct Echo : CZelReceiver {
    explicit Echo(Connection &connection) : connection(connection) {}
    Connection &connection;
    MessageText text;
    const std::string filler = std::string(60, 'r');

    int processMsg(vartocb *request, int, sWatchData *, void *, int *) override
    {
        Fields reply = {{reply_mark_tag, "1"}, {request_number_tag, text_of(request, request_number_tag)}};
        if (std::string requester = text_of(request, requester_tag); !requester.empty())
            reply.emplace_back(requester_tag, requester);
        reply.emplace_back(filler_tag, filler);
        connection.send(text.from_fields(reply));
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

// Request/reply round trips from a requester engine to a service engine on
// a thread of its own. Over the hub or the broker the service proves its
// registration with a marker before the first request; over the relay the
// registration is the service's own.
Percentiles engine_round_trips(const Roles &roles, int trips, const std::string &label, bool through_relay)
{
    const double patience_s = roles.receiver.connect_timeout_s;
    EngineThread service([&](EngineThread &self) {
        Connection connection(roles.receiver, Connection::Use::either);
        Echo echo(connection);
        sPChar name{const_cast<char *>(roles.run.data()), int32_t(roles.run.size())};
        int err = 0;
        if (!connection.engine().registerSrvc(&name, &echo, 0, &err))
            throw Failure("the service was refused (detail " + std::to_string(err) + ")");
        if (!through_relay)
            connection.round_trip(patience_s);
        self.ready();
        while (!self.stopping())
            zel_pump_messages(10);
    });
    service.wait_ready();
    Connection requester(roles.sender, Connection::Use::either);
    Fields head = {{0, roles.run}};
    if (requester.is_amqp())
        head.emplace_back(requester_tag, requester.client_name());
    const Fields request = sized(head, request_size);
    MessageText text;
    Counter counter;
    Progress progress(label, "round trips");
    Percentiles result = zel::reference::time_round_trips(trips, [&] {
        long before = counter.replies;
        void *handle = nullptr;
        int err = 0;
        if (!requester.engine().addRqDontStore(&handle, text.from_fields(request), &counter, nullptr, &err))
            throw Failure("the request was refused (detail " + std::to_string(err) + ")");
        if (!pump_until([&] { return counter.replies != before; }, patience_s)) {
            service.check();
            throw Failure(interrupted() ? "interrupted before the measurement ended"
                                        : "no reply came through the " + requester.where() + " within " +
                                              std::to_string(int(patience_s)) + " s");
        }
        progress.add();
    });
    progress.finish();
    return result;
}

// ---- The raw references ---------------------------------------------------

zel::reference::AmqpBroker raw_broker(const ConnectionOptions &o)
{
    Endpoint at = parse_endpoint(o.amqp, "--amqp");
    const char *verify = std::getenv("ZEL_TLS_VERIFY_PEER");
    return {.host = at.host,
            .port = at.port,
            .vhost = o.vhost,
            .user = o.user,
            .password = o.password,
            .exchange = o.exchange,
            .ca = o.tls_ca,
            .key = o.tls_key,
            .certificate = o.tls_cert,
            .verify_peer = verify && std::strcmp(verify, "1") == 0};
}

std::string zmq_endpoint(const std::string &address, const std::string &option)
{
    Endpoint at = parse_endpoint(address, option);
    return "tcp://" + at.host + ":" + std::to_string(at.port);
}

// Tells `progress` the count a raw reference reports, and ends the raw run
// when the user interrupts.
zel::reference::Tick tick_of(Progress &progress)
{
    return [&progress](long done) {
        if (interrupted())
            throw Failure("interrupted before the measurement ended");
        progress.add(uint64_t(done) - progress.count());
    };
}

// What a run went through, its reference's column and what that reference
// is.
struct Reference {
    std::string route, column, note;
};

Reference reference_of(Transport transport, const ConnectionOptions &o)
{
    switch (transport) {
    case Transport::hub:
        return {"the hub " + o.hub, "raw relay",
                "raw relay: the same engines through a relay that forwards bytes without reading them"};
    case Transport::amqp:
        return {"the broker " + o.amqp + (o.tls_ca.empty() ? "" : " over TLS"), "raw client",
                std::string("raw client: rabbitmq-c used directly for the same broker work (keys, properties, "
                            "mandatory flag, publisher confirms)") +
                    (o.compression ? ", without compressing" : "")};
    case Transport::zmq:
        break;
    }
    return {"the ZeroMQ forwarder " + o.zmq_pub + " -> " + o.zmq_sub, "raw sockets",
            "raw sockets: a libzmq PUB and SUB socket through the same forwarder"};
}

struct Row {
    const char *what;
    double zel, raw;
    int decimals;
};

void print_table(const std::string &title, const Reference &reference, std::initializer_list<Row> rows)
{
    std::printf("%s\n", title.c_str());
    std::printf("%-32s %12s %12s %7s\n", "", "zel", reference.column.c_str(), "ratio");
    for (const Row &row : rows)
        std::printf("%-32s %12.*f %12.*f %7.2f\n", row.what, row.decimals, row.zel, row.decimals, row.raw,
                    row.zel / row.raw);
    std::printf("%s\n", reference.note.c_str());
}

// ---- The subcommands ----------------------------------------------------

int run_pubsub(const BenchOptions &o)
{
    const Transport transport = transport_of(o.connection);
    if (transport == Transport::zmq && (o.connection.zmq_sub.empty() || o.connection.zmq_pub.empty()))
        throw UsageError("zel bench over ZeroMQ needs both --zmq-sub and --zmq-pub");
    const Roles roles = roles_of(o.connection, "sub", "pub");
    const Fields fields = sized({{run_tag, roles.run}}, o.size);
    const std::string body = wire(fields);
    const Reference reference = reference_of(transport, o.connection);
    const std::string raw_label = "zel bench pubsub, " + reference.column;

    double zel = engine_rate(roles, fields, o.count, "zel bench pubsub, zel", false);
    double raw = 0;
    if (transport == Transport::hub) {
        zel::reference::RawRelay relay;
        raw = engine_rate(through_relay(roles, relay.port()), fields, o.count, raw_label, true);
    } else {
        Progress progress(raw_label, "messages");
        const std::string watched = piece(run_tag, roles.run);
        if (transport == Transport::amqp)
            raw = zel::reference::raw_amqp_throughput(raw_broker(o.connection), zel::reference::BrokerWork::engine,
                                                      watched, routing_key_of(fields), body, o.count,
                                                      tick_of(progress));
        else
            raw = zel::reference::raw_zmq_throughput(
                zmq_endpoint(o.connection.zmq_pub, "--zmq-pub"), zmq_endpoint(o.connection.zmq_sub, "--zmq-sub"),
                watched + ".", topic_of(fields), body, o.count,
                int(o.connection.connect_timeout_s * 1000), tick_of(progress));
        progress.finish();
    }
    print_table("zel bench pubsub: " + std::to_string(o.count) + " messages of " + std::to_string(body.size()) +
                    " bytes through " + reference.route,
                reference, {{"messages/s", zel, raw, 0}});
    return 0;
}

int run_reqrep(const BenchOptions &o)
{
    refuse_zmq(o.connection);
    const Transport transport = transport_of(o.connection);
    const Roles roles = roles_of(o.connection, "service", "requester");
    const Reference reference = reference_of(transport, o.connection);
    const std::string raw_label = "zel bench reqrep, " + reference.column;
    const int trips = int(o.count);

    Percentiles zel = engine_round_trips(roles, trips, "zel bench reqrep, zel", false);
    Percentiles raw;
    if (transport == Transport::hub) {
        zel::reference::RawRelay relay;
        raw = engine_round_trips(through_relay(roles, relay.port()), trips, raw_label, true);
    } else {
        Progress progress(raw_label, "round trips");
        const std::string body = wire(sized({{0, roles.run + "-raw"}}, request_size));
        raw = zel::reference::raw_amqp_round_trips(raw_broker(o.connection), zel::reference::BrokerWork::engine,
                                                   roles.run + "-raw", roles.run + "-raw-requester", body, trips,
                                                   tick_of(progress));
        progress.finish();
    }
    print_table("zel bench reqrep: " + std::to_string(trips) + " round trips of " + std::to_string(request_size) +
                    "-byte requests through " + reference.route,
                reference,
                {{"round trip median, us", zel.median_us, raw.median_us, 1},
                 {"round trip 99th percentile, us", zel.p99_us, raw.p99_us, 1}});
    return 0;
}

} // namespace

Command add_bench(CLI::App &zel)
{
    CLI::App *bench = zel.add_subcommand(
        "bench", "Measure the transport beside its raw reference in the same run, and print the ratio.");
    bench->require_subcommand(1);

    auto pubsub_options = std::make_shared<BenchOptions>();
    pubsub_options->count = 100000;
    CLI::App *pubsub =
        bench->add_subcommand("pubsub", "Messages per second from a publisher engine to a subscriber engine.");
    pubsub->add_option("--count", pubsub_options->count, "messages to measure")
        ->check(CLI::Range(1L, 1000000000L))
        ->capture_default_str();
    pubsub->add_option("--size", pubsub_options->size, "bytes per message (at least what its fields need)")
        ->check(CLI::Range(1, 16000000))
        ->capture_default_str();
    add_connection_options(pubsub, pubsub_options->connection);

    auto reqrep_options = std::make_shared<BenchOptions>();
    reqrep_options->count = 2000;
    CLI::App *reqrep = bench->add_subcommand("reqrep", "Request/reply round trips between two engines.");
    reqrep->add_option("--count", reqrep_options->count, "round trips to measure (after a tenth as many to warm up)")
        ->check(CLI::Range(1L, 100000000L))
        ->capture_default_str();
    add_connection_options(reqrep, reqrep_options->connection);

    return {bench, [=] { return pubsub->parsed() ? run_pubsub(*pubsub_options) : run_reqrep(*reqrep_options); }};
}

} // namespace zelcli
