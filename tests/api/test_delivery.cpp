// Delivery of worker batches to receivers on the application thread: matching
// against watches, services and replies, receivers that change the tables or
// die mid-dispatch, damaged batches, back-pressure and the meters.
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <ranges>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "api/batch_buffer.h"
#include "api/receive_window.h"
#include "scripted_transport.h" // pump_all
#include "support/batches.h"
#include "support/messages.h"
#include "support/time_factor.h"

namespace {

constexpr auto msg = zel::test::build_message;
std::string msg5(const std::string &value) { return msg({{5, value}}); }
std::string reply(const char *number) { return msg({{32767, "r"}, {32760, number}}); }

// What a receiver was called with: its name, the kind, the watch or the
// request of a reply, the context, and the message's field 5.
using Call = std::tuple<std::string, int, void *, void *, std::string>;
std::vector<Call> calls;
std::vector<std::string> alerts;

struct Recv : CZelReceiver {
    std::string name;
    std::function<void()> action; // runs after the call is logged; may destroy this
    std::thread::id pumping_thread = std::this_thread::get_id(); // the only one that may call it
    explicit Recv(std::string n) : name(std::move(n)) {}
    int log(vartocb *m, int kind, void *item, void *ctx)
    {
        sPChar v{};
        int err = 0;
        std::string value = zel_get_data(m, 5, 0, &v, &err) ? std::string(v.data, size_t(v.len)) : "";
        EXPECT_EQ(std::this_thread::get_id(), pumping_thread);
        calls.emplace_back(name, kind, item, ctx, value);
        if (auto act = action) // a copy: the member may die with this receiver
            act();
        return 1;
    }
    int processMsg(vartocb *m, int kind, sWatchData *w, void *ctx, int *) override { return log(m, kind, w, ctx); }
    int processReply(vartocb *m, int kind, void *rq, void *ctx, int *) override { return log(m, kind, rq, ctx); }
};

std::vector<std::string> callers()
{
    auto who = calls | std::views::elements<0>;
    return {who.begin(), who.end()};
}

class Delivery : public ::testing::Test {
protected:
    void SetUp() override
    {
        calls.clear();
        alerts.clear();
        zel_set_alert_handler([](const char *text) { alerts.emplace_back(text); });
    }
    void TearDown() override
    {
        zel_set_alert_handler(nullptr);
        EXPECT_EQ(zel::BatchBuffer::live(), live_at_start) << "a batch buffer leaked";
    }
    sWatchData *add(CZelReceiver *r, std::vector<int> tags, std::vector<std::string> values, void *ctx = nullptr)
    {
        auto *w = new sWatchData{std::move(tags), std::move(values), r, ctx, "", ""};
        window.add_watch(w);
        return w;
    }
    void post(const std::string &bytes, int messages = 1)
    {
        zel::test::post_block(window, bytes.data(), int32_t(bytes.size()), messages);
    }
    // Posts from this thread, then pumps until the queue is empty.
    void deliver(const std::string &bytes, int messages = 1)
    {
        post(bytes, messages);
        pump_all();
    }
    std::vector<uint64_t> meters()
    {
        sZelMeters m{};
        window.read_meters(&m);
        return std::vector<uint64_t>(m.counters, m.counters + 21);
    }

    int32_t live_at_start = zel::BatchBuffer::live();
    CIntRxWnd window;
};

// Batches are delivered in order, message by message; a queue test checks
// the order of many batches from a worker.
TEST_F(Delivery, WorkerBatchesReachTheWatchOnThePumpingThreadInOrderMessageByMessage)
{
    Recv r("r");
    int ctx = 0;
    sWatchData *w = add(&r, {5}, {""}, &ctx);
    std::thread worker([&] {
        post(msg5("a") + msg5("b"), 2);
        post(msg5("c"));
    });
    while (calls.size() < 3)
        zel_pump_messages(-1);
    worker.join();
    EXPECT_EQ(calls, (std::vector<Call>{{"r", 2, w, &ctx, "a"}, {"r", 2, w, &ctx, "b"}, {"r", 2, w, &ctx, "c"}}));
    EXPECT_TRUE(alerts.empty());
}

TEST_F(Delivery, WatchesMatchNewestFirstOncePerReceiverOnExactValuesOrAnyValueOfAPresentField)
{
    Recv a("a"), b("b"), c("c"), d("d");
    add(&c, {5}, {""});
    add(nullptr, {5}, {""}); // never called, never in the way
    add(&a, {5}, {""});
    add(&b, {5}, {"xy"});
    sWatchData *newest = add(&a, {5, 6}, {"xy", ""});
    add(&d, {7}, {""});
    deliver(msg({{5, "xy"}, {6, "y"}}));
    EXPECT_EQ(callers(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(std::get<2>(calls[0]), newest);
    calls.clear();
    for (const std::string &m : {msg5("XY"), msg5("xyz"), msg5("x"), msg5(""), msg({{7, "z"}})})
        deliver(m);
    EXPECT_EQ(callers(), (std::vector<std::string>{"a", "c", "a", "c", "a", "c", "a", "c", "d"}));
}

// On the hub a request's number is its receiver's address, so that one
// receiver's requests share it: each reply completes the newest still waiting.
TEST_F(Delivery, RequestsGoToTheirServiceAndRepliesToTheirLiveRequestLastNumberFirstNewestFirstAllMetered)
{
    Recv svc("svc"), req("req"), watcher("watcher");
    int err = 0;
    ASSERT_TRUE(window.register_service(sPChar{const_cast<char *>("quotes"), 6}, &svc, &err));
    sWatchData *on_x = add(&watcher, {5}, {"x"});
    add(&watcher, {32767}, {""});
    int c1 = 0, c2 = 0;
    auto *p0 = new sAddWatchData{11, &req, nullptr}; // older, with p1's number
    auto *p1 = new sAddWatchData{11, &req, &c1};
    auto *p2 = new sAddWatchData{140737488355327ull, &req, &c2}; // wider than 32 bits
    for (sAddWatchData *p : {p0, p1, p2})
        window.add_pending(p);
    auto *gone = new Recv("gone"); // a request whose receiver was destroyed is never completed
    window.add_pending(new sAddWatchData{7, gone, nullptr});
    delete gone;
    const std::string watched = msg5("x") + msg5("y"),
                      served = msg({{0, "quotes"}, {5, "a"}}) + msg({{0, "nobody"}, {5, "x"}}),
                      answered =
                          msg({{32767, "r"}, {0, "quotes"}, {5, "x"}, {32760, "11"}, {32760, "140737488355327"}}),
                      late = reply("140737488355327") + reply("11") + reply("11") + reply("7"); // done, p1, p0, gone
    post(watched, 2);
    EXPECT_EQ(meters()[13], watched.size()); // bytes are counted on arrival...
    pump_all();
    EXPECT_EQ(meters()[13], 2 * watched.size()); // ...and again on dispatch
    deliver(served, 2);
    deliver(answered);
    deliver(late, 4);
    EXPECT_EQ(calls, (std::vector<Call>{{"watcher", 2, on_x, nullptr, "x"},
                                        {"svc", 1, nullptr, nullptr, "a"},
                                        {"req", 3, p2, &c2, "x"},
                                        {"req", 3, p1, &c1, ""},
                                        {"req", 3, p0, nullptr, ""}}));
    std::vector<uint64_t> expected(21, 0);
    expected[0] = 2;                   // active watches
    expected[1] = expected[15] = 9;    // messages handled, seen
    expected[2] = expected[5] = 2;     // service requests, watch passes
    expected[4] = 5;                   // replies
    expected[13] = 2 * (watched.size() + served.size() + answered.size() + late.size());
    expected[17] = std::max({watched.size(), served.size(), answered.size(), late.size()});
    EXPECT_EQ(meters(), expected);
    EXPECT_EQ(window.delivered(), 9u);
    window.reset_meters();
    EXPECT_EQ(meters(), std::vector<uint64_t>(21, 0));
    EXPECT_TRUE(alerts.empty());
}

// Receivers that, mid-dispatch, remove watches, destroy themselves or
// another receiver, or throw: the walk goes on past them.
TEST_F(Delivery, AReceiverMayRemoveWatchesDestroyItselfOrAnotherOrThrowAndDispatchGoesOn)
{
    Recv survivor("survivor"), victim("victim"), thrower("thrower"), remover("remover"), killer("killer");
    auto *other = new Recv("other"), *self = new Recv("self");
    for (CZelReceiver *r : std::initializer_list<CZelReceiver *>{&survivor, other, self, self, &victim, &thrower})
        add(r, {5}, {""});
    sWatchData *own = add(&remover, {5}, {""});
    add(&killer, {5}, {""}); // the walk starts here
    killer.action = [&] { delete std::exchange(other, nullptr); };
    remover.action = [&] {
        EXPECT_EQ(window.remove_watches([&](const sWatchData &w) { return w.receiver == &victim; }), 1);
        EXPECT_TRUE(window.remove_watch(own));
    };
    self->action = [self] { delete self; };
    int throws = 1;
    thrower.action = [&] {
        if (throws-- > 0)
            throw std::runtime_error("receiver failed");
    };
    deliver(msg5("1") + msg5("2"), 2);
    EXPECT_EQ(callers(), (std::vector<std::string>{"killer", "remover", "thrower", "self", "survivor", "killer",
                                                   "thrower", "survivor"}));
    EXPECT_EQ(alerts.size(), 1u);
}

TEST_F(Delivery, AnUnparsableBatchRaisesOneAlertAfterDeliveringTheWholeMessagesBeforeItAnEmptyOneNone)
{
    Recv r("r");
    add(&r, {5}, {""});
    deliver(std::string(), 1); // an empty batch is dropped silently
    deliver("\x01\x02 not a message", 1);
    std::string third = msg5("3");
    deliver(msg5("1") + msg5("2") + third.substr(0, third.size() - 3), 3);
    deliver(msg5("4") + "trailing garbage", 1); // as many messages as announced, then bytes that do not parse
    EXPECT_EQ(alerts, std::vector<std::string>(3, "Internal error while parsing messages, some messages are dropped"));
    EXPECT_EQ(callers(), std::vector<std::string>(3, "r"));
    EXPECT_EQ(std::get<4>(calls[1]), "2");
    // A batch for a destroyed window is freed: TearDown checks that the buffer is gone.
    auto doomed = std::make_unique<CIntRxWnd>();
    std::string m = msg5("x");
    zel::test::post_block(*doomed, m.data(), int32_t(m.size()));
    doomed.reset();
    pump_all();
}

TEST(BackPressure, AWorkerWaitsFrom3001LiveBatchesUntilFewerThan1000AndNeverForEver)
{
    std::vector<std::unique_ptr<zel::BatchBuffer>> held;
    // Below 3001 live batches a worker goes on at once; from 3001 it waits,
    // and when nothing is freed it still goes on after its bound.
    for (int32_t live : {3000, 3001}) {
        while (zel::BatchBuffer::live() < live)
            held.push_back(std::make_unique<zel::BatchBuffer>());
        EXPECT_EQ(zel::wait_for_batch_room(std::chrono::milliseconds(1)), live < 3001) << live;
    }
    // Once the worker waits, the application frees batches: the free that
    // brings the count below 1000 wakes it, long before its bound.
    std::atomic<bool> room = false, back = false;
    std::thread worker([&] {
        room = zel::wait_for_batch_room(zel::test::patience());
        back = true;
    });
    while (zel::workers_waiting_for_room() == 0 && !back)
        std::this_thread::yield();
    while (zel::BatchBuffer::live() >= 1000)
        held.pop_back();
    worker.join();
    EXPECT_TRUE(room);
}

} // namespace
