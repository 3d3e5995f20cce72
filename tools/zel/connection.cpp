#include "connection.h"

#include <unistd.h>

#include <charconv>
#include <cstdlib>

namespace zelcli {

namespace {

// A field no application uses, for the tool's own round-trip markers.
constexpr int marker_tag = 65000;

struct MarkerWatch : CZelReceiver {
    bool seen = false;
    int processMsg(vartocb *, int, sWatchData *, void *, int *) override
    {
        seen = true;
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

} // namespace

Endpoint parse_endpoint(const std::string &text, const std::string &option)
{
    size_t colon = text.rfind(':');
    Endpoint out;
    if (colon != std::string::npos && colon > 0) {
        out.host = text.substr(0, colon);
        const char *first = text.data() + colon + 1, *last = text.data() + text.size();
        auto [end, ec] = std::from_chars(first, last, out.port);
        if (ec == std::errc() && end == last && out.port > 0 && out.port < 65536)
            return out;
    }
    throw UsageError(option + " wants HOST:PORT, not '" + text + "'");
}

Transport transport_of(const ConnectionOptions &o)
{
    int transports = !o.hub.empty() + !o.amqp.empty() + (!o.zmq_sub.empty() || !o.zmq_pub.empty());
    if (transports != 1)
        throw UsageError("give one of --hub, --amqp, or --zmq-sub/--zmq-pub");
    return !o.hub.empty() ? Transport::hub : !o.amqp.empty() ? Transport::amqp : Transport::zmq;
}

void refuse_zmq(const ConnectionOptions &o)
{
    if (!o.zmq_sub.empty() || !o.zmq_pub.empty())
        throw UsageError("requests and replies need --hub or --amqp: over ZeroMQ a reply has no way back");
}

void add_connection_options(CLI::App *command, ConnectionOptions &o)
{
    const char *group = "Connection";
    command->add_option("--hub", o.hub, "the hub (zelhub) at HOST:PORT")->envname("ZEL_HUB")->group(group);
    command->add_option("--amqp", o.amqp, "an AMQP broker at HOST:PORT")->group(group);
    command->add_option("--vhost", o.vhost, "AMQP virtual host")->capture_default_str()->group(group);
    command->add_option("--user", o.user, "AMQP user")->capture_default_str()->group(group);
    command->add_option("--password", o.password, "AMQP password (better: the environment variable)")
        ->capture_default_str()
        ->envname("ZEL_AMQP_PASSWORD")
        ->group(group);
    command->add_option("--exchange", o.exchange, "AMQP exchange (a topic exchange)")
        ->capture_default_str()
        ->group(group);
    command->add_option("--tls-ca", o.tls_ca, "CA certificate file: connect to the broker over TLS")
        ->check(CLI::ExistingFile)
        ->group(group);
    command->add_option("--tls-key", o.tls_key, "client key file (with --tls-cert)")
        ->check(CLI::ExistingFile)
        ->group(group);
    command->add_option("--tls-cert", o.tls_cert, "client certificate file (with --tls-key)")
        ->check(CLI::ExistingFile)
        ->group(group);
    command->add_option("--compression", o.compression, "AMQP bodies: 0 none, 1 LZMA, 2 block codec")
        ->check(CLI::Range(0, 2))
        ->capture_default_str()
        ->group(group);
    command->add_option("--zmq-sub", o.zmq_sub, "ZeroMQ forwarder's subscriber side at HOST:PORT")->group(group);
    command->add_option("--zmq-pub", o.zmq_pub, "ZeroMQ forwarder's publisher side at HOST:PORT")->group(group);
    command->add_option("--name", o.name, "client name (default zel-PID)")->group(group);
    command->add_option("--connect-timeout", o.connect_timeout_s, "seconds to wait for the connection")
        ->check(CLI::PositiveNumber)
        ->capture_default_str()
        ->group(group);
}

Connection::Connection(const ConnectionOptions &o, Use use, CZelListener *listener)
{
    kind_ = transport_of(o);
    name_ = o.name.empty() ? "zel-" + std::to_string(::getpid()) : o.name;
    if (name_.find('@') != std::string::npos)
        throw UsageError("--name may not hold '@'");

    std::string option, address, type;
    if (kind_ == Transport::hub) {
        option = "--hub", address = o.hub, type = "hub";
    } else if (kind_ == Transport::amqp) {
        option = "--amqp", address = o.amqp, type = o.vhost;
        if (o.tls_key.empty() != o.tls_cert.empty())
            throw UsageError("--tls-key and --tls-cert go together");
        // Data messages then reach watches by their own fields, and replies
        // their requester by its name in field 32761. An explicit setting in
        // the environment wins.
        ::setenv("ZEL_AMQP_ROUTE_BY_FIELDS", "1", 0);
    } else {
        bool sub = use == Use::receive || (use == Use::either && !o.zmq_sub.empty());
        option = sub ? "--zmq-sub" : "--zmq-pub";
        address = sub ? o.zmq_sub : o.zmq_pub;
        type = sub ? "ZMQ_SUB" : "ZMQ_PUB";
        if (address.empty())
            throw UsageError("this subcommand over ZeroMQ needs " + option);
    }
    Endpoint at = parse_endpoint(address, option);
    where_ = (kind_ == Transport::hub ? "hub " : kind_ == Transport::amqp ? "broker " : "ZeroMQ forwarder ") + address;

    int err = 0;
    engine_.create_connection(at.port, at.host, type, o.user, o.password, o.exchange, name_, o.compression, o.tls_ca,
                              o.tls_key, o.tls_cert, nullptr);
    if (listener)
        engine_.setConnectionListener(listener, &err);
    // The first attempt is over when create_connection returns: anything
    // but "connected" now means this one failed.
    if (!pump_until([&] { return status() != ZEL_STATUS_CREATED; }, o.connect_timeout_s) ||
        status() != ZEL_STATUS_CONNECTED)
        throw Failure("cannot connect to the " + where_);
}

int Connection::status()
{
    int status = 0, err = 0;
    engine_.getConnectionStatus(&status, &err);
    return status;
}

void Connection::send(scratchcb *message)
{
    for (;;) {
        int err = 0;
        if (engine_.sendMsg(message, &err))
            return;
        if (status() != ZEL_STATUS_CONNECTED)
            throw Failure("lost the connection to the " + where_);
        if (err != ZEL_DETAIL_SEND_QUEUE_FULL)
            throw Failure("the message was refused (detail " + std::to_string(err) + ")");
        if (interrupted())
            throw Failure("interrupted while the send queue was full");
        zel_pump_messages(1);
    }
}

void Connection::round_trip(double timeout_s)
{
    static int rounds = 0;
    std::string mark = name_ + "-" + std::to_string(++rounds);
    MarkerWatch marker;
    int tag = marker_tag, err = 0;
    sPChar value{mark.data(), int32_t(mark.size())};
    void *handle = nullptr;
    if (!engine_.addWatch(&handle, &tag, &value, 1, &marker, nullptr, false, 0, false, false, &err))
        throw Failure("lost the connection to the " + where_);
    send(text_.from_fields({{marker_tag, mark}}));
    bool back = pump_until([&] { return marker.seen; }, timeout_s);
    engine_.removeWatch(handle, &err);
    if (!back)
        throw Failure("the " + where_ + " did not pass a message back within " + seconds_text(timeout_s));
}

} // namespace zelcli
