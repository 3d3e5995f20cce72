// One connected client as the server sees it: its socket, what it sent that
// is not handled yet, and what it is owed that is not written yet.
#pragma once

#include <cstdint>
#include <string>

#include "byte_buffer.h"
#include "subscriptions.h"

namespace zelhub {

struct Client {
    ClientId id;
    int fd;
    std::string peer;  // address:port, for log lines
    std::string name;  // as the client told us; empty until it does
    ByteBuffer input;  // starts with an incomplete frame, if any
    ByteBuffer output; // the unsent part of the frames forwarded to it
    bool watching_output = false;   // EPOLLOUT registered: the socket was full
    bool flush_queued = false;      // already in this round's list of clients to write to
    bool dropped = false;           // gone for routing; its socket closes at the end of the round
    bool uses_address_book = false; // asked the address book: is forwarded no requests
    int64_t requests_forgotten = 0; // over the bound of unanswered requests
};

} // namespace zelhub
