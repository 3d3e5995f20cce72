// Which clients wait for a reply to which request number.
//
// Several clients may use the same number, so each number keeps its waiting
// clients oldest first, and a reply goes to the oldest. Entries for numbers
// nobody waits for any more are kept aside and reused, so a steady flow of
// requests allocates nothing.
#pragma once

#include <string_view>
#include <vector>

#include "subscriptions.h"
#include "text_map.h"

namespace zelhub {

class PendingRequests {
public:
    void remember(std::string_view number, ClientId client);
    // The oldest client waiting for `number`, which then stops waiting; -1
    // when nobody waits for it.
    ClientId take(std::string_view number);
    void forget(ClientId client);

private:
    using Waiting = TextMap<std::vector<ClientId>>;

    void retire(Waiting::iterator entry);

    Waiting waiting_;
    std::vector<Waiting::node_type> spare_;
    std::vector<int> waits_of_; // per client, so that forgetting a client that waits for nothing costs nothing
};

} // namespace zelhub
