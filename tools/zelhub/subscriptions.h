// Every client's subscriptions, and which clients a data message goes to.
//
// A subscription is a list of keys (tag, value): it matches a message that has
// every key's field with, for a non-empty key value, exactly that value as
// the field's first value. An empty key value accepts any value.
//
// So that a message only looks at subscriptions that could match it, each
// subscription is filed under one anchor key: its first key with a value,
// found by that value, or its first key when all are "any value". A message
// visits the anchors of the tags it carries, and a client taken once for a
// message is not tested again.
#pragma once

#include <zel/message.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "text_map.h"

namespace zelhub {

using ClientId = int;

struct Key {
    int tag;
    std::string value; // empty: any value, but the field must be there
    bool operator==(const Key &) const = default;
};
using KeyList = std::vector<Key>;

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
    struct Subscription {
        ClientId client;
        KeyList keys;
        size_t anchor; // index in keys; keys.size() when there are none
    };
    using Shelf = std::vector<const Subscription *>;
    struct Anchor {
        TextMap<Shelf> by_value;
        Shelf any_value;
        bool empty() const { return by_value.empty() && any_value.empty(); }
    };

    Shelf &shelf_for(const Subscription &s);
    void unshelve(const Subscription &s);
    void visit_anchor(int tag, const Anchor &anchor, const vartocb *m, std::vector<ClientId> &clients);
    void offer(const Shelf &shelf, const vartocb *m, std::vector<ClientId> &clients);
    static bool matches(const Subscription &s, const vartocb *m);

    std::unordered_map<int, Anchor> anchors_;           // by anchor tag
    Shelf unconditional_;                               // no keys: every data message
    std::vector<std::vector<std::unique_ptr<Subscription>>> of_client_;
    // The message a client was last taken for, to take it only once.
    std::vector<uint64_t> taken_for_;
    uint64_t message_serial_ = 0;
};

} // namespace zelhub
