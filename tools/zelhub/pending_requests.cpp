#include "pending_requests.h"

#include <string>

namespace zelhub {

namespace {

// Enough to absorb a steady flow of requests without holding on to memory
// after a burst.
constexpr size_t max_spares = 1024;

// A request is in two queues at once (its number's and its client's), each
// threaded through its own pair of links.
template <auto links, typename Queue, typename Item>
void push_newest(Queue &queue, Item *item)
{
    (item->*links).older = queue.newest;
    (item->*links).newer = nullptr;
    (queue.newest ? (queue.newest->*links).newer : queue.oldest) = item;
    queue.newest = item;
    ++queue.size;
}

template <auto links, typename Queue, typename Item>
void unlink(Queue &queue, Item *item)
{
    auto &mine = item->*links;
    (mine.older ? (mine.older->*links).newer : queue.oldest) = mine.newer;
    (mine.newer ? (mine.newer->*links).older : queue.newest) = mine.older;
    --queue.size;
}

} // namespace

PendingRequests::~PendingRequests()
{
    for (Queue &queue : of_client_)
        while (Request *request = queue.oldest) {
            queue.oldest = request->by_client.newer;
            delete request;
        }
    for (Request *request : spare_requests_)
        delete request;
}

bool PendingRequests::remember(std::string_view number, ClientId client)
{
    Request *request = new_request();
    request->number = &entry_for(number);
    request->client = client;
    push_newest<&Request::by_number>(request->number->second, request);
    Queue &mine = queue_of(client);
    push_newest<&Request::by_client>(mine, request);
    if (mine.size <= max_per_client_)
        return false;
    remove(mine.oldest);
    return true;
}

ClientId PendingRequests::take(std::string_view number)
{
    auto entry = waiting_.find(number);
    if (entry == waiting_.end())
        return -1;
    // A number's entry goes as soon as its queue is empty, so it has an oldest.
    Request *oldest = entry->second.oldest;
    ClientId client = oldest->client;
    remove(oldest);
    return client;
}

void PendingRequests::forget(ClientId client)
{
    if (size_t(client) >= of_client_.size())
        return;
    Queue &mine = of_client_[size_t(client)];
    while (mine.oldest)
        remove(mine.oldest);
}

PendingRequests::Queue &PendingRequests::queue_of(ClientId client)
{
    if (size_t(client) >= of_client_.size())
        of_client_.resize(size_t(client) + 1);
    return of_client_[size_t(client)];
}

PendingRequests::Waiting::value_type &PendingRequests::entry_for(std::string_view number)
{
    if (auto entry = waiting_.find(number); entry != waiting_.end())
        return *entry;
    if (spare_entries_.empty())
        return *waiting_.emplace(std::string(number), Queue{}).first;
    auto node = std::move(spare_entries_.back());
    spare_entries_.pop_back();
    node.key().assign(number); // its queue was left empty when it was retired
    return *waiting_.insert(std::move(node)).position;
}

PendingRequests::Request *PendingRequests::new_request()
{
    if (spare_requests_.empty())
        return new Request;
    Request *request = spare_requests_.back();
    spare_requests_.pop_back();
    return request;
}

void PendingRequests::remove(Request *request)
{
    Queue &of_number = request->number->second;
    unlink<&Request::by_number>(of_number, request);
    if (of_number.size == 0) {
        auto node = waiting_.extract(waiting_.find(std::string_view(request->number->first)));
        if (spare_entries_.size() < max_spares)
            spare_entries_.push_back(std::move(node));
    }
    unlink<&Request::by_client>(of_client_[size_t(request->client)], request);
    if (spare_requests_.size() < max_spares)
        spare_requests_.push_back(request);
    else
        delete request;
}

} // namespace zelhub
