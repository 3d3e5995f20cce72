// What every subcommand of the command-line tool shares: its two kinds of
// error, its connection options, and how a subcommand is registered.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

namespace zelcli {

// Something the user asked for cannot work as asked: exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The work could not be done (no connection, no reply, bad input): exit
// status 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// How to reach the hub, the broker or the ZeroMQ forwarder. Exactly one
// transport is chosen per run; ZeroMQ may give both of its sockets.
struct ConnectionOptions {
    std::string hub;
    std::string amqp;
    std::string vhost = "/";
    std::string user = "guest";
    std::string password = "guest";
    std::string exchange = "amq.topic";
    std::string tls_ca, tls_key, tls_cert;
    int compression = 0;
    std::string zmq_sub, zmq_pub;
    std::string name; // the client name; "zel-<pid>" when not given
    double connect_timeout_s = 10;
};

void add_connection_options(CLI::App *command, ConnectionOptions &options);

// "0.5 s", for messages to the user.
inline std::string seconds_text(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g s", seconds);
    return text;
}

// A subcommand: parsed by CLI11, then run by main for its exit status.
struct Command {
    CLI::App *app;
    std::function<int()> run;
};

// Set once SIGINT or SIGTERM arrived: long-running subcommands end their
// loop, print their summary and exit normally.
bool interrupted();
void catch_interrupts();

Command add_sub(CLI::App &zel);
Command add_pub(CLI::App &zel);
Command add_req(CLI::App &zel);
Command add_serve(CLI::App &zel);
Command add_conv(CLI::App &zel);
Command add_addrbk(CLI::App &zel);
Command add_status(CLI::App &zel);
Command add_bench(CLI::App &zel);

} // namespace zelcli
