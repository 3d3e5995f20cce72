#include "subscriptions.h"

#include <algorithm>

#include "message_kind.h"

namespace zelhub {

namespace {

size_t anchor_of(const KeyList &keys)
{
    auto with_value = std::find_if(keys.begin(), keys.end(), [](const Key &k) { return !k.value.empty(); });
    return with_value != keys.end() ? size_t(with_value - keys.begin()) : (keys.empty() ? keys.size() : 0);
}

template <typename T>
void erase_one(std::vector<T> &items, const T &item)
{
    auto at = std::find(items.begin(), items.end(), item);
    if (at != items.end())
        items.erase(at);
}

} // namespace

KeyList Subscriptions::keys_of(const vartocb *m)
{
    KeyList keys;
    for (int i = 0; i < m->tag_count; ++i) {
        int tag = m->tags[i];
        if (tag != field::name)
            keys.push_back({tag, std::string(first_value(m, tag))});
    }
    return keys;
}

void Subscriptions::add(ClientId client, KeyList keys)
{
    if (size_t(client) >= of_client_.size()) {
        of_client_.resize(size_t(client) + 1);
        taken_for_.resize(size_t(client) + 1, 0);
    }
    auto &mine = of_client_[size_t(client)];
    for (const auto &s : mine)
        if (s->keys == keys)
            return;
    size_t anchor = anchor_of(keys);
    mine.push_back(std::make_unique<Subscription>(Subscription{client, std::move(keys), anchor}));
    shelf_for(*mine.back()).push_back(mine.back().get());
}

void Subscriptions::remove(ClientId client, const KeyList &keys)
{
    if (size_t(client) >= of_client_.size())
        return;
    auto &mine = of_client_[size_t(client)];
    auto at = std::find_if(mine.begin(), mine.end(), [&](const auto &s) { return s->keys == keys; });
    if (at == mine.end())
        return;
    unshelve(**at);
    mine.erase(at);
}

void Subscriptions::forget(ClientId client)
{
    if (size_t(client) >= of_client_.size())
        return;
    for (const auto &s : of_client_[size_t(client)])
        unshelve(*s);
    of_client_[size_t(client)].clear();
}

Subscriptions::Shelf &Subscriptions::shelf_for(const Subscription &s)
{
    if (s.anchor == s.keys.size())
        return unconditional_;
    const Key &key = s.keys[s.anchor];
    Anchor &anchor = anchors_[key.tag];
    return key.value.empty() ? anchor.any_value : anchor.by_value[key.value];
}

// Takes the subscription off its shelf, and drops shelves and anchors that
// become empty so that messages do not keep visiting them.
void Subscriptions::unshelve(const Subscription &s)
{
    if (s.anchor == s.keys.size()) {
        erase_one(unconditional_, &s);
        return;
    }
    const Key &key = s.keys[s.anchor];
    auto anchor = anchors_.find(key.tag);
    if (anchor == anchors_.end())
        return;
    if (key.value.empty()) {
        erase_one(anchor->second.any_value, &s);
    } else if (auto shelf = anchor->second.by_value.find(key.value); shelf != anchor->second.by_value.end()) {
        erase_one(shelf->second, &s);
        if (shelf->second.empty())
            anchor->second.by_value.erase(shelf);
    }
    if (anchor->second.empty())
        anchors_.erase(anchor);
}

void Subscriptions::match(const vartocb *m, std::vector<ClientId> &clients)
{
    ++message_serial_;
    offer(unconditional_, m, clients);
    // Walk whichever is shorter: the anchored tags, or the message's tags.
    if (anchors_.size() <= size_t(m->tag_count)) {
        for (const auto &[tag, anchor] : anchors_)
            visit_anchor(tag, anchor, m, clients);
    } else {
        for (int i = 0; i < m->tag_count; ++i)
            if (auto anchor = anchors_.find(m->tags[i]); anchor != anchors_.end())
                visit_anchor(anchor->first, anchor->second, m, clients);
    }
}

void Subscriptions::visit_anchor(int tag, const Anchor &anchor, const vartocb *m, std::vector<ClientId> &clients)
{
    const sVartoItem *item = field::first_item(m, tag);
    if (!item)
        return;
    offer(anchor.any_value, m, clients);
    auto shelf = anchor.by_value.find(std::string_view(item->data, size_t(item->len)));
    if (shelf != anchor.by_value.end())
        offer(shelf->second, m, clients);
}

void Subscriptions::offer(const Shelf &shelf, const vartocb *m, std::vector<ClientId> &clients)
{
    for (const Subscription *s : shelf) {
        uint64_t &taken = taken_for_[size_t(s->client)];
        if (taken != message_serial_ && matches(*s, m)) {
            taken = message_serial_;
            clients.push_back(s->client);
        }
    }
}

bool Subscriptions::matches(const Subscription &s, const vartocb *m)
{
    for (const Key &key : s.keys) {
        const sVartoItem *item = field::first_item(m, key.tag);
        if (!item)
            return false;
        if (!key.value.empty() &&
            std::string_view(item->data, size_t(item->len)) != std::string_view(key.value))
            return false;
    }
    return true;
}

} // namespace zelhub
