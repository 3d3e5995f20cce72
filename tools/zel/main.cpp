// zel: publish, subscribe, ask, serve, convert and measure from the command
// line, over the hub, an AMQP broker or ZeroMQ. Written on the library's
// public API alone, as any application is.
#include <signal.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"

namespace zelcli {

namespace {

volatile sig_atomic_t stop_signal = 0;

void on_interrupt(int signal)
{
    stop_signal = signal;
}

} // namespace

bool interrupted()
{
    return stop_signal != 0;
}

// Without SA_RESTART, so that a wait in progress ends at once.
void catch_interrupts()
{
    struct sigaction action = {};
    action.sa_handler = on_interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

} // namespace zelcli

int main(int argc, char **argv)
{
    using namespace zelcli;
    CLI::App zel("Publish, subscribe, ask, serve, convert and measure over the hub, AMQP or ZeroMQ.", "zel");
    zel.require_subcommand(1);
    zel.set_version_flag("--version", "zel 0.1.0");
    std::vector<Command> commands = {add_sub(zel),    add_pub(zel),    add_req(zel),    add_serve(zel),
                                     add_conv(zel),   add_addrbk(zel), add_status(zel), add_bench(zel)};
    try {
        zel.parse(argc, argv);
    } catch (const CLI::Success &e) { // --help, --help-all, --version
        return zel.exit(e);
    } catch (const CLI::ParseError &e) {
        bool unknown_command = zel.get_subcommands().empty() && argc > 1 && argv[1][0] != '-';
        std::fprintf(stderr, "zel: %s\nRun with --help for more information.\n",
                     unknown_command ? ("unknown subcommand '" + std::string(argv[1]) + "'").c_str() : e.what());
        return 2;
    }
    catch_interrupts();
    try {
        for (const Command &command : commands)
            if (command.app->parsed())
                return command.run();
    } catch (const UsageError &e) {
        std::fprintf(stderr, "zel: %s\n", e.what());
        return 2;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zel: %s\n", e.what());
        return 1;
    }
    return 2;
}
