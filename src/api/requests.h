// The requests an engine sends on the application's behalf, built the same
// way on every transport: a watch's subscribe and unsubscribe requests, and
// the request number that lets a reply find its request.
#pragma once

#include <zel/engine.h>

#include <cstdint>
#include <memory>

namespace zel {

// What an engine builds its requests and watches in, and reads a message to
// be sent with: made once per engine, used on the application thread.
class RequestBuilder {
public:
    RequestBuilder();
    ~RequestBuilder();
    RequestBuilder(const RequestBuilder &) = delete;
    RequestBuilder &operator=(const RequestBuilder &) = delete;

    // False when its memory could not be had (the alert was raised).
    bool ready() const { return parsed && scratch; }

    vartocb *parsed = nullptr;
    scratchcb *scratch = nullptr; // 4096 bytes to start with
};

// A watch on `count` (tag, value) pairs sorted by tag, equal tags keeping
// their order, with its subscribe request built in `builder`, and the
// matching unsubscribe request. A value of length 0 or
// less matches any value. Null with detail 2 for bad arguments, or with the
// builder's detail when the request cannot be built.
// @locality application thread (builder and scratch are the engine's)
std::unique_ptr<sWatchData> make_watch(const int *tags, const sPChar *values, int count, CZelReceiver *receiver,
                                       void *context, RequestBuilder &builder, int *err);

// The number that a request carries in field 32760 and its reply carries
// back, printed in full: on the hub the address of the requesting receiver,
// on a broker the address of the pending entry itself.
enum class RequestNumber { receiver_address, entry_address };

// Adds field 32760 with the request number to the one message in `request`
// and answers the pending entry its reply will complete. Null with detail 1
// for a null request, or detail 2 when the field cannot be added or the
// request has no name (field 0). `parser` is left indexing the request.
// @locality application thread
std::unique_ptr<sAddWatchData> prepare_request(scratchcb *request, CZelReceiver *receiver, void *context,
                                               RequestNumber numbering, vartocb *parser, int *err);

} // namespace zel
