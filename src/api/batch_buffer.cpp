// Batch buffers and the back-pressure that bounds how many are alive.
#include "api/batch_buffer.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "api/alert.h"

namespace zel {

std::atomic<int32_t> BatchBuffer::live_{0};

namespace {

constexpr int32_t start_waiting_at = 3001;
constexpr int32_t stop_waiting_below = 1000;

// Workers waiting for room sleep here until a freed buffer wakes them. The
// count of waiters lets the application thread skip the lock on every other
// free: a worker raises it before it reads the live count, and a free lowers
// the live count before it reads the waiters, so one of the two always sees
// the other.
std::mutex room_lock;
std::condition_variable room_made;
std::atomic<int32_t> waiting_workers{0};
// Room added beyond what an append needs, so that a run of appends to one
// batch does not reallocate each time.
constexpr int32_t growth_headroom = 1024;

} // namespace

BatchBuffer::BatchBuffer()
{
    live_.fetch_add(1, std::memory_order_relaxed);
}

BatchBuffer::~BatchBuffer()
{
    int ignored;
    if (data_)
        zel_close_scratch(&data_, &ignored);
    if (live_.fetch_sub(1) - 1 < stop_waiting_below && waiting_workers.load() > 0) {
        std::lock_guard<std::mutex> hold(room_lock);
        room_made.notify_all();
    }
}

bool BatchBuffer::reserve(int32_t bytes)
{
    int err = 0;
    bool ok = data_ ? (bytes <= data_->alloc || pset_buffer_size(data_, bytes, &err))
                    : zel_open_scratch(&data_, bytes > 0 ? bytes : 1, &err);
    if (!ok)
        alert("Add to scratchCb is failed");
    return ok;
}

bool BatchBuffer::append(const char *bytes, int32_t len, int32_t messages)
{
    int err = 0;
    bool ok = data_ ? (int64_t(data_->len) + len <= data_->alloc ||
                       pset_buffer_size(data_, data_->len + len + growth_headroom, &err))
                    : zel_open_scratch(&data_, len > 0 ? len : 1, &err);
    if (!ok) {
        alert("Add to scratchCb is failed");
        return false;
    }
    if (len > 0)
        std::copy(bytes, bytes + len, data_->data + data_->len);
    data_->len += len;
    messages_ += messages;
    return true;
}

void BatchBuffer::take()
{
    int32_t free = 0;
    while (!lock_.compare_exchange_weak(free, 1, std::memory_order_acquire)) {
        free = 0;
        std::this_thread::yield();
    }
}

void BatchBuffer::release()
{
    lock_.exchange(0, std::memory_order_release);
}

bool wait_for_batch_room(std::chrono::milliseconds longest)
{
    if (BatchBuffer::live() < start_waiting_at)
        return true;
    auto give_up_at = std::chrono::steady_clock::now() + longest;
    std::unique_lock<std::mutex> hold(room_lock);
    waiting_workers.fetch_add(1);
    bool room = true;
    while (room && BatchBuffer::live() >= stop_waiting_below)
        room = room_made.wait_until(hold, give_up_at) == std::cv_status::no_timeout;
    waiting_workers.fetch_sub(1);
    return room;
}

int32_t workers_waiting_for_room()
{
    return waiting_workers.load();
}

} // namespace zel
