// zelhub: the hub that the library's clients connect to. It relays data
// messages to their subscribers, requests to every other client and replies
// back to the requester, and keeps the address book that clients look
// addresses up in.
//
// One process, one thread, one epoll loop: nothing in the program locks, and
// nothing needs to say which thread it runs on.
//
// This file: the command line and the signals that stop the hub.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>

#include "address_book.h"
#include "server.h"
#include "socket_address.h"
#include "transport/hub/framing.h"

namespace {

void print_usage(FILE *to)
{
    std::fprintf(to,
                 "usage: zelhub [--port N] [--bind ADDR] [--max-backlog BYTES] [--max-total-backlog BYTES]\n"
                 "              [--max-frame BYTES] [--max-pending N] [--stats SECONDS] [--addrbook FILE]\n"
                 "  --max-backlog BYTES        a client owed more unsent bytes is dropped (default 64 MiB)\n"
                 "  --max-total-backlog BYTES  when all clients together are owed more, the one owed the most\n"
                 "                             is dropped (default 256 MiB)\n"
                 "  --max-frame BYTES          a client sending a larger frame, its 4-byte length included, is\n"
                 "                             dropped (default 16 MiB)\n"
                 "  --max-pending N            a client's unanswered requests kept for routing replies; past\n"
                 "                             that its oldest is forgotten (default 65536)\n"
                 "  --addrbook FILE            keep the address book in FILE, read at start and written at\n"
                 "                             every change (default: in memory only)\n");
}

template <typename Number>
bool parse_number(std::string_view text, Number lowest, Number highest, Number &out)
{
    Number value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < lowest || value > highest)
        return false;
    out = value;
    return true;
}

bool is_address(const std::string &host)
{
    sockaddr_storage address;
    socklen_t length;
    return zelhub::parse_address(host, 0, address, length);
}

// Reads `--name value` or `--name=value` pairs into `options`; false for
// anything it does not understand.
bool parse_options(int argc, char **argv, zelhub::Options &options)
{
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        std::string_view name = arg, value;
        if (auto equals = arg.find('='); equals != std::string_view::npos) {
            name = arg.substr(0, equals);
            value = arg.substr(equals + 1);
        } else if (i + 1 < argc) {
            value = argv[++i];
        } else {
            return false;
        }
        bool understood = false;
        if (name == "--port")
            understood = parse_number(value, 0, 65535, options.port);
        else if (name == "--bind")
            understood = is_address(options.bind = std::string(value));
        else if (name == "--max-backlog")
            understood = parse_number<int64_t>(value, 1, int64_t(1) << 50, options.max_backlog);
        else if (name == "--max-total-backlog")
            understood = parse_number<int64_t>(value, 1, int64_t(1) << 50, options.max_total_backlog);
        else if (name == "--max-frame")
            understood = parse_number<int64_t>(value, 1, zel::hub::broken_frame_length - 1, options.max_frame);
        else if (name == "--max-pending")
            understood = parse_number(value, 1, 1 << 30, options.max_pending);
        else if (name == "--stats")
            understood = parse_number(value, 1, 1000000, options.stats_seconds);
        else if (name == "--addrbook")
            understood = !(options.address_book = std::string(value)).empty();
        if (!understood)
            return false;
    }
    return true;
}

// SIGINT and SIGTERM arrive as events on the returned descriptor, so the loop
// stops between two rounds and cleans up normally.
int open_stop_signals()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &stop, nullptr) != 0)
        return -1;
    return signalfd(-1, &stop, SFD_NONBLOCK | SFD_CLOEXEC);
}

} // namespace

int main(int argc, char **argv)
{
    zelhub::Options options;
    if (argc == 2 && (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h")) {
        print_usage(stdout);
        return 0;
    }
    if (!parse_options(argc, argv, options)) {
        print_usage(stderr);
        return 2;
    }
    // A table that is there but unreadable must not be served as an empty one.
    zelhub::AddressBook address_book(options.address_book);
    if (std::string error; !address_book.load(error)) {
        std::fprintf(stderr, "zelhub: %s\n", error.c_str());
        return 2;
    }
    // A client that vanishes mid-write must not end the hub (sends also pass
    // MSG_NOSIGNAL), nor must a closed standard output.
    signal(SIGPIPE, SIG_IGN);
    int stop_fd = open_stop_signals();
    if (stop_fd < 0) {
        std::perror("zelhub: signals");
        return 1;
    }
    int status = 0;
    {
        zelhub::Server server(options, stop_fd, address_book);
        std::string error;
        if (server.open(error))
            server.run();
        else {
            std::fprintf(stderr, "zelhub: %s\n", error.c_str());
            status = 1;
        }
    }
    close(stop_fd);
    return status;
}
