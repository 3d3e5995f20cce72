// The fields that the client and the hub give a meaning to, and the reads of
// them that every router needs. One place, so that no two parts can disagree
// on a number. Single-threaded; no lock.
#pragma once

#include <zel/message.h>

#include <string_view>
#include <vector>

namespace zel::field {

constexpr int name = 0;              // a request's service, or what a hub message asks for
constexpr int address_key = 10000;   // address book: the key
constexpr int device_name = 10002;   // the name a client announces to the hub
constexpr int address = 10046;       // address book: the address
constexpr int request_number = 32760; // a request's number; every hop adds its own after it
constexpr int reply = 32767;         // present on a reply

// The first item of `tag`; null when the message lacks the field.
inline const sVartoItem *first_item(const vartocb *m, int tag)
{
    const sVartoSlot &slot = m->slots[tag];
    return slot.count > 0 ? &slot.first : nullptr;
}

// Offers the request numbers a reply carries to `take`, from the last (the
// most recent hop's) back to the first, until `take` accepts one. `items`
// is the caller's, so that a steady flow of replies allocates nothing.
template <typename Take>
bool take_request_number_last_first(const vartocb *m, std::vector<const sVartoItem *> &items, Take &&take)
{
    items.clear();
    for (const sVartoItem *item = first_item(m, request_number); item; item = item->next)
        items.push_back(item);
    for (auto item = items.rbegin(); item != items.rend(); ++item)
        if (take(**item))
            return true;
    return false;
}

// Offers every item of the message to `visit` as (tag, value), in ascending
// tag order and, within a tag, in order; stops when `visit` answers false.
// The keys and topics that route a message are made this way.
template <typename Visit>
void visit_items_by_tag(vartocb *m, Visit &&visit)
{
    int tag = 0;
    int count = 0;
    int err = 0;
    for (int more = zel_get_first_field_sort(m, &tag, &count, &err); more;
         more = zel_get_next_field_sort(m, &tag, &count, &err)) {
        for (const sVartoItem *item = first_item(m, tag); item; item = item->next)
            if (!visit(tag, std::string_view(item->data ? item->data : "", size_t(item->len > 0 ? item->len : 0))))
                return;
    }
}

} // namespace zel::field
