// The client API over a hub, end to end: engines talking through the real
// hub server, and in-test hubs where a fault must be injected (a broken
// frame, a hub that goes away, a hub that never comes). How the window hands
// messages to receivers is the api suite's; here it is what crosses the wire.
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <poll.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "message/message_test_util.h" // EXPECT_RESULT
#include "support/clients.h"
#include "support/frame_socket.h"
#include "support/messages.h"
#include "support/worker_reports.h"
#include "support/zelhub_process.h"
#include "transport/hub/hub_engine.h"

namespace {

using namespace zel::test;

// One application's connection to the hub.
struct Client : Connection {
    Client(int port, const std::string &name)
    {
        engine.create_connection(port, "127.0.0.1", "hub", "", "", "", name, 0, "", "", "", nullptr);
        engine.setConnectionListener(&statuses, &err);
    }
};

struct Hub : ::testing::Test {
    ReconnectDelays delays{"10", "40"};
    ZelhubProcess hub;
    Client subscriber{hub.port(), "subscriber"}, publisher{hub.port(), "publisher"};
};

TEST_F(Hub, WatchedMessagesArriveWholeAndOnlyTheyDoUntilTheirWatchIsRemoved)
{
    Recorder prices, fence;
    int context = 0;
    subscriber.watch({5}, {"a"}, &prices, &context);
    void *gone = subscriber.watch({7}, {""}, &prices);
    subscriber.watch({6}, {""}, nullptr);
    subscriber.watch({60000}, {""}, &fence);
    ASSERT_TRUE(subscriber.round_trip());

    // More than the worker's receive buffer, and sent first, so more than the
    // socket takes from the publisher's own thread: the worker writes the rest,
    // and what follows waits for it.
    const std::string large(8 * 1024 * 1024, 'v');
    for (const Fields &f : std::vector<Fields>{{{7, large}}, {{5, "a"}, {1, "x"}}, {{5, "b"}}, {{9, "q"}}})
        ASSERT_EQ(publisher.send(f), 1);
    ASSERT_TRUE(pump_until([&] { return prices.messages.size() == 2; }));
    EXPECT_EQ(prices.messages, (std::vector<std::string>{"7 1 " + large + " ", "5 1 a 1 1 x "}));
    EXPECT_EQ(prices.kinds, std::vector<int>(2, ZEL_KIND_WATCH_MATCH));
    EXPECT_EQ(prices.contexts, (std::vector<void *>{nullptr, &context}));
    sZelMeters m = subscriber.meters();
    EXPECT_EQ(m.counters[0], 4u);             // watches
    EXPECT_EQ(m.counters[1], m.counters[15]); // handled = parsed
    EXPECT_GE(m.counters[1], 3u);
    EXPECT_GT(m.counters[14], 0u);            // bytes this worker sent

    EXPECT_EQ(subscriber.engine.removeWatch(gone, &subscriber.err), 1);
    EXPECT_EQ(subscriber.engine.removeWatch(gone, &subscriber.err), 0);
    ASSERT_TRUE(subscriber.round_trip());
    publisher.send({{7, "after"}});
    publisher.send({{60000, "after"}});
    ASSERT_TRUE(pump_until([&] { return fence.saw("60000 1 after "); }));
    EXPECT_EQ(prices.messages.size(), 2u);
    EXPECT_EQ(subscriber.engine.removeAllWatches(&subscriber.err), 1);
    EXPECT_EQ(subscriber.meters().counters[0], 1u); // the one without receiver stays
    EXPECT_EQ(subscriber.engine.removeAllWatches(&subscriber.err), 0);
    EXPECT_EQ(subscriber.statuses.seen, std::vector<int>{ZEL_STATUS_CONNECTED}); // never dropped
}

TEST_F(Hub, ARequestReachesItsServiceAndTheReplyItsRequester)
{
    Client &server = subscriber, &client = publisher;
    Recorder service, requester;
    ASSERT_EQ(server.serve("quote", &service), 1);
    service.respond = [&](vartocb *request) {
        server.send({{32767, "1"}, {32760, request_number(request)}, {5, "42"}});
    };
    int context = 0;
    void *handle = nullptr;
    ASSERT_EQ(client.ask({{0, "quote"}, {5, "IBM"}}, &requester, &context, &handle), 1);
    ASSERT_TRUE(pump_until([&] { return !requester.messages.empty(); }));
    std::string number = std::to_string(reinterpret_cast<uintptr_t>(&requester));
    EXPECT_EQ(service.messages[0], "0 1 quote 5 1 IBM 32760 1 " + number + " ");
    EXPECT_EQ(requester.messages, std::vector<std::string>{"32767 1 1 32760 1 " + number + " 5 1 42 "});
    EXPECT_EQ(requester.requests, std::vector<void *>{handle});
    EXPECT_EQ(requester.contexts, std::vector<void *>{&context});
    sZelMeters m = client.meters();
    EXPECT_EQ(std::vector<uint64_t>({m.counters[4], m.counters[7], m.counters[9], m.counters[16]}),
              std::vector<uint64_t>(4, 1));
}

TEST_F(Hub, AKilledHubIsLostThenRecoveringAndARestartedOneGetsTheWatchesBack)
{
    Recorder prices;
    subscriber.watch({5}, {""}, &prices);
    ASSERT_TRUE(subscriber.round_trip());
    ASSERT_EQ(subscriber.statuses.seen, std::vector<int>{ZEL_STATUS_CONNECTED});

    hub.stop(SIGKILL);
    auto &seen = subscriber.statuses.seen;
    ASSERT_TRUE(pump_until([&] { return seen.size() == 3; }));
    // Lost, then recovering: the listener hears the status of the moment.
    EXPECT_TRUE(seen[1] == ZEL_STATUS_LOST || seen[1] == ZEL_STATUS_RECOVERING);

    hub.restart();
    ASSERT_TRUE(pump_until([&] { return seen.size() == 4 && publisher.statuses.seen.size() == 4; }));
    ASSERT_TRUE(subscriber.round_trip()); // the watches went again with the new connection
    publisher.send({{5, "again"}});
    ASSERT_TRUE(pump_until([&] { return prices.saw("5 1 again "); }));
    // Retries while down told nobody.
    EXPECT_EQ(std::vector<int>(seen.begin() + 2, seen.end()),
              (std::vector<int>{ZEL_STATUS_RECOVERING, ZEL_STATUS_CONNECTED}));
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
    Recorder any;
    subscriber.watch({60000}, {""}, &any);
    ASSERT_TRUE(subscriber.round_trip());
    std::string whole = build_message({{60000, "x"}, {5, "value"}});
    int &err = publisher.err;
    for (std::string bytes : {whole.substr(0, whole.size() - 1), whole + '\0', std::string("not a message")})
        EXPECT_RESULT(publisher.send(bytes), 0, ZEL_DETAIL_NOT_A_MESSAGE);
    EXPECT_RESULT(publisher.ask({{5, "no name"}}, &any), 0, ZEL_DETAIL_NOT_A_MESSAGE);
    void *handle = nullptr;
    EXPECT_RESULT(publisher.engine.addRqDontStore(&handle, nullptr, &any, nullptr, &err), 0, ZEL_DETAIL_NULL_ARGUMENT);
    publisher.send({{60000, "fence"}});
    ASSERT_TRUE(pump_until([&] { return any.saw("60000 1 fence "); }));
    EXPECT_EQ(any.messages.size(), 1u); // nothing of the broken ones arrived
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
    Destroyer destroyer;
    Recorder older;
    subscriber.watch({5}, {""}, &older);
    subscriber.watch({5}, {""}, &destroyer); // newer: called first
    ASSERT_TRUE(subscriber.round_trip());
    destroyer.engine = subscriber.owned.release();
    for (int i = 0; i < 3; ++i)
        publisher.send({{5, std::to_string(i)}});
    ASSERT_TRUE(pump_until([&] { return !destroyer.engine; }));
    publisher.send({{5, "later"}});
    ASSERT_TRUE(publisher.round_trip());
    zel_pump_messages(0);
    EXPECT_EQ(destroyer.messages, std::vector<std::string>{"5 1 0 "});
    EXPECT_TRUE(older.messages.empty());
}

// ---- Against in-test hubs ------------------------------------------------------

// The hub's end of the connection has a small receive buffer, so that what
// the kernel holds of a stalled stream is little and known.
struct FakeHub : ::testing::Test {
    ReconnectDelays delays{"10", "40"};
    FrameListener listener{8192};
    static constexpr const char *heartbeat = "0 1 varto_heartbeat ";
    // The admin text of the next frame that is not a heartbeat.
    static std::string next_request(FrameSocket &peer)
    {
        std::string text = heartbeat;
        while (text == heartbeat)
            text = admin_text(peer.read_message().value());
        return text;
    }
};

TEST_F(FakeHub, TheWorkerAnnouncesItselfSendsSortedWatchesTheirRemovalAndHeartbeatsAndRecoversFromABrokenFrame)
{
    Client client(listener.port(), "desk-7");
    auto peer = listener.accept().value();
    EXPECT_EQ(next_request(peer), "0 1 set_device_aka 10002 1 desk-7 ");
    Recorder r;
    void *watch = client.watch({5, 2, 9, 2}, {"five", "two", "", ""}, &r); // sorted, stable
    EXPECT_EQ(next_request(peer), "0 1 subscribe 2 1 two 2 0 5 1 five 9 0 ");
    EXPECT_EQ(client.engine.removeWatch(watch, &client.err), 1);
    EXPECT_EQ(next_request(peer), "0 1 unsubscribe 2 1 two 2 0 5 1 five 9 0 ");

    EXPECT_EQ(client.engine.enableHeartbeat(nullptr, 600, &client.err), 1); // every 10 passes
    for (int beats = 0; beats < 2;)
        beats += admin_text(peer.read_message().value()) == heartbeat;

    peer.send_raw(frame_header(0x40000000));
    auto second = listener.accept().value();
    EXPECT_EQ(next_request(second), "0 1 set_device_aka 10002 1 desk-7 ");
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

TEST_F(FakeHub, AStalledHubFillsTheSendQueueToItsBoundAndWhatALostConnectionHeldIsCounted)
{
    Client client(listener.port(), "publisher");
    auto hub = listener.accept().value();
    // A small send buffer too, so that what the client accepts beyond what
    // the kernel holds must be in its queue.
    int own = socket_connected_to(listener.port()), small = 8192;
    ASSERT_GE(own, 0);
    ::setsockopt(own, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const int64_t in_kernel = socket_buffer(own, SO_SNDBUF) + socket_buffer(hub.fd(), SO_RCVBUF);
    const int64_t limit = 256 * 1024;
    zel_set_send_queue_limit(limit);
    std::string bytes = build_message({{7, std::string(4000, 'x')}});
    const int64_t frame_size = 4 + int64_t(bytes.size());
    // Sends until refused with more accepted than the kernel can hold, or
    // until the bound is plainly not kept, or patience runs out.
    auto fill = [&] {
        int64_t accepted = 0;
        auto deadline = std::chrono::steady_clock::now() + patience();
        while (accepted <= in_kernel + limit && std::chrono::steady_clock::now() < deadline) {
            if (client.send(bytes) == 1)
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
        waiting -= hub.read_message().value().size() == bytes.size();
        if (!taken_again && client.send(bytes) == 1) {
            taken_again = true;
            ++waiting;
        }
    }
    EXPECT_TRUE(taken_again);

    int64_t accepted = fill();
    hub.close();
    auto again = listener.accept().value();
    ASSERT_TRUE(pump_until([&] { return client.meters().counters[18] > 0; }));
    EXPECT_GE(int64_t(client.meters().counters[18]), (accepted - in_kernel) / frame_size);
    zel_set_send_queue_limit(0);
}

TEST(Outages, EachOutageStartsItsReconnectDelayAfresh)
{
    ReconnectDelays quick("5", "100000");
    ZelhubProcess hub;
    WorkerReports<CHubEngine> reports("127.0.0.1@" + std::to_string(hub.port()));
    for (int outage = 0; outage < 2; ++outage) {
        ASSERT_TRUE(pump_until([&] { return reports.window.status() == ZEL_STATUS_CONNECTED; }));
        hub.stop(SIGKILL);
        size_t before = reports.retries();
        ASSERT_TRUE(pump_until([&] { return reports.retries() >= before + 3; }));
        hub.restart();
    }
    std::lock_guard<std::mutex> guard(reports.lock);
    auto &delays = reports.retry_delays;
    // The second outage began at the first one's delay again.
    ASSERT_NE(std::find(delays.begin() + 1, delays.end(), delays[0]), delays.end());
    EXPECT_EQ(std::vector<unsigned>(delays.begin(), delays.begin() + 3), (std::vector<unsigned>{10, 20, 40}));
}

TEST(NoHub, EveryAttemptFailingEndsTheWorkerAfterTheBudget)
{
    ReconnectDelays quick("1", "1");
    int closed_port = FrameListener().port();
    WorkerReports<CHubEngine> reports("127.0.0.1@" + std::to_string(closed_port));
    EXPECT_EQ(reports.window.status(), ZEL_STATUS_RECOVERING); // create returned after the first attempt
    ASSERT_TRUE(pump_until([&] { return !reports.engine.worker_running(); }));
    std::lock_guard<std::mutex> guard(reports.lock);
    EXPECT_EQ(reports.texts.back(), "no of reconnection attempts limit breached. shutting down.");
    EXPECT_EQ(reports.retry_delays.size(), 121u);
    zel_pump_messages(0);
    EXPECT_EQ(reports.statuses.seen, std::vector<int>{ZEL_STATUS_RECOVERING}); // told once
}

} // namespace
