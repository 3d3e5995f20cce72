// The worker loop: one-shot timers fire earliest first, killed timers never
// fire, a handler may re-arm, and a quit from another thread ends the loop.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "api/worker_loop.h"

namespace {

TEST(WorkerLoop, DueTimersFireEarliestFirstKilledOnesNeverAndAHandlerMayRearmItsOwn)
{
    zel::WorkerLoop loop;
    loop.set_timer(3, 100);
    loop.set_timer(1, 10);
    loop.set_timer(2, 20);
    loop.set_timer(4, 0);
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
