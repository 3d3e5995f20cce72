// Batch buffers and the back-pressure that bounds how many are alive.
#include "api/batch_buffer.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "api/alert.h"

namespace zel {

std::atomic<int32_t> BatchBuffer::live_{0};

namespace {

constexpr int32_t start_waiting_at = 3001;
constexpr int32_t stop_waiting_below = 1000;
constexpr int max_pauses = 100;
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
    live_.fetch_sub(1, std::memory_order_relaxed);
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

int wait_for_batch_room(const std::function<void()> &pause)
{
    if (BatchBuffer::live() < start_waiting_at)
        return 0;
    int pauses = 0;
    while (pauses < max_pauses) {
        bool below = BatchBuffer::live() < stop_waiting_below;
        if (pause)
            pause();
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ++pauses;
        if (below)
            break;
    }
    return pauses;
}

} // namespace zel
