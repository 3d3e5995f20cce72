// Queueing binds and publishes for the AMQP worker.
#include "transport/amqp/amqp_sender.h"

#include <thread>

void CAmqpSender::queue_request(CPublishMessage request)
{
    {
        std::lock_guard<std::recursive_mutex> guard(lock_);
        (request.kind == CPublishMessage::unbind ? unbinds_ : binds_).push_back(std::move(request));
    }
    wake_.raise();
}

bool CAmqpSender::queue_publish(CPublishMessage message)
{
    uint64_t size = message.body.size();
    bool was_empty;
    {
        std::lock_guard<std::recursive_mutex> guard(lock_);
        // The worker lowers the count without the lock: at worst this sees
        // a higher count than there is and refuses a little early.
        if (unpublished_.load(std::memory_order_relaxed) + size > queue_limit())
            return false;
        unpublished_.fetch_add(size, std::memory_order_relaxed);
        queued_bytes_.fetch_add(size, std::memory_order_relaxed);
        was_empty = publishes_.empty();
        publishes_.push_back(std::move(message));
    }
    // A queue that was not empty has a wake pending already.
    if (was_empty)
        wake_.raise();
    return true;
}

void CAmqpSender::lock_without_blocking()
{
    while (!lock_.try_lock())
        std::this_thread::yield();
}

void CAmqpSender::take_queued(std::deque<CPublishMessage> &binds, std::deque<CPublishMessage> &publishes)
{
    lock_without_blocking();
    std::lock_guard<std::recursive_mutex> guard(lock_, std::adopt_lock);
    binds.swap(binds_);
    publishes.swap(publishes_);
}

bool CAmqpSender::nothing_queued()
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    return binds_.empty() && publishes_.empty();
}
