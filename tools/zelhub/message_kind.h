// What a parsed message asks of the hub, told from its name (field 0) and its
// transport fields, and quick reads of a parsed message's fields.
#pragma once

#include <zel/message.h>

#include <string_view>

#include "message/fields.h"

namespace zelhub {

namespace field = zel::field;

enum class MessageKind {
    device_name, // set_device_aka: the sender tells its name, for our log lines
    heartbeat,   // proof of life; nobody else needs it
    subscribe,
    unsubscribe,
    data,    // no name: goes to the subscribers
    request, // a name we do not handle ourselves: goes to every other client
    reply,   // goes back to the client that sent the request
    // The address book, which the hub keeps itself.
    address_lookup, // mrv_ab: answered to the asker alone
    address_set,    // mrv_lb_set_info
    address_unset,  // mrv_lb_unset_info
};

inline bool has_field(const vartocb *m, int tag)
{
    return m->slots[tag].count > 0;
}

// The first value of `tag` (empty when absent: check has_field first when
// that matters). Points into the message.
inline std::string_view first_value(const vartocb *m, int tag)
{
    const sVartoSlot &slot = m->slots[tag];
    return slot.count > 0 ? std::string_view(slot.first.data, size_t(slot.first.len)) : std::string_view();
}

MessageKind kind_of(const vartocb *m);

} // namespace zelhub
