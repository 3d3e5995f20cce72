// The worker loop: one-shot timers fire earliest first, killed timers never
// fire, a handler may re-arm, and a quit from another thread ends the loop.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "api/worker_loop.h"

namespace {

TEST(WorkerLoop, FiresDueTimersEarliestFirstAndEachOnce)
{
    zel::WorkerLoop loop;
    loop.set_timer(3, 30);
    loop.set_timer(1, 10);
    loop.set_timer(2, 20);
    std::vector<unsigned> fired;
    loop.run([&](unsigned id) {
        fired.push_back(id);
        if (fired.size() == 3)
            loop.post_quit();
    });
    EXPECT_EQ(fired, (std::vector<unsigned>{1, 2, 3}));
}

TEST(WorkerLoop, KilledTimersNeverFireAndRearmingMovesTheDeadline)
{
    zel::WorkerLoop loop;
    loop.set_timer(1, 0);
    EXPECT_TRUE(loop.kill_timer(1));
    EXPECT_FALSE(loop.kill_timer(1));
    loop.set_timer(2, 60000);
    loop.set_timer(2, 0); // re-armed: now due
    std::vector<unsigned> fired;
    loop.run([&](unsigned id) {
        fired.push_back(id);
        loop.post_quit();
    });
    EXPECT_EQ(fired, std::vector<unsigned>{2});
}

// The reconnect pattern: each firing arms the next attempt.
TEST(WorkerLoop, AHandlerMayRearmItsOwnTimer)
{
    zel::WorkerLoop loop;
    int attempts = 0;
    loop.set_timer(7, 1);
    loop.run([&](unsigned id) {
        if (++attempts < 3)
            loop.set_timer(id, 1);
        else
            loop.post_quit();
    });
    EXPECT_EQ(attempts, 3);
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
