// The facade and the engine and worker bases: connection creation for each
// transport type, forwarding and refusals, the worker thread's start and stop,
// recovery and status reports; and the worker loop, whose one-shot timers fire
// earliest first, killed timers never, and which a quit from another thread ends.
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "api/engine_factory.h"
#include "api/worker_loop.h"
#include "message/message_test_util.h" // EXPECT_RESULT
#include "scripted_transport.h"

namespace {

using zel::Transport;
using enum zel::Transport;

// The engine each transport made, for the test to script and inspect.
RecordingEngine *made = nullptr;
Transport made_for;

template <Transport T>
CVartoEngine *make_recording(CIntRxWnd *)
{
    made_for = T;
    return made = new RecordingEngine;
}

struct Facade : ::testing::Test {
    // Each transport makes a recording engine for the test; its own maker comes back afterwards.
    const zel::EngineMaker built_in[3] = {std::exchange(zel::engine_maker(zmq), make_recording<zmq>),
                                          std::exchange(zel::engine_maker(hub), make_recording<hub>),
                                          std::exchange(zel::engine_maker(amqp), make_recording<amqp>)};
    void TearDown() override
    {
        for (Transport t : {zmq, hub, amqp})
            zel::engine_maker(t) = built_in[int(t)];
        pump_all();
    }
    static int connect(CZelEngine &e, const std::string &type)
    {
        return e.create_connection(7001, "10.0.0.5", type, "a4", "a5", "a6", "a7", 8, "a9", "a10", "a11", nullptr);
    }
};

TEST_F(Facade, TheTypeChoosesTheEngineAndItsDescription)
{
    for (const auto &[type, transport, description] : std::vector<std::tuple<std::string, Transport, std::string>>{
             {"hub", hub, "10.0.0.5@7001"},
             {"", hub, "10.0.0.5@7001"},
             {"ZMQ_SUB", zmq, "10.0.0.5@7001@ZMQ_SUB@a7@a6"},
             {"ZMQ_PUB", zmq, "10.0.0.5@7001@ZMQ_PUB@a7@a6"},
             {"zmq_sub", amqp, "a6@a7@a5@10.0.0.5@7001@zmq_sub@a4"},
             {"amqps", amqp, "a6@a7@a5@10.0.0.5@7001@amqps@a4"}}) {
        CZelEngine e;
        ASSERT_EQ(connect(e, type), 1) << type;
        EXPECT_EQ(std::make_pair(made_for, made->description), std::make_pair(transport, description)) << type;
        // Meters are reset (with no error slot) before the connection starts.
        EXPECT_EQ(made->calls, (std::vector<std::string>{"resetMeters(null)", "create_connection"}));
    }
}

// How create ends after a failed first attempt is the Worker case's.
TEST_F(Facade, CreateReturnsAfterTheFirstAttemptOnlyOnceOnlyALaterListenerHearsAndDestroyingWaitsForTheWorker)
{
    Listener early, late;
    auto owned = std::make_unique<CZelEngine>();
    CZelEngine &e = *owned;
    int status = 99, err = 0;
    e.setConnectionListener(&early, &err); // no connection yet: lost, and the status left alone
    e.getConnectionStatus(&status, &err);
    EXPECT_EQ(status, 99);
    ASSERT_EQ(connect(e, "hub"), 1);
    RecordingEngine *first = made;
    e.setConnectionListener(&late, &err);
    e.getConnectionStatus(&status, &err); // the worker connected before create returned
    EXPECT_EQ(status, ZEL_STATUS_CONNECTED);
    EXPECT_EQ(connect(e, "hub"), 0);
    EXPECT_TRUE(made == first && first->worker.serves == 1);
    CIntRxWnd *window = first->window();
    EXPECT_TRUE(window->engine() == first && window->owner() == &e && window->instance_text() == "a7");
    zel_pump_messages(0);
    EXPECT_TRUE(early.seen.empty());
    EXPECT_EQ(late.seen, std::vector<int>{ZEL_STATUS_CONNECTED});

    // Destroying stops the worker and waits for its thread.
    const int ended = ScriptedWorker::serves_ended; // the worker stays until a stop
    owned.reset();
    EXPECT_EQ(ScriptedWorker::serves_ended, ended + 1);
}

// Every call that needs a transport, with the detail slot given.
std::vector<int> call_everything(CZelEngine &e, int *err)
{
    int tag = 5;
    void *handle = nullptr;
    sPChar name{const_cast<char *>("svc"), 3};
    sZelMeters meters{};
    return {e.addRqDontStore(&handle, nullptr, nullptr, nullptr, err),
            e.addWatch(&handle, &tag, &name, 1, nullptr, nullptr, false, 0, false, false, err),
            e.removeWatch(handle, err),
            e.removeWatchesByContext(&tag),
            e.removeWatchesByReceiver(nullptr),
            e.removeAllWatches(err),
            e.sendMsg(nullptr, err),
            e.registerSrvc(&name, nullptr, 0, err),
            e.RegisterSrvc("svc", nullptr, err),
            e.enableHeartbeat(nullptr, 50000, err),
            e.getMeters(&meters, err),
            e.resetMeters(err),
            e.RemoveWatch(&tag, &name, 1),
            e.closeChannel(err),
            e.enable_log(nullptr, "/dev/null"),
            e.disable_log(nullptr, "")};
}

TEST_F(Facade, CallsWithoutAConnectionOrWithBadArgumentsAnswerZeroAndReachNoTransport)
{
    zel::engine_maker(amqp) = nullptr; // a transport this build lacks
    CZelEngine never, e;
    int err = 0, tag = 5;
    ASSERT_EQ(connect(e, "amqps"), 0);
    for (CZelEngine *unconnected : {&never, &e}) {
        EXPECT_RESULT(call_everything(*unconnected, &err), std::vector<int>(16, 0), ZEL_DETAIL_NO_CONNECTION);
        EXPECT_EQ(call_everything(*unconnected, nullptr), std::vector<int>(16, 0));
        unconnected->getConnectionStatus(nullptr, nullptr);
    }
    ASSERT_EQ(connect(e, "hub"), 1); // nothing was half made
    made->calls.clear();
    sPChar value{const_cast<char *>("v"), 1};
    EXPECT_RESULT(e.addWatch(nullptr, &tag, &value, 1, nullptr, nullptr, false, 0, false, false, &err), 0,
                  ZEL_DETAIL_NULL_ARGUMENT);
    EXPECT_EQ(e.addRqDontStore(nullptr, &value, nullptr, nullptr, nullptr), 0);
    EXPECT_RESULT(e.getMeters(nullptr, &err), 0, ZEL_DETAIL_NULL_ARGUMENT);
    for (long interval : {0L, -1L})
        EXPECT_RESULT(e.enableHeartbeat(nullptr, interval, &err), 0, ZEL_DETAIL_BAD_INTERVAL);
    EXPECT_TRUE(made->calls.empty());
    EXPECT_EQ(e.enableHeartbeat(nullptr, 1, nullptr), 1); // 1 ms is allowed
    EXPECT_EQ(made->calls, std::vector<std::string>{"enableHeartbeat"});
}

// A worker driven by hand, without a facade, through its whole life: a first
// attempt that fails and arms recovery, the recovery that connects, and the
// stop after which its reports no longer change the status.
TEST(Worker, ARecoveryTimerKeepsItAliveUntilItConnectsAndOnceStoppedItsReportsChangeNothing)
{
    CIntRxWnd window;
    auto engine = std::make_unique<RecordingEngine>();
    window.set_engine(engine.get());
    engine->set_window(&window);
    ScriptedWorker &worker = engine->worker;
    worker.script = [](ScriptedWorker &w) {
        // The first serve returns without ending the first attempt: the worker ends it as failed.
        if (w.serves == 1) {
            w.onError(0, "ignored"); // no code: no recovery, no report
            w.onError(111, "connection not open");
            w.loop().set_timer(1000, 1);
            return;
        }
        w.reportStatus(100, "connection success : 0");
        w.end_first_attempt(CVartoWorker::connected_once); // too late: the first attempt is over
        w.wait_for_stop();
        w.reportStatus(0, "connection not open");
    };
    worker.on_timer = [&worker](unsigned id) {
        EXPECT_EQ(id, 1000u);
        worker.serve();
    };
    ASSERT_TRUE(engine->create_connection("", 0, "", "", "", &window.monitor()));
    EXPECT_EQ(worker.connection_state(), CVartoWorker::first_attempt_failed);
    while (window.status() != ZEL_STATUS_CONNECTED)
        zel_pump_messages(-1);
    EXPECT_EQ(worker.recovers, 1);
    EXPECT_EQ(worker.serves, 2);
    EXPECT_FALSE(engine->stop_requested()); // serve's first return left no stale count behind

    engine.reset(); // stops the worker, which then reports the connection gone
    EXPECT_EQ(window.status(), ZEL_STATUS_CONNECTED);
    pump_all();
}

TEST(FacadeFunctions, AllDigitsTakesTheEmptyTextAndReadsBytesAsSigned)
{
    EXPECT_EQ(m_all_digits(nullptr), 0);
    for (auto [text, digits] : std::vector<std::pair<std::string, int>>{
             {"", 1}, {"0123", 1}, {"12a", 0}, {"a12", 0}, {"1 2", 0}, {"9\xb9", 0}, {"/", 0}, {":", 0}}) {
        sPChar p{text.data(), int32_t(text.size())};
        EXPECT_EQ(m_all_digits(&p), digits) << text;
    }
}

TEST(WorkerLoop, DueTimersFireEarliestFirstKilledOnesNeverAndAHandlerMayRearmItsOwn)
{
    zel::WorkerLoop loop;
    for (auto [id, delay_ms] : std::initializer_list<std::pair<unsigned, unsigned>>{{3, 100}, {1, 10}, {2, 20}, {4, 0}})
        loop.set_timer(id, delay_ms);
    EXPECT_TRUE(loop.kill_timer(4));
    EXPECT_FALSE(loop.kill_timer(4));
    loop.set_timer(5, 60000);
    loop.set_timer(5, 50); // re-armed: the new deadline counts
    std::vector<unsigned> fired;
    loop.run([&](unsigned id) {
        fired.push_back(id);
        if (fired.size() == 6)
            loop.post_quit();
        else if (id == 3) // the reconnect pattern: each firing arms the next attempt
            loop.set_timer(3, 1);
    });
    EXPECT_EQ(fired, (std::vector<unsigned>{1, 2, 5, 3, 3, 3}));
}

TEST(WorkerLoop, AQuitFromAnotherThreadEndsAnIdleOrWaitingLoop)
{
    for (bool with_far_timer : {false, true}) {
        zel::WorkerLoop loop;
        if (with_far_timer)
            loop.set_timer(1, 600000);
        bool fired = false;
        std::thread worker([&] { loop.run([&](unsigned) { fired = true; }); });
        loop.post_quit();
        worker.join();
        EXPECT_FALSE(fired);
        EXPECT_TRUE(loop.quit_requested());
    }
}

} // namespace
