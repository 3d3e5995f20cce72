// Delivery of worker batches to receivers on the application thread: matching
// against watches, services and replies, receivers that change the tables or
// die mid-dispatch, damaged batches, back-pressure and the meters.
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "api/batch_buffer.h"
#include "api/receive_window.h"
#include "support/batches.h"
#include "support/messages.h"

namespace {

using zel::test::Fields;
constexpr auto msg = zel::test::build_message;
std::string msg5(const std::string &value) { return msg({{5, value}}); }

// What a receiver was called with; `item` is the watch, or the request of a reply.
struct Call {
    std::string who, value; // value: the message's field 5
    int kind;
    void *item, *context;
    std::thread::id thread;
};
std::vector<Call> calls;
std::vector<std::string> alerts;

struct Recv : CZelReceiver {
    std::string name;
    std::function<void()> action; // runs after the call is logged; may destroy this
    explicit Recv(std::string n) : name(std::move(n)) {}
    int log(vartocb *m, int kind, void *item, void *ctx)
    {
        sPChar v{};
        int err = 0;
        std::string value = zel_get_data(m, 5, 0, &v, &err) ? std::string(v.data, size_t(v.len)) : "";
        calls.push_back({name, value, kind, item, ctx, std::this_thread::get_id()});
        if (auto act = action) // a copy: the member may die with this receiver
            act();
        return 1;
    }
    int processMsg(vartocb *m, int kind, sWatchData *w, void *ctx, int *) override { return log(m, kind, w, ctx); }
    int processReply(vartocb *m, int kind, void *rq, void *ctx, int *) override { return log(m, kind, rq, ctx); }
};

std::vector<std::string> callers()
{
    std::vector<std::string> who;
    for (const Call &c : calls)
        who.push_back(c.who);
    return who;
}

void pump_all()
{
    while (zel_pump_messages(0) > 0)
        ;
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
    // Posts from this thread, then pumps until the queue is empty.
    void deliver(const std::string &bytes, int messages = 1)
    {
        zel::test::post_block(window, bytes.data(), int32_t(bytes.size()), messages);
        pump_all();
    }
    std::vector<uint64_t> meters()
    {
        sZelMeters m{};
        window.read_meters(&m);
        return std::vector<uint64_t>(m.counters, m.counters + 21);
    }
    bool register_service(const char *name, CZelReceiver *r)
    {
        int err = 0;
        return window.register_service(sPChar{const_cast<char *>(name), int32_t(strlen(name))}, r, &err);
    }

    int32_t live_at_start = zel::BatchBuffer::live();
    CIntRxWnd window;
};

TEST_F(Delivery, WorkerBatchesReachTheWatchOnThePumpingThreadInOrder)
{
    Recv r("r");
    int ctx = 0;
    sWatchData *w = add(&r, {5}, {""}, &ctx);
    const int count = 40;
    std::thread worker([&] {
        for (int i = 0; i < count; ++i) {
            std::string m = msg5("m" + std::to_string(i));
            zel::test::post_block(window, m.data(), int32_t(m.size()));
        }
    });
    for (int handled = 0; handled < count;)
        handled += zel_pump_messages(-1);
    worker.join();
    ASSERT_EQ(calls.size(), size_t(count));
    for (size_t i = 0; i < calls.size(); ++i)
        EXPECT_EQ(std::tie(calls[i].value, calls[i].kind, calls[i].item, calls[i].context, calls[i].thread),
                  std::make_tuple("m" + std::to_string(i), 2, (void *)w, (void *)&ctx, std::this_thread::get_id()));
    calls.clear();
    deliver(msg5("a") + msg5("b") + msg5("c"), 3); // one batch, several whole messages
    EXPECT_TRUE(calls.size() == 3u && calls.back().value == "c");
    EXPECT_TRUE(alerts.empty());
}

TEST_F(Delivery, WatchesMatchNewestFirstAndAReceiverIsCalledOncePerMessage)
{
    Recv a("a"), b("b"), c("c");
    add(&c, {5}, {""});
    add(nullptr, {5}, {""}); // never called, never in the way
    add(&a, {5}, {""});
    add(&b, {5}, {"x"});
    sWatchData *newest = add(&a, {5, 6}, {"x", ""});
    deliver(msg({{5, "x"}, {6, "y"}}));
    EXPECT_EQ(callers(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(calls[0].item, newest);
}

TEST_F(Delivery, EmptyValueMatchesAnyValueButNotAMissingFieldAndValuesCompareExactly)
{
    Recv any("any"), exact("exact");
    add(&any, {7}, {""});
    add(&exact, {5}, {"IBM"});
    for (const std::string &m : {msg5("IBM"), msg({{5, "ibm"}, {7, "z"}}), msg5("IBMX"), msg5("IB")})
        deliver(m);
    EXPECT_EQ(callers(), (std::vector<std::string>{"exact", "any"}));
}

TEST_F(Delivery, AServiceRequestGoesOnlyToItsServiceAndUnknownNamesAreCounted)
{
    Recv svc("svc"), watcher("watcher");
    ASSERT_TRUE(register_service("quotes", &svc));
    add(&watcher, {5}, {""});
    deliver(msg({{0, "quotes"}, {5, "a"}}) + msg({{0, "nobody"}, {5, "b"}}), 2);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(std::make_tuple(calls[0].who, calls[0].kind, calls[0].item, calls[0].context, calls[0].value),
              std::make_tuple(std::string("svc"), 1, nullptr, nullptr, std::string("a")));
    EXPECT_EQ(std::make_pair(meters()[2], meters()[5]), std::make_pair(2ul, 0ul));
    EXPECT_TRUE(alerts.empty());
}

TEST_F(Delivery, AReplyCompletesItsLiveRequestOnceTryingTheLastNumberFirst)
{
    Recv req("req"), svc("svc"), watcher("watcher");
    ASSERT_TRUE(register_service("quotes", &svc));
    add(&watcher, {32767}, {""});
    add(&watcher, {5}, {""});
    int c1 = 0, c2 = 0;
    auto *p1 = new sAddWatchData{11, &req, &c1};
    auto *p2 = new sAddWatchData{140737488355327ull, &req, &c2}; // wider than 32 bits
    window.add_pending(p1);
    window.add_pending(p2);
    deliver(msg({{32767, "r"}, {0, "quotes"}, {5, "v"}, {32760, "11"}, {32760, "140737488355327"}}));
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(std::make_tuple(calls[0].who, calls[0].kind, calls[0].item, calls[0].context),
              std::make_tuple(std::string("req"), 3, (void *)p2, (void *)&c2));
    for (const char *number : {"140737488355327", "11", "11"}) // the first already completed
        deliver(msg({{32767, "r"}, {32760, number}}));
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(std::make_tuple(calls[1].kind, calls[1].item, calls[1].context),
              std::make_tuple(3, (void *)p1, (void *)&c1));
    EXPECT_EQ(std::make_tuple(meters()[4], meters()[2], meters()[5]), std::make_tuple(4ul, 0ul, 0ul));
    auto *gone = new Recv("gone"); // a request whose receiver was destroyed is never completed
    window.add_pending(new sAddWatchData{7, gone, nullptr});
    delete gone;
    deliver(msg({{32767, "r"}, {32760, "7"}}));
    EXPECT_EQ(calls.size(), 2u);
}

TEST_F(Delivery, AReceiverMayRemoveItsOwnAndOthersWatchesDuringDispatch)
{
    Recv keeper("keeper"), victim("victim"), remover("remover");
    add(&keeper, {5}, {""});
    add(&victim, {5}, {""});
    sWatchData *own = add(&remover, {5}, {""});
    remover.action = [&] {
        EXPECT_EQ(window.remove_watches([&](const sWatchData &w) { return w.receiver == &victim; }), 1);
        EXPECT_TRUE(window.remove_watch(own));
    };
    deliver(msg5("1") + msg5("2"), 2);
    EXPECT_EQ(callers(), (std::vector<std::string>{"remover", "keeper", "keeper"}));
}

TEST_F(Delivery, AReceiverMayDestroyItselfOrAnotherDuringDispatch)
{
    Recv survivor("survivor"), killer("killer");
    auto *other = new Recv("other"), *self = new Recv("self");
    for (CZelReceiver *r : std::initializer_list<CZelReceiver *>{&survivor, other, self, self, &killer})
        add(r, {5}, {""}); // walked from killer down to survivor
    killer.action = [&] { delete std::exchange(other, nullptr); };
    self->action = [self] { delete self; };
    deliver(msg5("1") + msg5("2"), 2);
    EXPECT_EQ(callers(), (std::vector<std::string>{"killer", "self", "survivor", "killer", "survivor"}));
}

TEST_F(Delivery, AThrowingReceiverRaisesAnAlertAndDispatchGoesOn)
{
    Recv quiet("quiet"), thrower("thrower");
    add(&quiet, {5}, {""});
    add(&thrower, {5}, {""});
    int throws = 1;
    thrower.action = [&] {
        if (throws-- > 0)
            throw std::runtime_error("receiver failed");
    };
    deliver(msg5("1") + msg5("2"), 2);
    EXPECT_EQ(callers(), (std::vector<std::string>{"thrower", "quiet", "thrower", "quiet"}));
    EXPECT_EQ(alerts.size(), 1u);
}

TEST_F(Delivery, AnUnparsableBatchRaisesOneAlertAfterDeliveringTheWholeMessagesBeforeItAnEmptyOneNone)
{
    const std::string dropped = "Internal error while parsing messages, some messages are dropped";
    Recv r("r");
    add(&r, {5}, {""});
    deliver(std::string(), 1); // an empty batch is dropped silently
    EXPECT_TRUE(alerts.empty());
    deliver("\x01\x02 not a message", 1);
    EXPECT_EQ(alerts, std::vector<std::string>{dropped});
    std::string third = msg5("3");
    deliver(msg5("1") + msg5("2") + third.substr(0, third.size() - 3), 3);
    EXPECT_EQ(alerts, (std::vector<std::string>{dropped, dropped}));
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].value, "2");
    deliver(msg5("4") + "trailing garbage", 1); // as many messages as announced, then bytes that do not parse
    EXPECT_EQ(alerts.size(), 3u);
    EXPECT_EQ(calls.size(), 3u);
    calls.clear(); // a batch for a destroyed window is freed, not delivered
    auto doomed = std::make_unique<CIntRxWnd>();
    doomed->add_watch(new sWatchData{{5}, {""}, &r, nullptr, "", ""});
    std::string m = msg5("x");
    zel::test::post_block(*doomed, m.data(), int32_t(m.size()));
    EXPECT_EQ(zel::BatchBuffer::live(), live_at_start + 1);
    doomed.reset();
    pump_all();
    EXPECT_TRUE(calls.empty()); // TearDown checks that the buffer is gone
}

TEST(BackPressure, AWorkerWaitsFrom3001LiveBatchesUntilFewerThan1000AndNeverForEver)
{
    std::vector<std::unique_ptr<zel::BatchBuffer>> held;
    auto fill_to = [&](int32_t n) {
        while (zel::BatchBuffer::live() < n)
            held.push_back(std::make_unique<zel::BatchBuffer>());
    };
    fill_to(3000);
    EXPECT_EQ(zel::wait_for_batch_room([] {}), 0);
    fill_to(3001);
    EXPECT_GT(zel::wait_for_batch_room([] {}), 0); // nothing is freed, and still it goes on
    // The application frees 100 batches during each wait: the worker goes on
    // once it has read fewer than 1000, after the pause that follows the
    // read, and not later.
    zel::wait_for_batch_room([&] { held.resize(held.size() - 100); });
    EXPECT_LT(zel::BatchBuffer::live(), 1000);
    EXPECT_GE(zel::BatchBuffer::live(), 800);
}

TEST_F(Delivery, MetersCountAKnownSequenceAndResetToZero)
{
    Recv r("r"), svc("svc");
    ASSERT_TRUE(register_service("quotes", &svc));
    add(&r, {5}, {"x"});
    const std::string watched = msg5("x") + msg5("y"), served = msg({{0, "quotes"}}) + msg({{0, "nobody"}}),
                      reply = msg({{32767, "r"}, {32760, "1"}});
    zel::test::post_block(window, watched.data(), int32_t(watched.size()), 2);
    EXPECT_EQ(meters()[13], watched.size()); // counted on arrival...
    pump_all();
    EXPECT_EQ(meters()[13], 2 * watched.size()); // ...and again on dispatch
    deliver(served, 2);
    deliver(reply);
    std::vector<uint64_t> expected(21, 0);
    expected[1] = expected[15] = 5;
    expected[2] = expected[5] = 2;
    expected[4] = 1;
    expected[13] = 2 * (watched.size() + served.size() + reply.size());
    expected[17] = std::max({watched.size(), served.size(), reply.size()});
    expected[0] = meters()[0]; // active watches are counted where watches are made
    EXPECT_EQ(meters(), expected);
    EXPECT_EQ(window.delivered(), 5u);
    window.reset_meters();
    EXPECT_EQ(meters(), std::vector<uint64_t>(21, 0));
}

} // namespace
