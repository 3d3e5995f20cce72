// Batch buffers: the unit a worker hands to the application thread. A buffer
// holds the raw bytes of one or more whole messages; the window that receives
// it deletes it. A process-wide count of live buffers is the only flow
// control between workers and the application thread.
#pragma once

#include <zel/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>

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

    static int32_t live() { return live_.load(); }

private:
    std::atomic<int32_t> lock_{0};
    scratchcb *data_ = nullptr;
    int32_t messages_ = 0;
    static std::atomic<int32_t> live_;
};

// Back-pressure before a worker makes another buffer: from 3001 live buffers
// on, it waits until fewer than 1000 remain, woken by the buffer whose end
// brings the count below, but never longer than `longest`; then it goes on
// whatever the count. False when it gave up waiting. @locality worker threads
bool wait_for_batch_room(std::chrono::milliseconds longest = std::chrono::milliseconds(500));
// How many workers wait for batch room now.
int32_t workers_waiting_for_room();

} // namespace zel
