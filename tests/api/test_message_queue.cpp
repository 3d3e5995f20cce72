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

// Wparams that make a Recorder throw, destroy itself, or post 1 to itself, once recorded.
constexpr uintptr_t throw_now = ~uintptr_t(0), destroy_self = ~uintptr_t(0) - 1, post_one = ~uintptr_t(0) - 2;

struct Recorder : zel::MessageTarget {
    std::vector<uintptr_t> seen;
    std::thread::id creating_thread = std::this_thread::get_id();
    void handle(uint32_t, uintptr_t wparam, intptr_t lparam) override
    {
        EXPECT_EQ(std::this_thread::get_id(), creating_thread);
        seen.push_back(wparam);
        if (wparam == post_one)
            queue()->post(target_id(), 1, 1, 0);
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
    std::thread worker([&] {
        Recorder there;
        post(there, 7);
        for (int i = 0; i < count; ++i)
            post(target, uintptr_t(i));
        EXPECT_EQ(zel_pump_messages(0), 1);
        EXPECT_EQ(there.seen, std::vector<uintptr_t>{7});
    });
    while (target.seen.size() < size_t(count))
        zel_pump_messages(-1);
    worker.join();
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(target.seen[size_t(i)], uintptr_t(i));
    EXPECT_EQ(zel_pump_messages(0), 0);
}

// A handler's own posts wait for the next pump, so that one pump cannot loop for ever.
TEST(MessageQueue, DescriptorIsReadableExactlyWhileMessagesWaitAHandlersOwnPostsForTheNextPump)
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
    std::thread([&] { post(target, post_one); }).join();
    ASSERT_TRUE(readable(fd)); // else the wait below would never end
    EXPECT_EQ(zel_pump_messages(-1), 1);
    ASSERT_TRUE(readable(fd)); // the handler's post
    EXPECT_EQ(zel_pump_messages(0), 1);
    EXPECT_FALSE(readable(fd));
    EXPECT_EQ(target.seen, (std::vector<uintptr_t>{1, 2, post_one, 1}));
}

// A gone target's messages are disposed; so are those after one that destroys
// itself while handling. A handler that throws raises an alert, and the next
// message still arrives.
TEST(MessageQueue, MessagesForAGoneTargetAreDisposedAndAThrowingHandlerRaisesAnAlert)
{
    static std::vector<std::string> alerts;
    alerts.clear(); // from an earlier run, when repeated
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
