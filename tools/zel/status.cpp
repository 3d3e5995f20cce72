// zel status: connects, then prints each status change and, every few
// seconds, the connection's meters.
#include <cstdio>
#include <ctime>
#include <memory>

#include "connection.h"

namespace zelcli {

namespace {

struct StatusOptions {
    ConnectionOptions connection;
    double interval_s = 5;
    double timeout_s = 0;
};

std::string local_time()
{
    std::time_t now = std::time(nullptr);
    char text[32];
    std::strftime(text, sizeof text, "%H:%M:%S", std::localtime(&now));
    return text;
}

struct StatusPrinter : CZelListener {
    int statusChange(int status, int *) override
    {
        static const char *const names[] = {"?", "created", "connected", "recovering", "lost"};
        std::printf("%s status %d %s\n", local_time().c_str(), status, names[status >= 1 && status <= 4 ? status : 0]);
        std::fflush(stdout);
        return 1;
    }
};

void print_meters(CZelEngine &engine)
{
    sZelMeters m{};
    int err = 0;
    engine.getMeters(&m, &err);
    auto at = [&](int i) { return (unsigned long long)m.counters[i]; };
    std::printf("%s meters: watches %llu, handled %llu, service requests %llu, replies %llu, requests sent %llu, "
                "bytes received %llu, largest batch %llu, discarded frames %llu\n",
                local_time().c_str(), at(0), at(1), at(2), at(4), at(7), at(13), at(17), at(18));
    std::fflush(stdout);
}

int run_status(const StatusOptions &o)
{
    StatusPrinter printer;
    Connection connection(o.connection, Connection::Use::either, &printer);
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(o.timeout_s > 0 ? o.timeout_s : 1e9);
    while (!interrupted() && std::chrono::steady_clock::now() < end) {
        double left = std::chrono::duration<double>(end - std::chrono::steady_clock::now()).count();
        pump_for(std::min(o.interval_s, left));
        print_meters(connection.engine());
    }
    return 0;
}

} // namespace

Command add_status(CLI::App &zel)
{
    auto o = std::make_shared<StatusOptions>();
    CLI::App *app = zel.add_subcommand("status", "Connect, then print status changes and the meters.");
    app->add_option("--interval", o->interval_s, "seconds between meter lines")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app->add_option("--timeout", o->timeout_s, "stop after S seconds")->check(CLI::PositiveNumber);
    add_connection_options(app, o->connection);
    return {app, [o] { return run_status(*o); }};
}

} // namespace zelcli
