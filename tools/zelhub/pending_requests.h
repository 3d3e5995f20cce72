// Which clients wait for a reply to which request number.
//
// Several clients may use the same number, and one client may use the same
// number many times, so each number keeps its waiting requests oldest first,
// and a reply goes to the oldest. Each request is also linked into its
// client's list, oldest first, so that a client's oldest request can be
// forgotten when it has too many and a client that leaves is forgotten in
// the time of its own requests. Every step is constant time.
//
// Requests and entries for numbers that nobody waits for any more are kept
// aside, up to a limit, and reused, so a steady flow of requests allocates
// nothing and a burst's memory is given back.
#pragma once

#include <string_view>
#include <vector>

#include "containers/text_map.h"
#include "subscriptions.h"

namespace zelhub {

class PendingRequests {
public:
    explicit PendingRequests(int max_per_client) : max_per_client_(max_per_client) {}
    ~PendingRequests();
    PendingRequests(const PendingRequests &) = delete;
    PendingRequests &operator=(const PendingRequests &) = delete;

    // True when the client was over its bound, so its oldest request was
    // forgotten to make room.
    bool remember(std::string_view number, ClientId client);
    // The oldest client waiting for `number`, which then stops waiting; -1
    // when nobody waits for it.
    ClientId take(std::string_view number);
    void forget(ClientId client);

private:
    struct Request;
    struct Links {
        Request *older = nullptr, *newer = nullptr;
    };
    struct Queue {
        Request *oldest = nullptr, *newest = nullptr;
        int size = 0;
    };
    using Waiting = zel::TextMap<Queue>;
    struct Request {
        Links by_number, by_client;
        Waiting::value_type *number;
        ClientId client;
    };

    Queue &queue_of(ClientId client);
    Waiting::value_type &entry_for(std::string_view number);
    Request *new_request();
    // Unlinks the request from both of its queues and recycles it.
    void remove(Request *request);

    int max_per_client_;
    Waiting waiting_;
    std::vector<Queue> of_client_;
    std::vector<Waiting::node_type> spare_entries_;
    std::vector<Request *> spare_requests_;
};

} // namespace zelhub
