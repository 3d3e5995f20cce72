#include "pending_requests.h"

#include <algorithm>
#include <string>

namespace zelhub {

namespace {
// Enough to absorb a steady flow of requests without holding on to memory
// after a burst.
constexpr size_t max_spare_entries = 1024;
} // namespace

void PendingRequests::remember(std::string_view number, ClientId client)
{
    if (size_t(client) >= waits_of_.size())
        waits_of_.resize(size_t(client) + 1, 0);
    ++waits_of_[size_t(client)];

    if (auto entry = waiting_.find(number); entry != waiting_.end()) {
        entry->second.push_back(client);
        return;
    }
    if (spare_.empty()) {
        waiting_.emplace(std::string(number), std::vector<ClientId>{client});
        return;
    }
    auto node = std::move(spare_.back());
    spare_.pop_back();
    node.key().assign(number);
    node.mapped().assign(1, client);
    waiting_.insert(std::move(node));
}

ClientId PendingRequests::take(std::string_view number)
{
    auto entry = waiting_.find(number);
    if (entry == waiting_.end())
        return -1;
    auto &clients = entry->second;
    ClientId oldest = clients.front();
    clients.erase(clients.begin());
    --waits_of_[size_t(oldest)];
    if (clients.empty())
        retire(entry);
    return oldest;
}

void PendingRequests::forget(ClientId client)
{
    if (size_t(client) >= waits_of_.size() || waits_of_[size_t(client)] == 0)
        return;
    waits_of_[size_t(client)] = 0;
    for (auto entry = waiting_.begin(); entry != waiting_.end();) {
        auto next = std::next(entry);
        std::erase(entry->second, client);
        if (entry->second.empty())
            retire(entry);
        entry = next;
    }
}

void PendingRequests::retire(Waiting::iterator entry)
{
    auto node = waiting_.extract(entry);
    if (spare_.size() < max_spare_entries)
        spare_.push_back(std::move(node));
}

} // namespace zelhub
