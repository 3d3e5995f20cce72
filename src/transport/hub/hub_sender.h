// The hub sender: frames queued by any thread, written by the worker. A
// queued frame wakes the worker at once, so it leaves without waiting for
// the worker's next turn. The bytes queued and not yet written are counted,
// so that a hub that stops reading cannot make the queue grow without bound.
//
// A message sent while nothing is queued or being written goes to the socket
// from the sending thread itself: a request or its reply then leaves without
// waiting for the worker to be woken, a hand-off that costs tens of
// microseconds, as much as the hub's own relay. A stream would then pay a
// system call per message, so after such a write the messages of the next
// `streaming_gap` are queued and leave in the worker's batches.
#pragma once

#include <atomic>
#include <chrono>
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
    // The connection that messages may be written to straight away, once
    // the announce is queued; -1 when there is none. @locality worker thread
    void attach_socket(int socket);
    void detach_socket() { attach_socket(-1); }
    // Empties the queue and forgets every byte not yet written, the worker's
    // taken ones included: a new connection starts afresh. Answers what was
    // queued. @locality worker thread
    std::string discard_queued();
    // Swaps everything queued into `out`, which must be empty; drain the
    // wakes first. The queue keeps `out`'s memory, so a stream goes on in the
    // same two buffers. @locality worker thread
    void take_queued(std::string &out);
    // Gives the queue's memory back when a backlog made it larger than is
    // worth keeping; for when the connection has gone quiet.
    void trim();
    // The worker has written `bytes` of what it took. @locality worker thread
    void written(size_t bytes);

    // Readable while the worker has been woken; the worker drains it.
    int wake_fd() const { return wake_.fd(); }
    void wake() { wake_.raise(); }
    void drain_wakes() { wake_.drain(); }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::duration streaming_gap = std::chrono::microseconds(50);

    bool queue(std::initializer_list<std::string_view> parts, uint64_t limit);
    bool queue_framed(std::string_view message, uint64_t limit);
    size_t write_now(std::initializer_list<std::string_view> parts);

    std::string queued_;                 // guarded by lock_
    int socket_ = -1;                    // guarded by lock_
    Clock::time_point last_written_now_; // guarded by lock_
    std::atomic<uint64_t> unwritten_{0}; // queued, or taken by the worker and not yet written
    zel::WakeEvent wake_;
};
