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
#include <zel/message.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/frame_socket.h"
#include "support/messages.h"
#include "support/time_factor.h"
#include "support/zelhub_process.h"
#include "transport/hub/framing.h"

namespace {

using namespace std::chrono_literals;
using zel::test::patience;
using zel::test::ZelhubProcess;
using zel::test::Fields;
constexpr auto message = zel::test::build_message;

constexpr int fence_tag = 99;

std::string named(const std::string &name, Fields fields)
{
    fields.insert(fields.begin(), {0, name});
    return message(fields);
}

std::string frame(const std::string &msg)
{
    std::string bytes(zel::hub::frame_header_size, '\0');
    zel::hub::put_frame_length(bytes.data(), uint32_t(msg.size()));
    return bytes + msg;
}

// A client speaking raw frames to the hub, subscribed to its own fence.
class HubClient {
public:
    explicit HubClient(int port, int receive_buffer = 0)
        : socket_(zel::test::FrameSocket::connect_to(port, receive_buffer)), token_("fence-" + std::to_string(++count_))
    {
        int on = 1; // small frames in a row must not wait for acknowledgements
        setsockopt(socket_.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        subscribe({{fence_tag, token_}});
    }

    void send_raw(const std::string &bytes) { ASSERT_TRUE(socket_.send_raw(bytes)); }
    void send(const std::string &msg) { ASSERT_TRUE(socket_.send_message(msg)); }
    void subscribe(const Fields &keys) { send(named("subscribe", keys)); }
    void unsubscribe(const Fields &keys) { send(named("unsubscribe", keys)); }

    // The next message; empty (and a failure) when none comes in time.
    std::string receive()
    {
        auto msg = socket_.read_message();
        if (!msg)
            ADD_FAILURE() << "no message came";
        return msg.value_or("");
    }

    // A data message only this client subscribes to.
    std::string fence() const { return message({{fence_tag, token_}}); }
    // Returns once the hub has handled everything this client sent.
    void sync()
    {
        send(fence());
        EXPECT_EQ(receive(), fence());
    }

    // Reads (and discards) until the hub closes the connection.
    bool closed_by_hub()
    {
        auto deadline = std::chrono::steady_clock::now() + patience();
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{socket_.fd(), POLLIN, 0};
            if (poll(&p, 1, 100) <= 0)
                continue;
            char bytes[65536];
            ssize_t n = recv(socket_.fd(), bytes, sizeof bytes, 0);
            if (n == 0 || (n < 0 && errno == ECONNRESET))
                return true;
        }
        return false;
    }

private:
    static inline int count_ = 0;
    zel::test::FrameSocket socket_;
    std::string token_;
};

// `to` gets nothing more from `from` than what it already received.
void expect_nothing_more(HubClient &from, HubClient &to)
{
    from.send(to.fence());
    EXPECT_EQ(to.receive(), to.fence());
}

int open_descriptors(pid_t pid)
{
    auto dir = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd");
    return int(std::distance(std::filesystem::begin(dir), std::filesystem::end(dir)));
}

long resident_kib(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    long kib = 0;
    while (status >> word)
        if (word == "VmRSS:" && status >> kib)
            break;
    return kib;
}

// Waits (polling the hub from outside) until it holds `count` descriptors.
bool descriptors_become(pid_t pid, int count)
{
    auto deadline = std::chrono::steady_clock::now() + patience();
    while (open_descriptors(pid) != count && std::chrono::steady_clock::now() < deadline)
        usleep(2000);
    return open_descriptors(pid) == count;
}

// ---- Routing ----------------------------------------------------------------

struct Routing : ::testing::Test {
    ZelhubProcess hub;
    HubClient a{hub.port()}, b{hub.port()}, c{hub.port()};
    void SetUp() override
    {
        for (HubClient *client : {&a, &b, &c})
            client->sync(); // its fence subscription is in place
    }
};

TEST_F(Routing, DataGoesOnceToEachMatchingSubscriberIncludingTheSender)
{
    b.subscribe({{5, "x"}});
    b.subscribe({{6, ""}}); // a second match must not mean a second copy
    a.subscribe({{5, "x"}});
    c.subscribe({{5, "y"}});
    for (HubClient *client : {&a, &b, &c})
        client->sync();

    std::string data = message({{5, "x"}, {6, "v"}, {7, "payload"}});
    a.send(data);
    EXPECT_EQ(b.receive(), data);
    EXPECT_EQ(a.receive(), data);
    expect_nothing_more(a, b);
    expect_nothing_more(a, a);
    expect_nothing_more(a, c);
}

TEST_F(Routing, MatchingUsesTheFirstValueAndAnAnyValueKeyStillNeedsItsField)
{
    b.subscribe({{5, "x"}, {6, ""}, {7, "z"}});
    b.sync();
    a.send(message({{5, "x"}, {7, "z"}}));                        // no field 6
    a.send(message({{5, "y"}, {5, "x"}, {6, "v"}, {7, "z"}}));    // x is not the first value
    a.send(message({{5, "x"}, {6, "v"}, {7, "q"}, {7, "z"}}));    // nor is z, past the first key
    std::string wanted = message({{5, "x"}, {6, "anything"}, {7, "z"}});
    a.send(wanted);
    EXPECT_EQ(b.receive(), wanted);
    expect_nothing_more(a, b);
}

TEST_F(Routing, SubscriptionsAreASetAndUnsubscribeEndsOne)
{
    Fields keys = {{5, "x"}, {6, "y"}};
    b.subscribe(keys);
    b.subscribe(keys);
    b.sync();
    std::string data = message({{5, "x"}, {6, "y"}});
    a.send(data);
    EXPECT_EQ(b.receive(), data);
    expect_nothing_more(a, b);

    b.unsubscribe(keys);
    b.sync();
    a.send(data);
    expect_nothing_more(a, b);
}

TEST_F(Routing, HubMessagesAreNotForwarded)
{
    a.send(named("varto_heartbeat", {}));
    a.send(named("set_device_aka", {{10002, "client-a"}}));
    a.subscribe({{5, "x"}});
    a.unsubscribe({{5, "x"}});
    expect_nothing_more(a, b);
}

TEST_F(Routing, RequestGoesToEveryOtherClient)
{
    std::string request = named("service", {{8, "question"}, {32760, "1"}});
    a.send(request);
    EXPECT_EQ(b.receive(), request);
    EXPECT_EQ(c.receive(), request);
    expect_nothing_more(a, a);
}

TEST_F(Routing, ReplyGoesOnlyToTheOldestRequesterWaitingForItsNumber)
{
    std::string from_b = named("service", {{32760, "7"}});
    b.send(from_b);
    EXPECT_EQ(a.receive(), from_b);
    std::string from_c = named("service", {{32760, "7"}, {8, "c"}});
    c.send(from_c);
    EXPECT_EQ(a.receive(), from_c);
    EXPECT_EQ(b.receive(), from_c);
    EXPECT_EQ(c.receive(), from_b);

    std::string first = named("service", {{32760, "7"}, {32767, ""}, {8, "first"}});
    std::string second = named("service", {{32760, "7"}, {32767, ""}, {8, "second"}});
    a.send(first);
    a.send(second);
    a.send(named("service", {{32760, "7"}, {32767, ""}, {8, "nobody waits"}}));
    EXPECT_EQ(b.receive(), first);
    EXPECT_EQ(c.receive(), second);
    expect_nothing_more(a, b);
    expect_nothing_more(a, c);
    expect_nothing_more(a, a);
}

TEST_F(Routing, ReplyNumbersAreTriedFromTheLast)
{
    std::string from_b = named("service", {{32760, "9"}});
    std::string from_c = named("service", {{32760, "10"}});
    b.send(from_b);
    EXPECT_EQ(a.receive(), from_b);
    c.send(from_c);
    EXPECT_EQ(a.receive(), from_c);
    EXPECT_EQ(b.receive(), from_c);
    EXPECT_EQ(c.receive(), from_b);

    auto reply = [](const std::string &text) { return message({{32760, "9"}, {32760, "10"}, {32767, ""}, {8, text}}); };
    a.send(reply("first")); // to c, who waits for the last number
    a.send(reply("second")); // then to b: nobody waits for 10 any more
    EXPECT_EQ(c.receive(), reply("first"));
    EXPECT_EQ(b.receive(), reply("second"));
    expect_nothing_more(a, b);
    expect_nothing_more(a, c);
}

TEST(Requests, OverTheBoundAClientsOldestIsForgottenAndRepliesGoOldestFirst)
{
    ZelhubProcess hub({"--max-pending", "3"});
    HubClient a{hub.port()}, b{hub.port()}, responder{hub.port()};
    for (HubClient *client : {&a, &b, &responder})
        client->sync(); // accepted by the hub, so forwarded the first request too
    auto ask = [&](HubClient &asker, HubClient &bystander, const std::string &number) {
        std::string request = named("service", {{32760, number}});
        asker.send(request);
        EXPECT_EQ(bystander.receive(), request);
        EXPECT_EQ(responder.receive(), request);
    };
    ask(a, b, "1"); // a's oldest: forgotten when a asks its fourth
    ask(b, a, "7");
    for (int i = 0; i < 3; ++i)
        ask(a, b, "7");

    auto reply = [](const std::string &number, const std::string &text) {
        return message({{32760, number}, {32767, ""}, {8, text}});
    };
    responder.send(reply("1", "to nobody"));
    for (const char *text : {"1st", "2nd", "3rd", "4th"})
        responder.send(reply("7", text));
    EXPECT_EQ(b.receive(), reply("7", "1st"));
    for (const char *text : {"2nd", "3rd", "4th"})
        EXPECT_EQ(a.receive(), reply("7", text));
    expect_nothing_more(responder, a);
    expect_nothing_more(responder, b);
}

// ---- Clients dropped alone ------------------------------------------------------

std::string length_only(uint32_t length)
{
    std::string bytes(zel::hub::frame_header_size, '\0');
    zel::hub::put_frame_length(bytes.data(), length);
    return bytes;
}

TEST(Faults, ClientSendingGarbageIsDroppedAlone)
{
    const std::pair<const char *, std::string> garbage[] = {
        {"negative length", length_only(0xffffffffu)},
        {"length too large", length_only(0x40000000u)},
        {"empty message", length_only(0)},
        {"bad magic", frame("not a message")},
        {"item past the end", frame(message({{5, "x"}}).substr(0, 10))},
    };
    ZelhubProcess hub;
    HubClient a{hub.port()}, b{hub.port()};
    b.subscribe({{5, "x"}});
    b.sync();
    for (const auto &[what, bytes] : garbage) {
        SCOPED_TRACE(what);
        HubClient bad{hub.port()};
        bad.subscribe({{5, "x"}});
        bad.send_raw(bytes);
        EXPECT_TRUE(bad.closed_by_hub());
        std::string data = message({{5, "x"}, {6, what}});
        a.send(data);
        EXPECT_EQ(b.receive(), data);
    }
}

TEST(Faults, FrameOverTheMaximumIsRefusedAtItsLengthAndOneAtItPasses)
{
    constexpr uint32_t max_frame = 1 << 20;
    ZelhubProcess hub({"--max-frame", std::to_string(max_frame)});
    HubClient a{hub.port()}, b{hub.port()}, big{hub.port()};
    b.subscribe({{5, "x"}});
    b.sync();
    std::string padded = message({{5, "x"}, {6, "p"}});
    std::string at_max = message({{5, "x"}, {6, std::string(max_frame - frame(padded).size() + 1, 'p')}});
    ASSERT_EQ(frame(at_max).size(), max_frame);
    big.send(at_max);
    EXPECT_EQ(b.receive(), at_max);

    big.send_raw(length_only(max_frame - zel::hub::frame_header_size + 1)); // its body never comes
    EXPECT_TRUE(big.closed_by_hub());
    std::string data = message({{5, "x"}});
    a.send(data);
    EXPECT_EQ(b.receive(), data);
}

// Publishes `data` in steps, which `reader` keeps up with, until the hub
// holds one descriptor fewer than `descriptors`. Kernel buffers take some
// megabytes of what stalled subscribers are owed first.
bool publish_until_one_is_dropped(ZelhubProcess &hub, int descriptors, HubClient &publisher, HubClient &reader,
                                  const std::string &data)
{
    for (int step = 0; step < 256; ++step) {
        for (int i = 0; i < 16; ++i)
            publisher.send(data);
        for (int i = 0; i < 16; ++i)
            if (reader.receive() != data)
                return false;
        if (open_descriptors(hub.pid()) == descriptors - 1)
            return true;
    }
    return false;
}

TEST(Faults, ABurstLargerThanTheSocketBuffersReachesASlowReaderWhole)
{
    ZelhubProcess hub;
    HubClient publisher{hub.port()}, slow{hub.port(), 4096};
    slow.subscribe({{5, ""}});
    slow.sync();
    std::string data = message({{5, "x"}, {6, std::string(4000, 'd')}});
    for (int i = 0; i < 2000; ++i) // 8 MB, read by nobody until all is sent
        publisher.send(data);
    publisher.send(slow.fence());
    int arrived = 0;
    while (slow.receive() == data)
        ++arrived;
    EXPECT_EQ(arrived, 2000);
}

TEST(Faults, TheBacklogBoundCountsTheFrameBeingAdded)
{
    ZelhubProcess hub({"--max-backlog", "1000"});
    HubClient publisher{hub.port()}, subscriber{hub.port()};
    subscriber.subscribe({{5, ""}});
    subscriber.sync();
    std::string fits = message({{5, std::string(900, 'f')}});
    publisher.send(fits);
    EXPECT_EQ(subscriber.receive(), fits);
    publisher.send(message({{5, std::string(1000, 'o')}})); // alone over the bound
    EXPECT_TRUE(subscriber.closed_by_hub());
}

TEST(Faults, StalledSubscriberIsDroppedAloneAtTheBacklogBound)
{
    ZelhubProcess hub({"--max-backlog", "1048576"});
    HubClient publisher{hub.port()}, reader{hub.port()}, stalled{hub.port(), 4096};
    for (HubClient *subscriber : {&reader, &stalled}) {
        subscriber->subscribe({{5, "x"}});
        subscriber->sync();
    }
    std::string data = message({{5, "x"}, {6, std::string(16384, 'd')}});
    ASSERT_TRUE(publish_until_one_is_dropped(hub, open_descriptors(hub.pid()), publisher, reader, data));
    publisher.send(data);
    EXPECT_EQ(reader.receive(), data);
    EXPECT_TRUE(stalled.closed_by_hub());
}

TEST(Faults, OverTheBoundOnAllBacklogsTheClientOwedMostIsDroppedFirst)
{
    ZelhubProcess hub({"--max-total-backlog", "4194304", "--max-backlog", "16777216"});
    HubClient publisher{hub.port()}, reader{hub.port()}, most{hub.port(), 4096}, less{hub.port(), 4096};
    most.subscribe({{5, "y"}});
    for (HubClient *subscriber : {&reader, &most, &less}) {
        subscriber->subscribe({{5, "x"}});
        subscriber->sync();
    }
    const std::string padding(16384, 'd');
    for (int i = 0; i < 64; ++i) // puts `most` a megabyte ahead
        publisher.send(message({{5, "y"}, {6, padding}}));
    std::string data = message({{5, "x"}, {6, padding}});
    ASSERT_TRUE(publish_until_one_is_dropped(hub, open_descriptors(hub.pid()), publisher, reader, data));
    EXPECT_TRUE(most.closed_by_hub());
    publisher.send(data);
    EXPECT_EQ(reader.receive(), data);
}

// ---- Resources and the process ------------------------------------------------------

TEST(Process, NoDescriptorOrMemoryLeakOverThousandsOfClients)
{
    ZelhubProcess hub;
    const int descriptors = open_descriptors(hub.pid());
    // Subscribes, waits for a reply that never comes, sometimes breaks the
    // stream, and goes.
    auto cycle = [&](int n) {
        HubClient client{hub.port()};
        client.subscribe({{5, std::to_string(n)}});
        client.send(named("service", {{32760, std::to_string(n)}}));
        if (n % 30 == 0)
            client.send_raw(length_only(0xfffffff0u));
    };
    // Connections still queued for accepting hold no descriptor of the hub
    // yet: a last client that gets its fence proves they were all taken.
    auto settle = [&] {
        HubClient last{hub.port()};
        last.send(last.fence());
        for (std::string got = last.receive(); got != last.fence() && !got.empty(); got = last.receive()) {
        }
    };
    for (int n = 0; n < 300; ++n) // lets the hub's allocations reach their working size
        cycle(n);
    settle();
    ASSERT_TRUE(descriptors_become(hub.pid(), descriptors));
    [[maybe_unused]] long memory = resident_kib(hub.pid());

    for (int n = 0; n < 3000; ++n)
        cycle(n);
    settle();
    EXPECT_TRUE(descriptors_become(hub.pid(), descriptors));
#ifndef __SANITIZE_ADDRESS__ // its quarantine holds freed memory back on purpose
    EXPECT_LT(resident_kib(hub.pid()) - memory, 4 * 1024);
#endif
    // A hub built with the leak checker fails its exit on a leak.
    int status = hub.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(Process, StopSignalsEndItWithStatusZero)
{
    for (int signal : {SIGTERM, SIGINT}) {
        ZelhubProcess hub;
        HubClient a{hub.port()}, b{hub.port()};
        b.subscribe({{5, "x"}});
        b.sync();
        a.send(message({{5, "x"}})); // may be in flight at the signal
        int status = hub.stop(signal);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }
}

// The hub's exit status; not an exit status when it starts serving instead.
int exit_status(std::vector<std::string> args)
{
    args.insert(args.begin(), ZELHUB_PATH);
    int out[2];
    if (pipe(out) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // an option taken by mistake must not leave a hub running
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        dup2(out[1], STDOUT_FILENO);
        std::vector<char *> argv;
        for (auto &arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    // A hub that says it listens would serve until stopped.
    pollfd p{out[0], POLLIN, 0};
    char c;
    if (poll(&p, 1, int(patience().count())) <= 0 || read(out[0], &c, 1) > 0)
        kill(pid, SIGKILL);
    close(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Process, BadOptionsExitWithStatusTwo)
{
    EXPECT_EQ(exit_status({"--port", "http"}), 2);
    EXPECT_EQ(exit_status({"--port", "70000"}), 2);
    EXPECT_EQ(exit_status({"--max-backlog", "0"}), 2);
    EXPECT_EQ(exit_status({"--max-frame", "1073741824"}), 2);
    EXPECT_EQ(exit_status({"--max-pending", "0"}), 2);
    EXPECT_EQ(exit_status({"--stats"}), 2);
    EXPECT_EQ(exit_status({"--bind", "hub.example"}), 2);
    EXPECT_EQ(exit_status({"--verbose", "1"}), 2);
}

// ---- The address book -------------------------------------------------------------

constexpr int key_tag = 10000, address_tag = 10046;

std::string ask(const std::string &key)
{
    return named("mrv_ab", {{key_tag, key}});
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
    book.send(ask("printer"));
    EXPECT_EQ(book.receive(), found("printer-a:9100"));
    book.send(set_entry("printer", "printer-b:9100"));
    book.send(named("mrv_ab", {{key_tag, "printer"}, {address_tag, "not looked at"}}));
    EXPECT_EQ(book.receive(), found("printer-b:9100"));
    book.send(named("mrv_lb_unset_info", {{key_tag, "printer"}}));
    book.send(ask("printer"));
    EXPECT_EQ(book.receive(), not_found("printer"));
    for (HubClient *other : {&a, &b, &c})
        expect_nothing_more(book, *other);

    std::string request = named("service", {{8, "question"}});
    a.send(request);
    EXPECT_EQ(b.receive(), request); // so `book` would be owed it by now
    book.send(ask("printer"));
    EXPECT_EQ(book.receive(), not_found("printer"));
}

TEST(AddressBook, RequestWithoutItsFieldsOrOverTheLengthIsRefusedAndItsClientDroppedAlone)
{
    const std::string longest(65536, 'x'), too_long(65537, 'x');
    const std::pair<const char *, std::string> refused[] = {
        {"ask without key", named("mrv_ab", {{address_tag, "a"}})},
        {"set without address", named("mrv_lb_set_info", {{key_tag, "k"}})},
        {"unset without key", named("mrv_lb_unset_info", {})},
        {"key too long", set_entry(too_long, "a")},
        {"address too long", set_entry("k", too_long)},
    };
    ZelhubProcess hub;
    HubClient book{hub.port()}, bystander{hub.port()};
    book.send(set_entry(longest, longest));
    book.send(ask(longest));
    EXPECT_EQ(book.receive(), found(longest));
    for (const auto &[what, request] : refused) {
        SCOPED_TRACE(what);
        HubClient bad{hub.port()};
        bad.send(request);
        EXPECT_TRUE(bad.closed_by_hub());
        book.send(ask("k"));
        EXPECT_EQ(book.receive(), not_found("k"));
        bystander.sync();
    }
}

// A fresh directory, removed with all it holds at the end.
struct TemporaryDirectory {
    std::string path = std::filesystem::temp_directory_path() / "zelhub-test-XXXXXX";
    TemporaryDirectory() { EXPECT_TRUE(mkdtemp(path.data())) << std::strerror(errno); }
    ~TemporaryDirectory() { std::filesystem::remove_all(path); }
};

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
    book.send(ask("gone")); // answered once every change before it is on disk
    EXPECT_EQ(book.receive(), found("soon"));
    std::ifstream old_file(file); // a reader of the table as it is now
    for (const auto &[key, address] : entries)
        book.send(set_entry(key, address));
    book.send(named("mrv_lb_unset_info", {{key_tag, "gone"}}));
    book.send(ask("gone"));
    EXPECT_EQ(book.receive(), not_found("gone"));
    // It must see that table whole: a file written in place could also be
    // left half written by a crash.
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(old_file), {}), "zelhub address book 1\ngone\tsoon\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path), {}), 1) << "a temporary file is left";

    hub.restart(); // by SIGKILL: the hub writes nothing on its way out
    HubClient after{hub.port()};
    for (const auto &[key, address] : entries) {
        after.send(ask(key));
        EXPECT_EQ(after.receive(), found(address)) << key;
    }
    after.send(ask("gone"));
    EXPECT_EQ(after.receive(), not_found("gone"));
}

TEST(AddressBook, AFileThatCannotBeReadStopsTheHubWithStatusTwo)
{
    TemporaryDirectory dir;
    EXPECT_EQ(exit_status({"--addrbook", dir.path}), 2);
    const std::string file = dir.path + "/book";
    for (const char *text : {"", "zelhub address book 2\n", "zelhub address book 1\nno tab\n",
                             "zelhub address book 1\nk\t\\x4\n", "zelhub address book 1\nk\ta\tb\n",
                             "zelhub address book 1\nk\t1\nk\t2\n"}) {
        std::ofstream(file) << text;
        EXPECT_EQ(exit_status({"--addrbook", file}), 2) << text;
    }
}

} // namespace
