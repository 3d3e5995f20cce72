#include "subscriptions.h"

#include <algorithm>
#include <string>

#include "message_kind.h"

namespace zelhub {

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
    for (const Index::Watch *s : mine)
        if (s->keys == keys)
            return;
    mine.push_back(index_.add(std::move(keys), client));
}

void Subscriptions::remove(ClientId client, const KeyList &keys)
{
    if (size_t(client) >= of_client_.size())
        return;
    auto &mine = of_client_[size_t(client)];
    auto at = std::find_if(mine.begin(), mine.end(), [&](const Index::Watch *s) { return s->keys == keys; });
    if (at == mine.end())
        return;
    index_.remove(*at);
    mine.erase(at);
}

void Subscriptions::forget(ClientId client)
{
    if (size_t(client) >= of_client_.size())
        return;
    for (Index::Watch *s : of_client_[size_t(client)])
        index_.remove(s);
    of_client_[size_t(client)].clear();
}

void Subscriptions::match(const vartocb *m, std::vector<ClientId> &clients)
{
    ++message_serial_;
    Index::Walk walk(index_, m);
    for (const Index::Watch *s : walk.found()) {
        uint64_t &taken = taken_for_[size_t(s->payload)];
        if (taken != message_serial_) {
            taken = message_serial_;
            clients.push_back(s->payload);
        }
    }
}

} // namespace zelhub
