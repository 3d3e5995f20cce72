// What an AMQP engine hands its worker: bind and unbind requests and
// messages to publish, each a CPublishMessage in a queue of its kind. The
// worker takes binds and publishes between deliveries; unbind requests are
// queued and never taken, so a removed watch stays bound at the broker for
// the life of the connection's queue (an application filters in dispatch).
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>

#include "api/engine_interface.h"
#include "platform/wake_event.h"

struct CPublishMessage {
    enum Kind { bind = 1, unbind = 2, publish = 3 };

    int kind;
    std::string exchange;
    std::string key;  // the binding key of a request, the routing key of a publish
    std::string body; // the message of a publish
};

class CAmqpSender : public CVartoSender {
public:
    // ---- Any thread ----------------------------------------------------------
    void queue_request(CPublishMessage request);
    // False, with nothing queued, when the bytes not yet published would
    // then pass the send-queue bound.
    bool queue_publish(CPublishMessage message);
    // Whether no bind and no message waits for the worker.
    bool nothing_queued();
    // A message the application thread publishes itself, counted as if it
    // had been queued and taken.
    void count_published_now(size_t bytes)
    {
        queued_bytes_.fetch_add(bytes, std::memory_order_relaxed);
        unpublished_.fetch_add(bytes, std::memory_order_relaxed);
    }
    // Bytes handed over for publishing since the last reset.
    uint64_t queued_bytes() const { return queued_bytes_.load(std::memory_order_relaxed); }
    void reset_queued_bytes() { queued_bytes_.store(0, std::memory_order_relaxed); }

    void wake() { wake_.raise(); }

    // ---- Worker thread -------------------------------------------------------
    // Moves every bind request and every message queued so far into the
    // two queues, which the worker has emptied before. Both are taken at
    // once: a watch placed before a message is bound before the message
    // leaves, however the worker's turns fall.
    void take_queued(std::deque<CPublishMessage> &binds, std::deque<CPublishMessage> &publishes);
    // The worker is done with a message of `bytes` body bytes.
    void published(size_t bytes) { unpublished_.fetch_sub(bytes, std::memory_order_relaxed); }
    // Readable once something is queued; the worker drains it.
    int wake_fd() const { return wake_.fd(); }
    void drain_wakes() { wake_.drain(); }

private:
    // The worker never blocks on the lock: it tries until it has it.
    void lock_without_blocking();

    std::deque<CPublishMessage> binds_;     // guarded by lock_
    std::deque<CPublishMessage> publishes_; // guarded by lock_
    std::deque<CPublishMessage> unbinds_;   // guarded by lock_; kept, never taken
    std::atomic<uint64_t> unpublished_{0};
    std::atomic<uint64_t> queued_bytes_{0};
    zel::WakeEvent wake_;
};
