// The hub server, tested from the outside: raw clients on loopback sockets
// exchange frames through a real zelhub. Routing (subscriptions, requests,
// replies), clients dropped alone for garbage, oversized frames or for falling
// behind, the bound on unanswered requests, no leak over many connections,
// the process's exit statuses, and the address book that the hub keeps.
//
// A client never waits for something to NOT arrive: each one subscribes to its
// own fence message, and a fence sent after the message under test must be the
// next thing it receives.
#include <gtest/gtest.h>

#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/frame_socket.h"
#include "support/messages.h"
#include "support/zelhub_process.h"

namespace {

using namespace zel::test;
constexpr auto message = build_message;

constexpr int fence_tag = 99;

std::string named(const std::string &name, Fields fields)
{
    fields.insert(fields.begin(), {0, name});
    return message(fields);
}

// A client speaking raw frames to the hub, subscribed to its own fence and,
// once the constructor returns, to `keys` when there are any.
class HubClient {
public:
    explicit HubClient(int port, const Fields &keys = {}, int receive_buffer = 0)
        : socket_(FrameSocket::connect_to(port, receive_buffer)), token_("fence-" + std::to_string(++count_))
    {
        int on = 1; // small frames in a row must not wait for acknowledgements
        setsockopt(socket_.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        subscribe({{fence_tag, token_}});
        if (!keys.empty()) {
            subscribe(keys);
            sync();
        }
    }

    void send_raw(const std::string &bytes) { ASSERT_TRUE(socket_.send_raw(bytes)); }
    void send(const std::string &msg) { ASSERT_TRUE(socket_.send_message(msg)); }
    void subscribe(const Fields &keys) { send(named("subscribe", keys)); }

    // The next message; empty (and a failure) when none comes in time.
    std::string receive()
    {
        auto msg = socket_.read_message();
        EXPECT_TRUE(msg) << "no message came";
        return msg.value_or("");
    }

    // `msg`, sent by `from`, is the next thing this client receives.
    void expect_from(HubClient &from, const std::string &msg)
    {
        from.send(msg);
        EXPECT_EQ(receive(), msg);
    }
    // A data message only this client subscribes to.
    std::string fence() const { return message({{fence_tag, token_}}); }
    // Returns once the hub has handled everything this client sent.
    void sync() { expect_from(*this, fence()); }
    // This client gets nothing more from `from` than what it already received.
    void expect_nothing_more_from(HubClient &from) { expect_from(from, fence()); }

    // Reads (and discards) until the hub closes the connection; false when
    // patience runs out first.
    bool closed_by_hub()
    {
        auto deadline = std::chrono::steady_clock::now() + patience();
        while (socket_.read_message()) {
        }
        return std::chrono::steady_clock::now() < deadline;
    }

private:
    static inline int count_ = 0;
    FrameSocket socket_;
    std::string token_;
};

// ---- Routing ----------------------------------------------------------------

// Each client's oldest unanswered request is forgotten at its fourth.
struct Routing : ::testing::Test {
    ZelhubProcess hub{{"--max-pending", "3"}};
    HubClient a{hub.port()}, b{hub.port()}, c{hub.port()};
    void SetUp() override
    {
        for (HubClient *client : {&a, &b, &c})
            client->sync(); // its fence subscription is in place
    }
    // `data` from `from` reaches each of `to` once, and nobody else.
    void expect_routed(HubClient &from, const std::string &data, const std::vector<HubClient *> &to)
    {
        from.send(data);
        for (HubClient *client : {&a, &b, &c}) {
            if (std::ranges::count(to, client)) {
                EXPECT_EQ(client->receive(), data);
            }
            client->expect_nothing_more_from(from);
        }
    }
};

TEST_F(Routing, DataGoesOnceToEachMatchingSubscriberTheSenderIncludedOnFirstValuesAlone)
{
    const Fields three = {{5, "x"}, {6, ""}, {7, "z"}};
    a.subscribe({{5, "x"}});
    b.subscribe({{5, "x"}});
    b.subscribe({{6, ""}}); // a second match must not mean a second copy
    c.subscribe(three);
    c.subscribe(three); // a set: one unsubscribe ends both
    c.subscribe({{5, "y"}});
    for (HubClient *client : {&a, &b, &c})
        client->sync();

    const std::string all = message({{5, "x"}, {6, "v"}, {7, "z"}});
    expect_routed(a, all, {&a, &b, &c});
    expect_routed(a, message({{5, "x"}, {7, "z"}}), {&a, &b}); // any value, but not none
    expect_routed(a, message({{5, "y"}, {5, "x"}, {6, "v"}, {7, "z"}}), {&b, &c});
    expect_routed(a, message({{5, "x"}, {6, "v"}, {7, "q"}, {7, "z"}}), {&a, &b});

    c.send(named("unsubscribe", three));
    c.sync();
    expect_routed(a, all, {&a, &b});
    // Messages to the hub itself go to nobody, though they carry 5 x.
    for (const char *name : {"varto_heartbeat", "set_device_aka", "subscribe", "unsubscribe"})
        expect_routed(b, named(name, {{5, "x"}, {10002, "b"}}), {});
}

TEST_F(Routing, RequestsGoToEveryOtherClientAndRepliesToTheOldestAskerOfTheLastNumberWaitedFor)
{
    HubClient &responder = c;
    auto ask = [&](HubClient &asker, const std::string &number) {
        std::vector<HubClient *> others = {&a, &b, &c};
        std::erase(others, &asker);
        expect_routed(asker, named("service", {{32760, number}}), others);
    };
    auto reply = [](Fields numbers, const std::string &text) {
        numbers.insert(numbers.end(), {{32767, ""}, {8, text}});
        return message(numbers);
    };
    ask(a, "1"); // a's oldest: forgotten when a asks its fourth
    ask(b, "7");
    for (int i = 0; i < 3; ++i)
        ask(a, "7");
    expect_routed(responder, reply({{32760, "1"}}, "to nobody"), {});
    expect_routed(responder, reply({{32760, "7"}}, "1st"), {&b});
    for (const char *text : {"2nd", "3rd", "4th"})
        expect_routed(responder, reply({{32760, "7"}}, text), {&a});

    ask(a, "9");
    ask(b, "10");
    const Fields both = {{32760, "9"}, {32760, "10"}};
    expect_routed(responder, reply(both, "first"), {&b});  // who waits for the last number
    expect_routed(responder, reply(both, "second"), {&a}); // nobody waits for 10 any more
}

// ---- Clients dropped alone ------------------------------------------------------

// A message of `fields` and a padding field, framed in exactly `size` bytes.
std::string framed_in(size_t size, Fields fields)
{
    fields.push_back({6, ""});
    fields.back().second.assign(size - frame(message(fields)).size(), 'p');
    return message(fields);
}

int open_descriptors(pid_t pid)
{
    auto dir = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd");
    return int(std::distance(std::filesystem::begin(dir), std::filesystem::end(dir)));
}

// Publishes `data` in steps, which `reader` keeps up with, until the hub
// holds one descriptor fewer than when it began, and then once more, which
// `reader` must still get; answers how many it published in all, or 0 when
// none was dropped. Kernel buffers take some megabytes of what stalled
// subscribers are owed first.
int publish_until_one_is_dropped(ZelhubProcess &hub, HubClient &publisher, HubClient &reader, const std::string &data)
{
    const int descriptors = open_descriptors(hub.pid());
    for (int published = 16; published <= 4096; published += 16) {
        for (int i = 0; i < 16; ++i)
            publisher.send(data);
        for (int i = 0; i < 16; ++i)
            if (reader.receive() != data)
                return 0;
        if (open_descriptors(hub.pid()) == descriptors - 1) {
            reader.expect_from(publisher, data);
            return published + 1;
        }
    }
    return 0;
}

TEST(Faults, ASubscriberOwedMoreThanTheBacklogBoundIsDroppedAlone)
{
    constexpr int bound = 1 << 20;
    ZelhubProcess hub({"--max-backlog", std::to_string(bound)});
    HubClient publisher{hub.port()}, reader{hub.port(), {{5, "x"}}}, stalled{hub.port(), {{5, "x"}}, 4096};
    std::string data = message({{5, "x"}, {6, std::string(16384, 'd')}});
    ASSERT_GT(publish_until_one_is_dropped(hub, publisher, reader, data), 0);
    EXPECT_TRUE(stalled.closed_by_hub());

    // The frame being added counts: alone, one at the bound goes, and one
    // past it is too much.
    reader.expect_from(publisher, framed_in(bound, {{5, "x"}}));
    publisher.send(framed_in(bound + 1, {{5, "x"}}));
    EXPECT_TRUE(reader.closed_by_hub());
}

TEST(Faults, OverTheBoundOnAllBacklogsTheClientOwedMostIsDroppedFirst)
{
    ZelhubProcess hub({"--max-total-backlog", "4194304", "--max-backlog", "16777216"});
    HubClient publisher{hub.port()}, reader{hub.port(), {{5, "x"}}}, less{hub.port(), {{5, "x"}}, 4096};
    HubClient most{hub.port(), {{5, ""}}, 4096}; // any value of 5: y and x
    const std::string padding(16384, 'd');
    for (int i = 0; i < 64; ++i) // puts `most` a megabyte ahead
        publisher.send(message({{5, "y"}, {6, padding}}));
    std::string data = message({{5, "x"}, {6, padding}});
    int published = publish_until_one_is_dropped(hub, publisher, reader, data);
    ASSERT_GT(published, 0);
    EXPECT_TRUE(most.closed_by_hub());
    // `less` stalled too, and is owed megabytes more than its socket buffers
    // hold: reading again, it gets them all, whole.
    publisher.send(less.fence());
    int arrived = 0;
    while (less.receive() == data)
        ++arrived;
    EXPECT_EQ(arrived, published);
}

// ---- Resources and the process ------------------------------------------------------

long resident_kib(pid_t pid)
{
    long pages = 0, resident_pages = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/statm") >> pages >> resident_pages;
    return resident_pages * (sysconf(_SC_PAGESIZE) / 1024);
}

TEST(Process, NoDescriptorOrMemoryLeakOverThousandsOfClients)
{
    ZelhubProcess hub;
    const int descriptors = open_descriptors(hub.pid());
    // Clients that subscribe, wait for a reply that never comes, sometimes
    // break the stream, and go; true once the hub holds what it held at the
    // start again, besides the one client that checks.
    auto come_and_go = [&](int clients) {
        for (int n = 0; n < clients; ++n) {
            HubClient client{hub.port()};
            client.subscribe({{5, std::to_string(n)}});
            client.send(named("service", {{32760, std::to_string(n)}}));
            if (n % 30 == 0)
                client.send_raw(frame_header(0xfffffff0u));
        }
        // Connections still queued for accepting hold no descriptor of the
        // hub yet: a fence that comes back (after requests of clients gone)
        // proves they were all taken. The hub closes what it takes at the end
        // of a round, and each fence takes it through one more.
        HubClient last{hub.port()};
        auto deadline = std::chrono::steady_clock::now() + patience();
        do {
            last.send(last.fence());
            for (std::string got = last.receive(); got != last.fence() && !got.empty(); got = last.receive()) {
            }
        } while (open_descriptors(hub.pid()) != descriptors + 1 && std::chrono::steady_clock::now() < deadline);
        return open_descriptors(hub.pid()) == descriptors + 1;
    };
    ASSERT_TRUE(come_and_go(300)); // lets the hub's allocations reach their working size
    [[maybe_unused]] long memory = resident_kib(hub.pid());
    EXPECT_TRUE(come_and_go(3000));
#ifndef __SANITIZE_ADDRESS__ // its quarantine holds freed memory back on purpose
    EXPECT_LT(resident_kib(hub.pid()) - memory, 4 * 1024);
#endif
    // A hub built with the leak checker fails its exit on a leak.
    EXPECT_EQ(hub.stop(SIGTERM), 0);
}

// A fresh directory, removed with all it holds at the end.
struct TemporaryDirectory {
    std::string path = std::filesystem::temp_directory_path() / "zelhub-test-XXXXXX";
    TemporaryDirectory() { EXPECT_TRUE(mkdtemp(path.data())) << std::strerror(errno); }
    ~TemporaryDirectory() { std::filesystem::remove_all(path); }
};

TEST(Process, BadOptionsOrAnAddressBookThatCannotBeReadExitWithStatusTwo)
{
    TemporaryDirectory dir;
    const std::vector<std::vector<std::string>> refused = {
        {"--port", "http"},           {"--port", "70000"},          {"--max-backlog", "0"},
        {"--max-frame", "1073741824"}, {"--max-pending", "0"},        {"--stats"},
        {"--bind", "hub.example"},     {"--verbose", "1"},           {"--addrbook", dir.path},
    };
    for (const auto &args : refused)
        EXPECT_EQ(zelhub_exit_status(args), 2) << args[0];
    const std::string file = dir.path + "/book";
    for (const char *text : {"", "zelhub address book 2\n", "zelhub address book 1\nno tab\n",
                             "zelhub address book 1\nk\t\\x4\n", "zelhub address book 1\nk\ta\tb\n",
                             "zelhub address book 1\nk\t1\nk\t2\n"}) {
        std::ofstream(file) << text;
        EXPECT_EQ(zelhub_exit_status({"--addrbook", file}), 2) << text;
    }
}

// ---- The address book -------------------------------------------------------------

constexpr int key_tag = 10000, address_tag = 10046;

// The hub's answer to `client` asking for `key`.
std::string look_up(HubClient &client, const std::string &key)
{
    client.send(named("mrv_ab", {{key_tag, key}}));
    return client.receive();
}
std::string set_entry(const std::string &key, const std::string &address)
{
    return named("mrv_lb_set_info", {{key_tag, key}, {address_tag, address}});
}
std::string found(const std::string &address)
{
    return message({{address_tag, address}});
}
std::string not_found(const std::string &key)
{
    return message({{key_tag, key}});
}

TEST_F(Routing, AddressBookAnswersTheAskerAloneAndForwardsNothingFromOrToItsClient)
{
    HubClient book{hub.port()};
    book.send(set_entry("printer", "printer-a:9100"));
    book.send(set_entry("printer", "printer-b:9100"));
    book.send(named("mrv_ab", {{key_tag, "printer"}, {address_tag, "not looked at"}}));
    EXPECT_EQ(book.receive(), found("printer-b:9100"));
    for (HubClient *other : {&a, &b, &c})
        other->expect_nothing_more_from(book);

    b.expect_from(a, named("service", {{8, "question"}})); // so `book` would be owed it by now
    EXPECT_EQ(look_up(book, "scanner"), not_found("scanner"));
}

TEST(Faults, ClientSendingGarbageAFrameOverTheMaximumOrABadAddressBookRequestIsDroppedAlone)
{
    constexpr uint32_t max_frame = 1 << 20;
    const std::string longest(65536, 'x'), too_long(65537, 'x');
    const std::pair<const char *, std::string> garbage[] = {
        {"negative length", frame_header(0xffffffffu)},
        {"length too large", frame_header(0x40000000u)},
        {"over the maximum", frame_header(max_frame - zel::hub::frame_header_size + 1)}, // its body never comes
        {"empty message", frame_header(0)},
        {"bad magic", frame("not a message")},
        {"item past the end", frame(message({{5, "x"}}).substr(0, 10))},
        {"ask without key", frame(named("mrv_ab", {{address_tag, "a"}}))},
        {"set without address", frame(named("mrv_lb_set_info", {{key_tag, "k"}}))},
        {"unset without key", frame(named("mrv_lb_unset_info", {}))},
        {"key too long", frame(set_entry(too_long, "a"))},
        {"address too long", frame(set_entry("k", too_long))},
    };
    ZelhubProcess hub({"--max-frame", std::to_string(max_frame)});
    HubClient a{hub.port()}, b{hub.port(), {{5, "x"}}};
    b.expect_from(a, framed_in(max_frame, {{5, "x"}}));
    a.send(set_entry(longest, longest));
    EXPECT_EQ(look_up(a, longest), found(longest));
    for (const auto &[what, bytes] : garbage) {
        SCOPED_TRACE(what);
        HubClient bad{hub.port()};
        bad.send_raw(bytes);
        EXPECT_TRUE(bad.closed_by_hub());
        b.expect_nothing_more_from(a);
        EXPECT_EQ(look_up(a, "k"), not_found("k"));
    }
}

TEST(AddressBook, EntriesOfAnyBytesOutliveAKilledHubInAFileReplacedWhole)
{
    const std::pair<std::string, std::string> entries[] = {
        {"tab\there", "line\nbreak\r\n"},
        {std::string("nul\0byte", 8), "back\\slash \\x41"},
        {"caf\xc3\xa9 = key: 1", " spaced\x7f\xff"},
        {"", "empty key"},
        {"empty address", ""},
    };
    TemporaryDirectory dir;
    const std::string file = dir.path + "/book";
    ZelhubProcess hub({"--addrbook", file});
    HubClient book{hub.port()};
    book.send(set_entry("gone", "soon"));
    // Answered once every change before it is on disk.
    EXPECT_EQ(look_up(book, "gone"), found("soon"));
    std::ifstream old_file(file); // a reader of the table as it is now
    for (const auto &[key, address] : entries)
        book.send(set_entry(key, address));
    book.send(named("mrv_lb_unset_info", {{key_tag, "gone"}}));
    EXPECT_EQ(look_up(book, "gone"), not_found("gone"));
    // It must see that table whole: a file written in place could also be
    // left half written by a crash.
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(old_file), {}), "zelhub address book 1\ngone\tsoon\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path), {}), 1) << "a temporary file is left";

    hub.restart(); // by SIGKILL: the hub writes nothing on its way out
    HubClient after{hub.port()};
    for (const auto &[key, address] : entries)
        EXPECT_EQ(look_up(after, key), found(address)) << key;
    EXPECT_EQ(look_up(after, "gone"), not_found("gone"));
    EXPECT_EQ(hub.stop(SIGINT), 0); // a wait status of 0: exited, with 0, as SIGTERM ends the leak test
}

} // namespace
