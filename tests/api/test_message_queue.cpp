// The per-thread queue: delivery only on the owning thread and in order, the
// descriptor's trigger rule, disposal for targets that are gone, and handlers
// that throw.
#include <gtest/gtest.h>
#include <poll.h>
#include <zel/engine.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "api/message_queue.h"

namespace {

// Wparams that make a Recorder throw, or destroy itself, once recorded.
constexpr uintptr_t throw_now = ~uintptr_t(0), destroy_self = ~uintptr_t(0) - 1;

struct Recorder : zel::MessageTarget {
    std::vector<uintptr_t> seen;
    std::vector<std::thread::id> threads;
    void handle(uint32_t, uintptr_t wparam, intptr_t lparam) override
    {
        seen.push_back(wparam);
        threads.push_back(std::this_thread::get_id());
        if (wparam == throw_now)
            throw std::runtime_error("receiver failed");
        if (wparam == destroy_self) {
            delete reinterpret_cast<std::string *>(lparam);
            delete this;
        }
    }
};

int disposed = 0;
void count_disposal(intptr_t lparam)
{
    ++disposed;
    delete reinterpret_cast<std::string *>(lparam);
}

bool readable(int fd)
{
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1;
}

void post(const zel::MessageTarget &t, uintptr_t wparam, intptr_t lparam = 0, zel::Dispose dispose = nullptr)
{
    t.queue()->post(t.target_id(), 1, wparam, lparam, dispose);
}

TEST(MessageQueue, WorkerPostsAreHandledInOrderOnTheCreatingThreadAndEachThreadPumpsOnlyItsOwn)
{
    Recorder target;
    const int count = 2000;
    std::vector<uintptr_t> seen_there;
    std::thread worker([&] {
        Recorder there;
        post(there, 7);
        for (int i = 0; i < count; ++i)
            post(target, uintptr_t(i));
        EXPECT_EQ(zel_pump_messages(0), 1);
        seen_there = there.seen;
    });
    while (target.seen.size() < size_t(count))
        zel_pump_messages(-1);
    worker.join();
    EXPECT_EQ(seen_there, std::vector<uintptr_t>{7});
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(target.seen[size_t(i)], uintptr_t(i));
    EXPECT_EQ(target.threads, std::vector<std::thread::id>(count, std::this_thread::get_id()));
    EXPECT_EQ(zel_pump_messages(0), 0);
}

TEST(MessageQueue, DescriptorIsReadableExactlyWhileMessagesWait)
{
    Recorder target;
    int fd = zel_message_fd();
    EXPECT_EQ(fd, zel_message_fd());
    EXPECT_FALSE(readable(fd));
    post(target, 1);
    ASSERT_TRUE(readable(fd));
    post(target, 2);
    EXPECT_TRUE(readable(fd)); // level-triggered: still readable until pumped
    EXPECT_EQ(zel_pump_messages(0), 2);
    EXPECT_FALSE(readable(fd));
    std::thread([&] { post(target, 3); }).join();
    ASSERT_TRUE(readable(fd)); // else the wait below would never end
    EXPECT_EQ(zel_pump_messages(-1), 1);
    EXPECT_FALSE(readable(fd));
}

// A handler's own posts wait for the next pump, so one pump cannot loop for ever.
TEST(MessageQueue, MessagesPostedWhileHandlingWaitForTheNextPump)
{
    struct Reposter : Recorder {
        void handle(uint32_t m, uintptr_t w, intptr_t l) override
        {
            Recorder::handle(m, w, l);
            if (w == 0)
                queue()->post(target_id(), m, w + 1, l);
        }
    } target;
    post(target, 0);
    EXPECT_EQ(zel_pump_messages(0), 1);
    EXPECT_EQ(zel_pump_messages(0), 1);
    EXPECT_EQ(target.seen, (std::vector<uintptr_t>{0, 1}));
}

// A gone target's messages are disposed; so are those after one that destroys
// itself while handling. A handler that throws raises an alert, and the next
// message still arrives.
TEST(MessageQueue, MessagesForAGoneTargetAreDisposedAndAThrowingHandlerRaisesAnAlert)
{
    static std::vector<std::string> alerts;
    zel_set_alert_handler([](const char *text) { alerts.emplace_back(text); });
    disposed = 0;
    auto *doomed = new Recorder;
    post(*doomed, 1, intptr_t(new std::string("batch")), count_disposal);
    delete doomed;
    auto *self = new Recorder;
    for (int i = 0; i < 3; ++i)
        post(*self, destroy_self, intptr_t(new std::string("b")), count_disposal);
    Recorder thrower;
    post(thrower, throw_now);
    post(thrower, 2);
    EXPECT_EQ(zel_pump_messages(0), 6);
    zel_set_alert_handler(nullptr);
    EXPECT_EQ(disposed, 3);
    EXPECT_EQ(thrower.seen, (std::vector<uintptr_t>{throw_now, 2}));
    EXPECT_EQ(alerts.size(), 1u);
}

} // namespace
