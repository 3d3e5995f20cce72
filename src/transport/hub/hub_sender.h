// The hub sender: frames queued by any thread, written by the worker. A
// queued frame wakes the worker at once, so it leaves without waiting for
// the worker's next turn.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "api/engine_interface.h"

class CHubSender : public CVartoSender {
public:
    CHubSender();
    ~CHubSender() override;

    // Queues the bytes of one message as a frame and wakes the worker.
    // @locality any thread; takes the sender's lock
    void queue_message(std::string_view message);
    // Queues bytes that are already framed.
    void queue_frame(std::string_view frame);
    // Starts a new connection's queue: what was queued for the last one is
    // dropped (the monitor binds the watches again). @locality worker thread
    void attach();
    // Moves everything queued to the end of `out`; drain the wakes first.
    // @locality worker thread
    void take_queued(std::string &out);

    // Readable while the worker has been woken; the worker drains it.
    int wake_fd() const { return wake_fd_; }
    void wake();
    void drain_wakes();

private:
    void queue(std::initializer_list<std::string_view> parts);

    std::string queued_; // guarded by lock_
    int wake_fd_;
};
