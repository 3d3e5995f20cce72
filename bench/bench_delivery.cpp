// Delivery from a worker thread to the application thread through the
// per-thread queue: how many messages per second it sustains, and how long a
// single message takes to reach an application thread that is asleep in
// zel_pump_messages(-1). Each figure is printed beside the same work done by
// a plain mutex + condition variable + deque queue in the same run, and as a
// ratio to it.
//
// Every message carries a 100-byte buffer that the worker allocates and the
// handler frees, because that is how batches travel to the application: the
// allocator's cross-thread free is part of the real cost, and both queues
// pay it.
//
// Usage: bench_delivery [messages] [hand-offs] [settle_us]
#include <zel/engine.h>

#include "api/message_queue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t buffer_bytes = 100;
constexpr double target_per_second = 1'000'000;
constexpr double target_median_us = 20;

struct Settings {
    uint64_t messages = 1'000'000;
    uint64_t handoffs = 100'000;
    // How long the worker leaves the queue idle after an acknowledgement
    // before posting again, so that each message meets an application thread
    // that is already asleep in its wait rather than one still on its way
    // back from handling the previous message.
    int settle_us = 20;
};

void cpu_relax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#else
    std::this_thread::yield();
#endif
}

int64_t now_ns()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// @locality worker thread. Spins rather than sleeps: the worker has to see the
// acknowledgement within a small fraction of the latency being measured. The
// occasional yield keeps it from starving the application thread if both end
// up on one core.
void wait_until(const std::atomic<uint64_t> &value, uint64_t at_least)
{
    unsigned spins = 0;
    while (value.load(std::memory_order_acquire) < at_least) {
        cpu_relax();
        if (++spins % 1024 == 0)
            std::this_thread::yield();
    }
}

char *make_buffer(uint64_t seq)
{
    char *buffer = new char[buffer_bytes];
    std::memset(buffer, int(seq & 0x7f), buffer_bytes);
    std::memcpy(buffer, &seq, sizeof seq);
    return buffer;
}

// Reaches a message's buffer when its target is gone; never expected here.
void dispose_buffer(intptr_t lparam)
{
    delete[] reinterpret_cast<char *>(lparam);
}

// What the application thread does with each message, identical for both
// queues: check that it is the next one in posting order and that its buffer
// is intact (reading it, as a real handler reads its batch), free the buffer,
// and, when timing, record how long ago it was posted.
// @locality application thread, except `acknowledged`, which the worker reads
struct Receiver {
    uint64_t handled = 0;
    uint64_t faults = 0;
    bool timing = false;
    std::vector<int64_t> latencies_ns;
    std::atomic<uint64_t> acknowledged{0};

    void reset(bool timed, uint64_t expected)
    {
        handled = 0;
        timing = timed;
        latencies_ns.clear();
        if (timed)
            latencies_ns.reserve(expected);
        acknowledged.store(0, std::memory_order_relaxed);
    }

    void receive(uintptr_t wparam, intptr_t lparam)
    {
        // Stamped first so that checking and freeing the buffer is not counted
        // as hand-off time.
        int64_t arrived = timing ? now_ns() : 0;
        char *buffer = reinterpret_cast<char *>(lparam);
        uint64_t seq;
        std::memcpy(&seq, buffer, sizeof seq);
        if (seq != handled || buffer[buffer_bytes - 1] != char(seq & 0x7f))
            ++faults;
        delete[] buffer;
        ++handled;
        if (timing) {
            latencies_ns.push_back(arrived - int64_t(wparam));
            acknowledged.store(handled, std::memory_order_release);
        }
    }
};

class Sink final : public zel::MessageTarget {
public:
    Sink(Receiver &receiver, uint32_t message) : receiver_(receiver), message_(message) {}

    // @locality application thread, inside zel_pump_messages
    void handle(uint32_t message, uintptr_t wparam, intptr_t lparam) override
    {
        if (message != message_)
            ++receiver_.faults;
        receiver_.receive(wparam, lparam);
    }

private:
    Receiver &receiver_;
    uint32_t message_;
};

// The queue most code would write first. Its pump keeps the same contract as
// zel_pump_messages: wait until something is queued, then handle everything
// queued at that moment; later posts wait for the next call.
class PlainQueue {
public:
    // @locality worker thread; takes lock_
    void post(uintptr_t wparam, intptr_t lparam)
    {
        {
            std::lock_guard<std::mutex> guard(lock_);
            items_.push_back(Item{wparam, lparam});
        }
        ready_.notify_one();
    }

    // @locality application thread; takes lock_
    int pump(Receiver &receiver)
    {
        {
            std::unique_lock<std::mutex> guard(lock_);
            ready_.wait(guard, [this] { return !items_.empty(); });
            batch_.swap(items_);
        }
        for (const Item &item : batch_)
            receiver.receive(item.wparam, item.lparam);
        int handled = int(batch_.size());
        batch_.clear();
        return handled;
    }

private:
    struct Item {
        uintptr_t wparam;
        intptr_t lparam;
    };
    std::mutex lock_;
    std::condition_variable ready_;
    std::deque<Item> items_; // guarded by lock_
    std::deque<Item> batch_; // application thread only
};

struct Throughput {
    double per_second = 0;
    double per_pump = 0;
};

struct Latency {
    double median_us = 0;
    double p99_us = 0;
};

// The worker posts `count` messages as fast as it can while the application
// thread pumps; the clock stops when the last one has been handled.
template <class Post, class Pump>
Throughput measure_throughput(uint64_t count, Receiver &receiver, Post post, Pump pump)
{
    receiver.reset(false, count);
    std::atomic<bool> go{false};
    std::thread worker([&] {
        while (!go.load(std::memory_order_acquire))
            cpu_relax();
        for (uint64_t seq = 0; seq < count; ++seq)
            post(uintptr_t(seq), make_buffer(seq));
    });
    uint64_t pumps = 0;
    Clock::time_point start = Clock::now();
    go.store(true, std::memory_order_release);
    while (receiver.handled < count) {
        pump();
        ++pumps;
    }
    std::chrono::duration<double> elapsed = Clock::now() - start;
    worker.join();
    return Throughput{double(count) / elapsed.count(), double(count) / double(pumps)};
}

// One message at a time into an idle queue: the worker posts only after the
// previous message has been acknowledged and the queue has stayed idle for
// settle_us; the handler records now minus the stamp the worker put in wparam
// just before posting (after making the buffer, so allocation is not counted).
template <class Post, class Pump>
Latency measure_latency(uint64_t count, int settle_us, Receiver &receiver, Post post, Pump pump)
{
    receiver.reset(true, count);
    std::thread worker([&] {
        for (uint64_t seq = 0; seq < count; ++seq) {
            wait_until(receiver.acknowledged, seq);
            Clock::time_point settled = Clock::now() + std::chrono::microseconds(settle_us);
            while (Clock::now() < settled)
                cpu_relax();
            char *buffer = make_buffer(seq);
            post(uintptr_t(now_ns()), buffer);
        }
    });
    while (receiver.handled < count)
        pump();
    worker.join();

    std::vector<int64_t> &ns = receiver.latencies_ns;
    std::sort(ns.begin(), ns.end());
    Latency result;
    if (!ns.empty()) {
        result.median_us = double(ns[ns.size() / 2]) / 1000.0;
        size_t p99 = (ns.size() * 99 + 99) / 100 - 1;
        result.p99_us = double(ns[std::min(p99, ns.size() - 1)]) / 1000.0;
    }
    return result;
}

uint64_t argument(int argc, char **argv, int index, uint64_t fallback)
{
    if (argc <= index)
        return fallback;
    uint64_t value = std::strtoull(argv[index], nullptr, 10);
    return value ? value : fallback;
}

} // namespace

int main(int argc, char **argv)
{
    Settings settings;
    settings.messages = argument(argc, argv, 1, settings.messages);
    settings.handoffs = argument(argc, argv, 2, settings.handoffs);
    settings.settle_us = int(argument(argc, argv, 3, uint64_t(settings.settle_us)));

    uint32_t message = zel::register_message("bench.delivery");
    Receiver receiver;
    Sink sink(receiver, message);
    std::shared_ptr<zel::ThreadQueue> queue = sink.queue();
    uint64_t target = sink.target_id();
    PlainQueue plain;

    auto queue_post = [&](uintptr_t wparam, char *buffer) {
        queue->post(target, message, wparam, reinterpret_cast<intptr_t>(buffer), dispose_buffer);
    };
    auto queue_pump = [] { zel_pump_messages(-1); };
    auto plain_post = [&](uintptr_t wparam, char *buffer) {
        plain.post(wparam, reinterpret_cast<intptr_t>(buffer));
    };
    auto plain_pump = [&] { plain.pump(receiver); };

    // A short pass of each first, so that neither queue's figures include
    // first-touch costs (vector growth, allocator arenas, page faults).
    uint64_t warm = std::min<uint64_t>(settings.messages, 50'000);
    measure_throughput(warm, receiver, queue_post, queue_pump);
    measure_throughput(warm, receiver, plain_post, plain_pump);
    measure_latency(std::min<uint64_t>(settings.handoffs, 1'000), settings.settle_us, receiver, queue_post, queue_pump);
    measure_latency(std::min<uint64_t>(settings.handoffs, 1'000), settings.settle_us, receiver, plain_post, plain_pump);
    receiver.faults = 0;

    Throughput queue_rate = measure_throughput(settings.messages, receiver, queue_post, queue_pump);
    Throughput plain_rate = measure_throughput(settings.messages, receiver, plain_post, plain_pump);
    Latency queue_latency = measure_latency(settings.handoffs, settings.settle_us, receiver, queue_post, queue_pump);
    Latency plain_latency = measure_latency(settings.handoffs, settings.settle_us, receiver, plain_post, plain_pump);

    std::printf("worker thread -> application thread, %zu-byte heap buffer per message\n", buffer_bytes);
    std::printf("throughput: %llu messages; idle hand-off: %llu messages, %d us idle before each\n\n",
                (unsigned long long)settings.messages, (unsigned long long)settings.handoffs, settings.settle_us);
    std::printf("%-28s %14s %14s %9s %14s\n", "", "thread queue", "mutex+condvar", "ratio", "target");
    std::printf("%-28s %14.0f %14.0f %9.2f %11s%.0f %s\n", "throughput (messages/s)", queue_rate.per_second,
                plain_rate.per_second, queue_rate.per_second / plain_rate.per_second, ">= ", target_per_second,
                queue_rate.per_second >= target_per_second ? "met" : "MISSED");
    std::printf("%-28s %14.1f %14.1f %9s %14s\n", "  messages per pump (mean)", queue_rate.per_pump,
                plain_rate.per_pump, "", "");
    std::printf("%-28s %14.2f %14.2f %9.2f %11s%.0f %s\n", "idle hand-off median (us)", queue_latency.median_us,
                plain_latency.median_us, queue_latency.median_us / plain_latency.median_us, "< ", target_median_us,
                queue_latency.median_us < target_median_us ? "met" : "MISSED");
    std::printf("%-28s %14.2f %14.2f %9.2f %14s\n", "idle hand-off p99 (us)", queue_latency.p99_us,
                plain_latency.p99_us, queue_latency.p99_us / plain_latency.p99_us, "");
    std::printf("\nratio = thread queue / mutex+condvar (above 1 is faster for throughput, slower for latency)\n");

    if (receiver.faults != 0) {
        std::printf("FAULT: %llu messages arrived out of order, damaged or under the wrong id\n",
                    (unsigned long long)receiver.faults);
        return 1;
    }
    return 0;
}
