// The per-thread queue: delivery only on the owning thread and in order, the
// descriptor's trigger rule, disposal for targets that are gone, and handlers
// that throw.
#include <gtest/gtest.h>
#include <poll.h>
#include <zel/engine.h>

#include <string>
#include <thread>
#include <vector>

#include "api/message_queue.h"

namespace {

using zel::ThreadQueue;

struct Recorder : zel::MessageTarget {
    std::vector<uintptr_t> seen;
    std::vector<std::thread::id> threads;
    void handle(uint32_t, uintptr_t wparam, intptr_t) override
    {
        seen.push_back(wparam);
        threads.push_back(std::this_thread::get_id());
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

TEST(MessageQueue, WorkerPostsAreHandledOnTheCreatingThreadInOrder)
{
    Recorder target;
    const int count = 2000;
    std::thread worker([&] {
        for (int i = 0; i < count; ++i)
            post(target, uintptr_t(i));
    });
    int handled = 0;
    while (handled < count)
        handled += zel_pump_messages(-1);
    worker.join();
    ASSERT_EQ(target.seen.size(), size_t(count));
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(target.seen[size_t(i)], uintptr_t(i));
    for (std::thread::id id : target.threads)
        EXPECT_EQ(id, std::this_thread::get_id());
}

TEST(MessageQueue, DescriptorIsReadableExactlyWhileMessagesWait)
{
    Recorder target;
    int fd = zel_message_fd();
    EXPECT_EQ(fd, zel_message_fd());
    EXPECT_FALSE(readable(fd));
    EXPECT_EQ(zel_pump_messages(0), 0);
    post(target, 1);
    post(target, 2);
    EXPECT_TRUE(readable(fd));
    EXPECT_TRUE(readable(fd)); // level-triggered: still readable until pumped
    EXPECT_EQ(zel_pump_messages(0), 2);
    EXPECT_FALSE(readable(fd));
    std::thread([&] { post(target, 3); }).join();
    EXPECT_TRUE(readable(fd));
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
            if (w < 3)
                queue()->post(target_id(), m, w + 1, l);
        }
    } target;
    post(target, 0);
    EXPECT_EQ(zel_pump_messages(0), 1);
    EXPECT_EQ(zel_pump_messages(0), 1);
    EXPECT_EQ(target.seen, (std::vector<uintptr_t>{0, 1}));
    while (zel_pump_messages(0) > 0) {
    }
    EXPECT_EQ(target.seen.size(), 4u);
}

TEST(MessageQueue, MessagesForAGoneTargetAreDisposedNotDelivered)
{
    disposed = 0;
    auto *doomed = new Recorder;
    post(*doomed, 1, intptr_t(new std::string("batch")), count_disposal);
    delete doomed;
    EXPECT_EQ(zel_pump_messages(0), 1);
    EXPECT_EQ(disposed, 1);

    // A target that destroys itself while handling: the rest of its messages
    // in the same pump are disposed.
    struct SelfDestroying : zel::MessageTarget {
        int *calls;
        void handle(uint32_t, uintptr_t, intptr_t lparam) override
        {
            ++*calls;
            delete reinterpret_cast<std::string *>(lparam);
            delete this;
        }
    };
    int calls = 0;
    auto *self = new SelfDestroying;
    self->calls = &calls;
    uint64_t id = self->target_id();
    for (int i = 0; i < 3; ++i)
        ThreadQueue::current()->post(id, 1, 0, intptr_t(new std::string("b")), count_disposal);
    EXPECT_EQ(zel_pump_messages(0), 3);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(disposed, 3);
}

TEST(MessageQueue, EachThreadPumpsOnlyItsOwnTargets)
{
    std::vector<uintptr_t> seen_there;
    std::thread other([&] {
        Recorder there;
        post(there, 7);
        EXPECT_EQ(zel_pump_messages(0), 1);
        seen_there = there.seen;
    });
    other.join();
    EXPECT_EQ(seen_there, std::vector<uintptr_t>{7});
    EXPECT_EQ(zel_pump_messages(0), 0);
}

std::vector<std::string> alerts;
void collect_alert(const char *text)
{
    alerts.emplace_back(text);
}

TEST(MessageQueue, AThrowingHandlerRaisesAnAlertAndTheNextMessageStillArrives)
{
    struct Thrower : Recorder {
        void handle(uint32_t m, uintptr_t w, intptr_t l) override
        {
            if (w == 1)
                throw std::runtime_error("receiver failed");
            Recorder::handle(m, w, l);
        }
    } target;
    alerts.clear();
    zel_set_alert_handler(collect_alert);
    post(target, 1);
    post(target, 2);
    EXPECT_EQ(zel_pump_messages(0), 2);
    zel_set_alert_handler(nullptr);
    EXPECT_EQ(target.seen, std::vector<uintptr_t>{2});
    EXPECT_EQ(alerts.size(), 1u);
}

TEST(MessageQueue, RegisteredNamesMapToStableProcessWideIds)
{
    uint32_t on_msg = zel::register_message("VARTO{807E08DE-96F8-4ef2-B188-77F24DAF8032}_ON_MSG");
    uint32_t on_status = zel::register_message("VARTO{1E068D4C-39C6-4F00-B30A-79C98C918608}_ON_STATUS");
    EXPECT_NE(on_msg, on_status);
    uint32_t again = 0;
    std::thread([&] { again = zel::register_message("VARTO{807E08DE-96F8-4ef2-B188-77F24DAF8032}_ON_MSG"); }).join();
    EXPECT_EQ(again, on_msg);
}

} // namespace
