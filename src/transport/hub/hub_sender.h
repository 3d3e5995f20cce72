// The hub sender: frames queued by any thread, written by the worker. A
// queued frame wakes the worker at once, so it leaves without waiting for
// the worker's next turn. The bytes queued and not yet written are counted,
// so that a hub that stops reading cannot make the queue grow without bound.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "api/engine_interface.h"
#include "platform/wake_event.h"

namespace zel::hub {

// Empties a send buffer, and gives its memory back when a backlog made it
// larger than is worth keeping.
void clear_send_buffer(std::string &buffer);

} // namespace zel::hub

class CHubSender : public CVartoSender {
public:
    CHubSender();

    // Queues the bytes of one message as a frame and wakes the worker; false,
    // with nothing queued, when the bytes not yet written would then pass
    // the send-queue bound. @locality any thread; takes the sender's lock
    bool queue_bounded_message(std::string_view message);
    // Queues one message whatever the bound: watch requests, which the
    // window's watch table bounds already.
    void queue_message(std::string_view message);
    // Queues bytes that are already framed, whatever the bound.
    void queue_frame(std::string_view frame);
    // Empties the queue and forgets every byte not yet written, the worker's
    // taken ones included: a new connection starts afresh. Answers what was
    // queued. @locality worker thread
    std::string discard_queued();
    // Moves everything queued to the end of `out`; drain the wakes first.
    // @locality worker thread
    void take_queued(std::string &out);
    // The worker has written `bytes` of what it took. @locality worker thread
    void written(size_t bytes);

    // Readable while the worker has been woken; the worker drains it.
    int wake_fd() const { return wake_.fd(); }
    void wake() { wake_.raise(); }
    void drain_wakes() { wake_.drain(); }

private:
    bool queue(std::initializer_list<std::string_view> parts, uint64_t limit);
    bool queue_framed(std::string_view message, uint64_t limit);

    std::string queued_;                 // guarded by lock_
    std::atomic<uint64_t> unwritten_{0}; // queued, or taken by the worker and not yet written
    zel::WakeEvent wake_;
};
