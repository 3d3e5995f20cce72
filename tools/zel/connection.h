// One connection of the tool to the hub, the broker or the ZeroMQ
// forwarder, made from the command line's connection options.
#pragma once

#include <zel/zel.h>

#include <chrono>
#include <string>

#include "cli.h"
#include "message_text.h"

namespace zelcli {

// The fields by which a reply finds its request: the reply's mark, the
// request's number (set by the engine), and over AMQP the requester's client
// name, which the reply hands back so that the broker routes it by that
// name.
constexpr int reply_mark_tag = 32767;
constexpr int request_number_tag = 32760;
constexpr int requester_tag = 32761;

enum class Transport { hub, amqp, zmq };

// The one transport the options name; UsageError when they name none or
// several.
Transport transport_of(const ConnectionOptions &options);

// UsageError when ZeroMQ is named: a reply has no way back to its requester.
void refuse_zmq(const ConnectionOptions &options);

class Connection {
public:
    // What a ZeroMQ run needs: its SUB socket, its PUB socket, or whichever
    // was given. The hub and the broker do both on one connection.
    enum class Use { receive, send, either };

    // Connects and waits until the transport is up; Failure when it is not
    // within the connect time-out, UsageError when the options do not name
    // exactly one transport or not the socket `use` needs.
    Connection(const ConnectionOptions &options, Use use, CZelListener *listener = nullptr);

    CZelEngine &engine() { return engine_; }
    const std::string &client_name() const { return name_; }
    // "hub 127.0.0.1:5000", for messages to the user.
    const std::string &where() const { return where_; }
    bool is_amqp() const { return kind_ == Transport::amqp; }
    // ZeroMQ has no way back to the sender: no round trips, no replies.
    bool is_zmq() const { return kind_ == Transport::zmq; }

    int status();
    // Sends one message, waiting while the send queue is full; Failure when
    // the connection is down.
    void send(scratchcb *message);
    // Proves that everything this connection sent or subscribed before has
    // passed the hub or broker: a marker sent to a watch of its own comes
    // back. Failure when it does not within `timeout_s`.
    void round_trip(double timeout_s);

private:
    CZelEngine engine_;
    Transport kind_ = Transport::hub;
    std::string name_, where_;
    MessageText text_;
};

struct Endpoint {
    std::string host;
    int port = 0;
};

// "HOST:PORT"; UsageError naming `option` otherwise.
Endpoint parse_endpoint(const std::string &text, const std::string &option);

// Pumps this thread's messages until `done` answers true (true), the time
// runs out or the user interrupts (false).
template <typename Done>
bool pump_until(Done done, double timeout_s)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    zel_pump_messages(0);
    while (!done()) {
        if (interrupted() || std::chrono::steady_clock::now() >= deadline)
            return false;
        zel_pump_messages(20);
    }
    return true;
}

// Pumps this thread's messages for `seconds`, or until the user interrupts.
inline void pump_for(double seconds)
{
    pump_until([] { return false; }, seconds);
}

} // namespace zelcli
