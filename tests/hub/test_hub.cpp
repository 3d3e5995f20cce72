// The client API over a hub, end to end: engines talking through the real
// hub server, and in-test hubs where a fault must be injected (a broken
// frame, a hub that goes away, a hub that never comes).
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <poll.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <chrono>
#include <cstring>
#include <mutex>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "api/receive_window.h"
#include "support/frame_socket.h"
#include "support/messages.h"
#include "support/zelhub_process.h"
#include "transport/hub/hub_engine.h"

namespace {

using zel::test::admin_text;
using zel::test::build_message;
using zel::test::Fields;

// Pumps the calling thread's queue until `done`, or fails the test.
bool pump_until(const std::function<bool()> &done)
{
    auto deadline = std::chrono::steady_clock::now() + zel::test::patience();
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        zel_pump_messages(20);
    }
    return true;
}

struct Recorder : CZelReceiver {
    std::vector<std::string> messages; // admin text of each message, in order
    std::vector<int> kinds;
    std::vector<void *> requests, contexts;
    std::function<void(vartocb *)> respond;
    int processMsg(vartocb *msg, int kind, sWatchData *, void *context, int *) override
    {
        messages.push_back(admin_text(msg));
        kinds.push_back(kind);
        contexts.push_back(context);
        if (respond)
            respond(msg);
        return 1;
    }
    int processReply(vartocb *reply, int kind, void *request, void *context, int *) override
    {
        messages.push_back(admin_text(reply));
        kinds.push_back(kind);
        requests.push_back(request);
        contexts.push_back(context);
        return 1;
    }
    bool saw(const std::string &text) const
    {
        return std::find(messages.begin(), messages.end(), text) != messages.end();
    }
};

struct StatusLog : CZelListener {
    std::vector<int> seen;
    int statusChange(int status, int *) override
    {
        seen.push_back(status);
        return 1;
    }
};

// One application's connection to the hub.
struct Client {
    std::unique_ptr<CZelEngine> owned = std::make_unique<CZelEngine>();
    CZelEngine &engine = *owned;
    StatusLog statuses;
    int err = 0;

    Client(int port, const std::string &name)
    {
        engine.create_connection(port, "127.0.0.1", "hub", "", "", "", name, 0, "", "", "", nullptr);
        engine.setConnectionListener(&statuses, &err);
    }
    int status()
    {
        int s = 0;
        engine.getConnectionStatus(&s, &err);
        return s;
    }
    void *watch(std::vector<int> tags, std::vector<std::string> values, CZelReceiver *receiver, void *context = nullptr)
    {
        std::vector<sPChar> v;
        for (auto &value : values)
            v.push_back({value.data(), int32_t(value.size())});
        void *handle = nullptr;
        EXPECT_EQ(engine.addWatch(&handle, tags.data(), v.data(), int(tags.size()), receiver, context, false, 0,
                                  false, false, &err),
                  1);
        return handle;
    }
    int send(const Fields &fields)
    {
        std::string bytes = build_message(fields);
        scratchcb message{int32_t(bytes.size()), int32_t(bytes.size()), int32_t(bytes.size()), bytes.data()};
        return engine.sendMsg(&message, &err);
    }
    sZelMeters meters()
    {
        sZelMeters m{};
        engine.getMeters(&m, &err);
        return m;
    }
};

// Waits until the hub has handled everything `client` sent before: a message
// to its own sync watch comes back through the hub in order.
struct Sync : Recorder {
    int rounds = 0;
    void arm(Client &client) { client.watch({60000}, {""}, this); }
    // Arms and waits until the hub has every watch `client` placed so far.
    void settle(Client &client)
    {
        arm(client);
        round_trip(client);
    }
    void round_trip(Client &client)
    {
        std::string text = "60000 1 " + std::to_string(++rounds) + " ";
        ASSERT_EQ(client.send({{60000, std::to_string(rounds)}}), 1);
        ASSERT_TRUE(pump_until([&] { return saw(text); }));
    }
};

struct Hub : ::testing::Test {
    zel::test::ZelhubProcess hub;
    void SetUp() override
    {
        ::setenv("ZEL_RECONNECT_BASE_MS", "10", 1);
        ::setenv("ZEL_RECONNECT_MAX_MS", "40", 1);
    }
};

TEST_F(Hub, WatchedMessagesArriveOnceAndOnlyTheyDo)
{
    Client subscriber(hub.port(), "subscriber"), publisher(hub.port(), "publisher");
    ASSERT_TRUE(pump_until([&] { return subscriber.statuses.seen == std::vector<int>{ZEL_STATUS_CONNECTED}; }));
    Recorder prices;
    Sync sync;
    int context = 0;
    subscriber.watch({5}, {"a"}, &prices, &context);
    subscriber.watch({7, 5}, {"", "a"}, &prices); // the same receiver again: still called once
    subscriber.watch({7}, {""}, &prices);
    sync.settle(subscriber);

    for (const Fields &f : std::vector<Fields>{{{5, "a"}, {1, "x"}}, {{5, "b"}}, {{9, "q"}}, {{7, "z"}, {5, "a"}},
                                               {{0, "not-a-service"}, {5, "a"}}, {{7, "end"}}})
        ASSERT_EQ(publisher.send(f), 1);
    ASSERT_TRUE(pump_until([&] { return prices.saw("7 1 end "); }));
    EXPECT_EQ(prices.messages, (std::vector<std::string>{"5 1 a 1 1 x ", "7 1 z 5 1 a ", "7 1 end "}));
    EXPECT_EQ(prices.kinds, (std::vector<int>{ZEL_KIND_WATCH_MATCH, ZEL_KIND_WATCH_MATCH, ZEL_KIND_WATCH_MATCH}));
    EXPECT_EQ(prices.contexts[0], &context);

    sZelMeters m = subscriber.meters();
    EXPECT_EQ(m.counters[0], 4u);              // watches
    EXPECT_EQ(m.counters[1], m.counters[15]);  // handled = parsed
    EXPECT_GE(m.counters[1], 4u);
    EXPECT_GT(m.counters[14], 0u);             // bytes this worker sent
}

TEST_F(Hub, RemovedWatchesStopAndRemovingAllKeepsAWatchWithoutReceiver)
{
    Client subscriber(hub.port(), "subscriber"), publisher(hub.port(), "publisher");
    Recorder prices;
    Sync sync;
    void *gone = subscriber.watch({5}, {"a"}, &prices);
    subscriber.watch({6}, {""}, nullptr);
    sync.arm(subscriber);
    EXPECT_EQ(subscriber.engine.removeWatch(gone, &subscriber.err), 1);
    EXPECT_EQ(subscriber.engine.removeWatch(gone, &subscriber.err), 0);
    sync.round_trip(subscriber);
    publisher.send({{5, "a"}});
    publisher.send({{60000, "after"}});
    ASSERT_TRUE(pump_until([&] { return sync.saw("60000 1 after "); }));
    EXPECT_TRUE(prices.messages.empty());

    EXPECT_EQ(subscriber.engine.removeAllWatches(&subscriber.err), 1); // the sync watch
    EXPECT_EQ(subscriber.meters().counters[0], 1u);                    // the one without receiver
    EXPECT_EQ(subscriber.engine.removeAllWatches(&subscriber.err), 0);
}

TEST_F(Hub, ARequestReachesItsServiceAndTheReplyOnlyItsRequester)
{
    Client server(hub.port(), "server"), client(hub.port(), "client"), bystander(hub.port(), "bystander");
    Recorder service, requester, other;
    sPChar name{const_cast<char *>("quote"), 5};
    ASSERT_EQ(server.engine.registerSrvc(&name, &service, 0, &server.err), 1);
    ASSERT_EQ(bystander.engine.registerSrvc(&name, &other, 0, &bystander.err), 1);
    service.respond = [&](vartocb *request) {
        sPChar number{};
        int err = 0;
        ASSERT_EQ(zel_get_data(request, 32760, 0, &number, &err), 1);
        server.send({{32767, "1"}, {32760, std::string(number.data, size_t(number.len))}, {5, "42"}});
    };

    std::string bytes = build_message({{0, "quote"}, {5, "IBM"}});
    scratchcb *request = nullptr;
    int err = 0, context = 0;
    zel_open_scratch(&request, int(bytes.size()), &err);
    std::memcpy(request->data, bytes.data(), bytes.size());
    request->len = int32_t(bytes.size());
    void *handle = nullptr;
    ASSERT_EQ(client.engine.addRqDontStore(&handle, request, &requester, &context, &client.err), 1);
    ASSERT_TRUE(pump_until([&] { return !requester.messages.empty() && !other.messages.empty(); }));
    EXPECT_EQ(service.kinds, std::vector<int>{ZEL_KIND_SERVICE_REQUEST});
    EXPECT_EQ(service.contexts, std::vector<void *>{nullptr});
    std::string number = std::to_string(reinterpret_cast<uintptr_t>(&requester));
    EXPECT_EQ(service.messages[0], "0 1 quote 5 1 IBM 32760 1 " + number + " ");
    EXPECT_EQ(requester.messages, std::vector<std::string>{"32767 1 1 32760 1 " + number + " 5 1 42 "});
    EXPECT_EQ(requester.kinds, std::vector<int>{ZEL_KIND_REPLY});
    EXPECT_EQ(requester.requests, std::vector<void *>{handle});
    EXPECT_EQ(requester.contexts, std::vector<void *>{&context});
    sZelMeters m = client.meters();
    EXPECT_EQ(std::vector<uint64_t>({m.counters[4], m.counters[7], m.counters[9], m.counters[16]}),
              std::vector<uint64_t>(4, 1));
    zel_close_scratch(&request, &err);
}

TEST_F(Hub, AKilledHubIsLostThenRecoveringAndARestartedOneGetsTheWatchesBack)
{
    Client subscriber(hub.port(), "subscriber"), publisher(hub.port(), "publisher");
    Recorder prices;
    Sync sync;
    subscriber.watch({5}, {""}, &prices);
    sync.settle(subscriber);
    ASSERT_EQ(subscriber.statuses.seen, std::vector<int>{ZEL_STATUS_CONNECTED});

    hub.stop(SIGKILL);
    ASSERT_TRUE(pump_until([&] { return subscriber.statuses.seen.size() == 3; }));
    EXPECT_EQ(subscriber.status(), ZEL_STATUS_RECOVERING);
    // Lost, then recovering: the listener hears the status of the moment.
    EXPECT_TRUE(subscriber.statuses.seen[1] == ZEL_STATUS_LOST || subscriber.statuses.seen[1] == ZEL_STATUS_RECOVERING);
    EXPECT_EQ(subscriber.statuses.seen[2], ZEL_STATUS_RECOVERING);

    hub.restart();
    ASSERT_TRUE(pump_until([&] { return subscriber.status() == 2 && publisher.status() == 2; }));
    sync.round_trip(subscriber); // the watches went again with the new connection
    publisher.send({{5, "again"}});
    ASSERT_TRUE(pump_until([&] { return prices.saw("5 1 again "); }));
    EXPECT_EQ(subscriber.statuses.seen.size(), 4u); // retries while down told nobody
    EXPECT_EQ(subscriber.statuses.seen.back(), ZEL_STATUS_CONNECTED);
}

TEST_F(Hub, AMessageLargerThanTheReceiveBufferLeavesAndArrivesWhole)
{
    Client subscriber(hub.port(), "subscriber"), publisher(hub.port(), "publisher");
    Recorder big;
    Sync sync;
    subscriber.watch({5}, {""}, &big);
    sync.settle(subscriber);
    std::string value(200 * 1024, 'v');
    ASSERT_EQ(publisher.send({{5, value}}), 1);
    ASSERT_TRUE(pump_until([&] { return !big.messages.empty(); }));
    EXPECT_EQ(big.messages[0], "5 1 " + value + " ");
    EXPECT_EQ(subscriber.statuses.seen, std::vector<int>{ZEL_STATUS_CONNECTED}); // never dropped
}

TEST(HubSender, AQueuedMessageWakesTheWorkerAtOnce)
{
    CHubSender sender;
    pollfd woken{sender.wake_fd(), POLLIN, 0};
    EXPECT_EQ(::poll(&woken, 1, 0), 0);
    sender.queue_message("x");
    EXPECT_EQ(::poll(&woken, 1, 0), 1);
    sender.drain_wakes();
    EXPECT_EQ(::poll(&woken, 1, 0), 0);
}

TEST_F(Hub, ABrokenRecordIsRefusedAndTheConnectionLivesOn)
{
    Client subscriber(hub.port(), "subscriber"), publisher(hub.port(), "publisher");
    Sync sync;
    sync.arm(subscriber);
    std::string whole = build_message({{60000, "x"}, {5, "value"}});
    for (std::string bytes : {whole.substr(0, whole.size() - 1), whole + '\0', std::string("not a message")}) {
        scratchcb record{int32_t(bytes.size()), int32_t(bytes.size()), int32_t(bytes.size()), bytes.data()};
        int err = 0;
        EXPECT_EQ(publisher.engine.sendMsg(&record, &err), 0);
        EXPECT_EQ(err, ZEL_DETAIL_NOT_A_MESSAGE);
    }
    void *handle = nullptr;
    std::string unnamed = build_message({{5, "no name"}});
    scratchcb *request = nullptr; // the request grows by its number: the library's own buffer
    zel_open_scratch(&request, int(unnamed.size()), nullptr);
    std::memcpy(request->data, unnamed.data(), unnamed.size());
    request->len = int32_t(unnamed.size());
    Recorder replies;
    EXPECT_EQ(publisher.engine.addRqDontStore(&handle, request, &replies, nullptr, &publisher.err), 0);
    zel_close_scratch(&request, nullptr);
    EXPECT_EQ(publisher.err, ZEL_DETAIL_NOT_A_MESSAGE);
    EXPECT_EQ(publisher.engine.addRqDontStore(&handle, nullptr, &replies, nullptr, &publisher.err), 0);
    EXPECT_EQ(publisher.err, ZEL_DETAIL_NULL_ARGUMENT);
    sync.round_trip(subscriber);
    EXPECT_EQ(sync.messages.size(), 1u); // nothing of the broken ones arrived
    EXPECT_EQ(publisher.statuses.seen, std::vector<int>{ZEL_STATUS_CONNECTED});
}

// Destroys its connection from inside the first call it gets.
struct Destroyer : Recorder {
    CZelEngine *engine = nullptr;
    int processMsg(vartocb *msg, int kind, sWatchData *watch, void *context, int *err) override
    {
        Recorder::processMsg(msg, kind, watch, context, err);
        delete std::exchange(engine, nullptr);
        return 1;
    }
};

TEST_F(Hub, AConnectionDestroyedFromItsOwnReceiverCallsNobodyAfterwards)
{
    Client publisher(hub.port(), "publisher"), subscriber(hub.port(), "subscriber");
    Destroyer destroyer;
    Recorder older;
    Sync sync;
    subscriber.watch({5}, {""}, &older);
    subscriber.watch({5}, {""}, &destroyer); // newer: called first
    sync.settle(subscriber);
    destroyer.engine = subscriber.owned.release();
    for (int i = 0; i < 3; ++i)
        publisher.send({{5, std::to_string(i)}});
    ASSERT_TRUE(pump_until([&] { return !destroyer.engine; }));
    publisher.send({{5, "later"}});
    Sync publisher_sync;
    publisher_sync.settle(publisher);
    zel_pump_messages(0);
    EXPECT_EQ(destroyer.messages, std::vector<std::string>{"5 1 0 "});
    EXPECT_TRUE(older.messages.empty());
}

// ---- Against in-test hubs ------------------------------------------------------

struct FakeHub : ::testing::Test {
    zel::test::FrameListener listener;
    void SetUp() override
    {
        ::setenv("ZEL_RECONNECT_BASE_MS", "10", 1);
        ::setenv("ZEL_RECONNECT_MAX_MS", "40", 1);
    }
    // The admin text of the next frame that is not a heartbeat.
    static std::string next_request(zel::test::FrameSocket &peer)
    {
        for (;;) {
            auto message = peer.read_message();
            if (!message)
                return "(nothing)";
            std::string text = admin_text(*message);
            if (text != "0 1 varto_heartbeat ")
                return text;
        }
    }
};

TEST_F(FakeHub, TheWorkerAnnouncesItselfSendsSortedWatchesTheirRemovalAndHeartbeats)
{
    Client client(listener.port(), "desk-7");
    auto peer = listener.accept();
    ASSERT_TRUE(peer);
    EXPECT_EQ(next_request(*peer), "0 1 set_device_aka 10002 1 desk-7 ");
    Recorder r;
    void *watch = client.watch({5, 2, 9, 2}, {"five", "two", "", ""}, &r); // sorted, stable
    EXPECT_EQ(next_request(*peer), "0 1 subscribe 2 1 two 2 0 5 1 five 9 0 ");
    EXPECT_EQ(client.engine.removeWatch(watch, &client.err), 1);
    EXPECT_EQ(next_request(*peer), "0 1 unsubscribe 2 1 two 2 0 5 1 five 9 0 ");

    EXPECT_EQ(client.engine.enableHeartbeat(nullptr, 600, &client.err), 1); // every 10 passes
    for (int beats = 0; beats < 2;) {
        auto message = peer->read_message();
        ASSERT_TRUE(message);
        beats += admin_text(*message) == "0 1 varto_heartbeat ";
    }
}

TEST_F(FakeHub, ABrokenFrameLengthStartsRecoveryAndTheWorkerComesBack)
{
    Client client(listener.port(), "desk");
    auto first = listener.accept();
    ASSERT_TRUE(first);
    ASSERT_TRUE(pump_until([&] { return client.statuses.seen.size() == 1; }));
    char header[4];
    zel::hub::put_frame_length(header, 0x40000000);
    first->send_raw(std::string(header, 4));
    auto second = listener.accept();
    ASSERT_TRUE(second);
    EXPECT_EQ(next_request(*second), "0 1 set_device_aka 10002 1 desk ");
    ASSERT_TRUE(pump_until([&] { return client.statuses.seen.size() == 4; }));
    EXPECT_EQ(client.statuses.seen.back(), ZEL_STATUS_CONNECTED);
}

// The socket this process has open to the listener on `port`.
int socket_connected_to(int port)
{
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int fd = std::stoi(entry.path().filename());
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (::getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) == 0 && peer.sin_family == AF_INET &&
            ntohs(peer.sin_port) == port)
            return fd;
    }
    return -1;
}

int socket_buffer(int fd, int which)
{
    int size = 0;
    socklen_t length = sizeof size;
    ::getsockopt(fd, SOL_SOCKET, which, &size, &length);
    return size;
}

TEST(StalledHub, FillsTheSendQueueToItsBoundAndWhatALostConnectionHeldIsCounted)
{
    ::setenv("ZEL_RECONNECT_BASE_MS", "10", 1);
    zel::test::FrameListener listener(8192);
    Client client(listener.port(), "publisher");
    auto hub = listener.accept();
    ASSERT_TRUE(hub);
    // Small socket buffers on both sides, so that what the kernel can hold
    // is known and what the client accepts beyond it must be in its queue.
    int own = socket_connected_to(listener.port()), small = 8192;
    ASSERT_GE(own, 0);
    ::setsockopt(own, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const int64_t in_kernel = socket_buffer(own, SO_SNDBUF) + socket_buffer(hub->fd(), SO_RCVBUF);
    const int64_t limit = 256 * 1024;
    zel_set_send_queue_limit(limit);
    std::string bytes = build_message({{7, std::string(4000, 'x')}});
    scratchcb message{int32_t(bytes.size()), int32_t(bytes.size()), int32_t(bytes.size()), bytes.data()};
    const int64_t frame_size = 4 + int64_t(bytes.size());
    auto send = [&] { return client.engine.sendMsg(&message, &client.err); };
    // Sends until refused with more accepted than the kernel can hold, or
    // until the bound is plainly not kept.
    auto fill = [&] {
        int64_t accepted = 0;
        while (accepted <= in_kernel + limit) {
            if (send() == 1)
                accepted += frame_size;
            else if (accepted > in_kernel)
                break;
        }
        EXPECT_EQ(client.err, ZEL_DETAIL_SEND_QUEUE_FULL);
        EXPECT_LE(accepted, in_kernel + limit);
        return accepted;
    };

    // The hub reads again: the queue takes messages again, and all arrive.
    int64_t waiting = fill() / frame_size;
    bool taken_again = false;
    while (waiting > 0) {
        auto frame = hub->read_message();
        ASSERT_TRUE(frame);
        waiting -= frame->size() == bytes.size();
        if (!taken_again && send() == 1) {
            taken_again = true;
            ++waiting;
        }
    }
    EXPECT_TRUE(taken_again);

    int64_t accepted = fill();
    hub->close();
    auto again = listener.accept();
    ASSERT_TRUE(again);
    ASSERT_TRUE(pump_until([&] { return client.meters().counters[18] > 0; }));
    EXPECT_GE(int64_t(client.meters().counters[18]), (accepted - in_kernel) / frame_size);
    zel_set_send_queue_limit(0);
}

// A monitor that also keeps every report text.
// A monitor that also keeps every report text, and the delay each failed
// recovery attempt armed.
struct ReportLog : CVartoSpy {
    using CVartoSpy::CVartoSpy;
    const CHubEngine *engine = nullptr;
    std::vector<std::string> texts;
    std::vector<unsigned> retry_delays;
    std::mutex lock;
    int report(int level, std::string_view text) override
    {
        {
            std::lock_guard<std::mutex> guard(lock);
            texts.emplace_back(text);
            if (engine && text == "recovery attempt failed, trying again")
                retry_delays.push_back(engine->worker()->reconnect_delay_ms());
        }
        return CVartoSpy::report(level, text);
    }
    size_t retries()
    {
        std::lock_guard<std::mutex> guard(lock);
        return retry_delays.size();
    }
};

TEST(Outages, EachOutageStartsItsReconnectDelayAfresh)
{
    ::setenv("ZEL_RECONNECT_BASE_MS", "5", 1);
    ::setenv("ZEL_RECONNECT_MAX_MS", "100000", 1);
    zel::test::ZelhubProcess hub;
    CIntRxWnd window;
    ReportLog reports(window);
    CHubEngine engine(&window);
    window.set_engine(&engine);
    reports.engine = &engine;
    ASSERT_EQ(engine.create_connection("127.0.0.1@" + std::to_string(hub.port()), 0, "", "", "", &reports), 1);
    for (int outage = 0; outage < 2; ++outage) {
        ASSERT_TRUE(pump_until([&] { return window.status() == ZEL_STATUS_CONNECTED; }));
        hub.stop(SIGKILL);
        size_t before = reports.retries();
        ASSERT_TRUE(pump_until([&] { return reports.retries() >= before + 3; }));
        hub.restart();
    }
    std::lock_guard<std::mutex> guard(reports.lock);
    auto &delays = reports.retry_delays;
    size_t second = std::find(delays.begin() + 1, delays.end(), delays[0]) - delays.begin();
    ASSERT_LT(second, delays.size()); // the second outage began at the first one's delay again
    EXPECT_EQ(std::vector<unsigned>(delays.begin(), delays.begin() + 3), (std::vector<unsigned>{10, 20, 40}));
}

TEST(NoHub, EveryAttemptFailingEndsTheWorkerAfterTheBudget)
{
    ::setenv("ZEL_RECONNECT_BASE_MS", "1", 1);
    ::setenv("ZEL_RECONNECT_MAX_MS", "1", 1);
    int closed_port;
    {
        zel::test::FrameListener gone;
        closed_port = gone.port();
    }
    CIntRxWnd window;
    StatusLog statuses;
    window.set_listener(&statuses);
    ReportLog reports(window);
    CHubEngine engine(&window);
    window.set_engine(&engine);
    ASSERT_EQ(engine.create_connection("127.0.0.1@" + std::to_string(closed_port), 0, "", "", "", &reports), 1);
    EXPECT_EQ(window.status(), ZEL_STATUS_RECOVERING); // create returned after the first attempt
    ASSERT_TRUE(pump_until([&] { return !engine.worker_running(); }));
    std::lock_guard<std::mutex> guard(reports.lock);
    EXPECT_EQ(reports.texts.back(), "no of reconnection attempts limit breached. shutting down.");
    EXPECT_EQ(std::count(reports.texts.begin(), reports.texts.end(), "recovery attempt failed, trying again"), 121);
    zel_pump_messages(0);
    EXPECT_EQ(statuses.seen, std::vector<int>{ZEL_STATUS_RECOVERING}); // told once
}

} // namespace
