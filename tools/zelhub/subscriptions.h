// Every client's subscriptions, and which clients a data message goes to.
//
// A subscription is a list of keys (tag, value). The library's watch index
// holds them and matches them by the rule the clients' own watches follow,
// so that a client and its hub never disagree on what matches. A client
// taken once for a message is not taken again.
#pragma once

#include <zel/message.h>

#include <cstdint>
#include <vector>

#include "api/watch_index.h"

namespace zelhub {

using ClientId = int;

using KeyList = zel::WatchKeys;

class Subscriptions {
public:
    // The keys of a subscribe or unsubscribe message: each field but the
    // name, in order, with its first value.
    static KeyList keys_of(const vartocb *m);

    // Adding a list the client already has changes nothing.
    void add(ClientId client, KeyList keys);
    void remove(ClientId client, const KeyList &keys);
    void forget(ClientId client);

    // Appends each client with a subscription matching `m`, once.
    void match(const vartocb *m, std::vector<ClientId> &clients);

private:
    using Index = zel::WatchIndex<ClientId>;

    Index index_;
    std::vector<std::vector<Index::Watch *>> of_client_;
    // The message a client was last taken for, to take it only once.
    std::vector<uint64_t> taken_for_;
    uint64_t message_serial_ = 0;
};

} // namespace zelhub
