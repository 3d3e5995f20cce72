// Batch buffers: the unit a worker hands to the application thread. A buffer
// holds the raw bytes of one or more whole messages; the window that receives
// it deletes it. A process-wide count of live buffers is the only flow
// control between workers and the application thread.
#pragma once

#include <zel/types.h>

#include <atomic>
#include <cstdint>
#include <functional>

namespace zel {

class BatchBuffer {
public:
    BatchBuffer();
    ~BatchBuffer();
    BatchBuffer(const BatchBuffer &) = delete;
    BatchBuffer &operator=(const BatchBuffer &) = delete;

    // Makes room for `bytes` in all, so that the appends that follow do not
    // reallocate; false (with the alert) when it cannot.
    // @locality the posting worker, before the buffer is posted
    bool reserve(int32_t bytes);
    // Appends the bytes of `messages` whole messages; false (with the alert
    // "Add to scratchCb is failed") when the buffer cannot grow.
    // @locality the posting worker, before the buffer is posted
    bool append(const char *bytes, int32_t len, int32_t messages = 1);

    // Taken by the window while it dispatches; spins until free.
    void take();
    void release();

    const char *bytes() const { return data_ ? data_->data : nullptr; }
    int32_t length() const { return data_ ? data_->len : 0; }
    int32_t messages() const { return messages_; }

    static int32_t live() { return live_.load(std::memory_order_relaxed); }

private:
    std::atomic<int32_t> lock_{0};
    scratchcb *data_ = nullptr;
    int32_t messages_ = 0;
    static std::atomic<int32_t> live_;
};

// Back-pressure before a worker makes another buffer: from 3001 live buffers
// on, it pauses (5 ms each) until fewer than 1000 remain, at most 100 times,
// and then goes on whatever the count. `pause` is the wait, replaceable in
// tests. Answers how many pauses were made. @locality worker threads
int wait_for_batch_room(const std::function<void()> &pause = {});

} // namespace zel
