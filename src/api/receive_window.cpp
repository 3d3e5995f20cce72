// The receive window: what workers post arrives here on the application
// thread and is handed to services, reply receivers and watches.
#include "api/receive_window.h"

#include <zel/containers.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <list>

#include "api/alert.h"
#include "api/batch_buffer.h"
#include "api/engine_interface.h"
#include "message/fields.h"

namespace {


// Counters of the meters, by position.
enum Meter {
    active_watches = 0,
    messages_handled = 1,
    service_requests = 2,
    replies = 4,
    watch_passes = 5,
    received_bytes = 13,
    messages_seen = 15,
    largest_batch = 17
};

void dispose_batch(intptr_t lparam)
{
    delete reinterpret_cast<zel::BatchBuffer *>(lparam);
}

// A receiver's code must not take dispatch down: what it throws becomes an
// alert and dispatch goes on.
template <typename Call>
void call_receiver(Call &&call)
{
    try {
        call();
    } catch (...) {
        zel::alert("A receiver failed while handling a message");
    }
}

// The receivers already called for one message; rarely more than a few.
class CalledOnce {
public:
    bool contains(const CZelReceiver *r) const
    {
        return std::find(few_.begin(), few_.begin() + count_, r) != few_.begin() + count_ ||
               std::find(more_.begin(), more_.end(), r) != more_.end();
    }
    void add(CZelReceiver *r)
    {
        if (count_ < few_.size())
            few_[count_++] = r;
        else
            more_.push_back(r);
    }

private:
    std::array<CZelReceiver *, 8> few_{};
    size_t count_ = 0;
    std::vector<CZelReceiver *> more_;
};

zel::WatchKeys keys_of(const sWatchData &watch)
{
    zel::WatchKeys keys;
    for (size_t k = 0; k < watch.tags.size(); ++k)
        keys.push_back({watch.tags[k], watch.values[k]});
    return keys;
}

// The parse block for one dispatch: the window's own, or a fresh one when a
// receiver pumps messages from inside a dispatch.
class ParseBlock {
public:
    ParseBlock(vartocb *own, bool &in_use) : in_use_(in_use)
    {
        int err;
        if (!in_use_ && own) {
            block_ = own;
            in_use_ = owned_ = true;
        } else if (!zel_ctor_vartocb(&block_, &err)) {
            zel::alert("Vartocb ctor failed");
        }
    }
    ~ParseBlock()
    {
        int err;
        if (owned_)
            in_use_ = false;
        else if (block_)
            zel_dtor_vartocb(&block_, &err);
    }
    vartocb *get() const { return block_; }

private:
    bool &in_use_;
    bool owned_ = false;
    vartocb *block_ = nullptr;
};

bool parse_request_number(const sVartoItem &item, uint64_t *number)
{
    const char *end = item.data + item.len;
    auto [at, ec] = std::from_chars(item.data, end, *number);
    return item.len > 0 && ec == std::errc() && at == end;
}

} // namespace

uint32_t CIntRxWnd::on_msg()
{
    static const uint32_t id = zel::register_message("VARTO{807E08DE-96F8-4ef2-B188-77F24DAF8032}_ON_MSG");
    return id;
}

uint32_t CIntRxWnd::on_status()
{
    static const uint32_t id = zel::register_message("VARTO{1E068D4C-39C6-4F00-B30A-79C98C918608}_ON_STATUS");
    return id;
}

CIntRxWnd::CIntRxWnd() : monitor_(*this)
{
    int err = 0;
    if (!zel_ctor_vartocb(&parsed_, &err))
        zel::alert("Vartocb ctor failed");
    sZELHashParams services{256, {const_cast<char *>("hashr_torek"), 11}, nullptr};
    if (!zel_hash_open(&services_, &services, &err))
        zel::alert("Hash open Error");
}

CIntRxWnd::~CIntRxWnd()
{
    int err;
    if (services_)
        zel_hash_close(&services_, &err);
    if (parsed_)
        zel_dtor_vartocb(&parsed_, &err);
}

// ---- Worker side ----------------------------------------------------------

void CIntRxWnd::post_batch(zel::BatchBuffer *batch)
{
    count(received_bytes, uint64_t(batch->length()));
    queue()->post(target_id(), on_msg(), on_msg(), reinterpret_cast<intptr_t>(batch), dispose_batch);
}

void CIntRxWnd::post_status_change()
{
    queue()->post(target_id(), on_status(), on_status(), 0);
}

// ---- Application thread ---------------------------------------------------

void CIntRxWnd::handle(uint32_t message, uintptr_t wparam, intptr_t lparam)
{
    if (wparam != message)
        return;
    // A callback below may destroy the facade: the window then outlives it
    // until this, the outermost call, is done with its members.
    ++handling_depth_;
    handle_message(message, lparam);
    if (--handling_depth_ > 0 || !orphaned_)
        return;
    delete orphaned_engine_;
    delete this;
}

void CIntRxWnd::destroy_after_dispatch(CVartoEngine *engine)
{
    orphaned_ = true;
    orphaned_engine_ = engine;
    owner_ = nullptr;
    listener_ = nullptr;
}

void CIntRxWnd::handle_message(uint32_t message, intptr_t lparam)
{
    if (message == on_status()) {
        int err = 0;
        if (listener_)
            listener_->statusChange(status(), &err);
        return;
    }
    if (message != on_msg())
        return;
    auto *batch = reinterpret_cast<zel::BatchBuffer *>(lparam);
    if (orphaned_) {
        delete batch;
        return;
    }
    batch->take();
    dispatch(batch->bytes(), batch->length(), batch->messages());
    batch->release();
    delete batch;
}

void CIntRxWnd::dispatch(const char *bytes, int32_t len, int32_t expected)
{
    if (len <= 0 || !bytes)
        return;
    count(received_bytes, uint64_t(len));
    raise_to(largest_batch, uint64_t(len));
    ParseBlock block(parsed_, parsing_);
    if (!block.get())
        return;
    scratchcb in{len, len, len, const_cast<char *>(bytes)};
    int handled = 0, err = 0;
    for (int ok = zel_parse_first_msg(block.get(), nullptr, &in, &err); ok;
         ok = zel_parse_next_msg(block.get(), nullptr, &err)) {
        ++handled;
        dispatch_one(block.get());
        if (orphaned_)
            return;
    }
    count(messages_handled, uint64_t(handled));
    // Detail 6 is the clean end of the batch; anything else means bytes that
    // do not parse, even after as many messages as were announced.
    if (handled < expected || err != 6)
        zel::alert("Internal error while parsing messages, some messages are dropped");
}

void CIntRxWnd::dispatch_one(vartocb *msg)
{
    ++delivered_;
    count(messages_seen);
    if (zel::field::first_item(msg, zel::field::reply)) {
        complete_reply(msg);
        count(replies);
    } else if (zel::field::first_item(msg, zel::field::name)) {
        serve_request(msg);
        count(service_requests);
    } else {
        match_watches(msg);
        count(watch_passes);
    }
}

void CIntRxWnd::complete_reply(vartocb *msg)
{
    std::unique_ptr<sAddWatchData> request;
    zel::field::take_request_number_last_first(msg, reply_numbers_, [&](const sVartoItem &item) {
        uint64_t number = 0;
        if (!parse_request_number(item, &number))
            return false;
        auto waiting = pending_.find(number);
        if (waiting == pending_.end())
            return false;
        // The newest request with the number: where the number is the
        // receiver's address, a receiver's replies complete its requests
        // newest first.
        request = std::move(waiting->second.back());
        waiting->second.pop_back();
        if (waiting->second.empty())
            pending_.erase(waiting);
        return true;
    });
    if (!request)
        return;
    if (CZelReceiver::isRegistered(request->receiver)) {
        int err = 0;
        call_receiver(
            [&] { request->receiver->processReply(msg, ZEL_KIND_REPLY, request.get(), request->context, &err); });
    }
}

void CIntRxWnd::serve_request(vartocb *msg)
{
    const sVartoItem *name = zel::field::first_item(msg, zel::field::name);
    sPChar key{name->data, name->len};
    void *found = nullptr;
    int err = 0;
    if (!services_ || key.len <= 0 || !zel_hash_table_find(services_, &key, &found, &err))
        return;
    auto *receiver = static_cast<CZelReceiver *>(found);
    if (CZelReceiver::isRegistered(receiver))
        call_receiver([&] { receiver->processMsg(msg, ZEL_KIND_SERVICE_REQUEST, nullptr, nullptr, &err); });
}

void CIntRxWnd::match_watches(vartocb *msg)
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    CalledOnce called;
    // Newest first. Watches added by a receiver during the walk wait for the
    // next message; removed ones stay in the walk's list, marked and emptied.
    Watches::Walk walk(watches_, msg);
    for (Watches::Watch *filed : walk.found()) {
        if (filed->removed())
            continue;
        sWatchData *watch = filed->payload.get();
        if (!watch->receiver || called.contains(watch->receiver))
            continue;
        CZelReceiver *receiver = watch->receiver;
        called.add(receiver);
        if (!CZelReceiver::isRegistered(receiver))
            continue;
        int err = 0;
        call_receiver([&] { receiver->processMsg(msg, ZEL_KIND_WATCH_MATCH, watch, watch->context, &err); });
        if (orphaned_)
            break;
    }
}

// ---- Tables -------------------------------------------------------------

void CIntRxWnd::add_watch(sWatchData *watch)
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    filed_[watch] = watches_.add(keys_of(*watch), std::unique_ptr<sWatchData>(watch));
    count(active_watches);
}

int CIntRxWnd::remove_watches(const std::function<bool(const sWatchData &)> &match, const WatchVisit &on_removed)
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    std::vector<Watches::Watch *> picked; // newest first
    watches_.for_each_newest_first([&](Watches::Watch &filed) {
        if (match(*filed.payload))
            picked.push_back(&filed);
    });
    for (Watches::Watch *filed : picked)
        remove_filed(filed, on_removed);
    return int(picked.size());
}

bool CIntRxWnd::remove_watch(sWatchData *watch, const WatchVisit &on_removed)
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    auto found = filed_.find(watch);
    if (found == filed_.end())
        return false;
    remove_filed(found->second, on_removed);
    return true;
}

// The watch leaves the table before `on_removed` sees it, and is freed after.
// @locks lock_ MUST be held
void CIntRxWnd::remove_filed(Watches::Watch *filed, const WatchVisit &on_removed)
{
    std::unique_ptr<sWatchData> watch = std::move(filed->payload);
    filed_.erase(watch.get());
    watches_.remove(filed);
    if (on_removed)
        on_removed(*watch);
    meters_[active_watches].fetch_sub(1, std::memory_order_relaxed);
}

void CIntRxWnd::for_each_watch_newest_first(const std::function<void(sWatchData &)> &visit)
{
    std::lock_guard<std::recursive_mutex> guard(lock_);
    watches_.for_each_newest_first([&](Watches::Watch &filed) { visit(*filed.payload); });
}

void CIntRxWnd::add_pending(sAddWatchData *request)
{
    pending_[request->request_number].emplace_back(request);
}

bool CIntRxWnd::register_service(const sPChar &name, CZelReceiver *receiver, int *err)
{
    if (!services_ || !name.data || name.len <= 0) {
        *err = 2;
        return false;
    }
    sPChar key = name;
    void *existing = nullptr;
    // The table keeps a pointer to its keys: a new name gets a copy that
    // lives as long as the window.
    if (!zel_hash_table_find(services_, &key, &existing, err)) {
        service_names_.emplace_back(name.data, size_t(name.len));
        key = sPChar{service_names_.back().data(), name.len};
    }
    return zel_hash_add(services_, &key, receiver, err);
}

// ---- Meters ---------------------------------------------------------------

void CIntRxWnd::count(int counter, uint64_t amount)
{
    meters_[counter].fetch_add(amount, std::memory_order_relaxed);
}

void CIntRxWnd::raise_to(int counter, uint64_t value)
{
    uint64_t seen = meters_[counter].load(std::memory_order_relaxed);
    while (seen < value && !meters_[counter].compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

void CIntRxWnd::read_meters(sZelMeters *out) const
{
    for (int i = 0; i < 21; ++i)
        out->counters[i] = meters_[i].load(std::memory_order_relaxed);
}

void CIntRxWnd::reset_meters()
{
    for (auto &counter : meters_)
        counter.store(0, std::memory_order_relaxed);
}
