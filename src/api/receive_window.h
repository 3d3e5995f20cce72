// The connection's receive window and context: it owns the watch, pending
// request and service tables, the status, the listener and the meters, and
// dispatches the batches that workers post to it on the application thread.
#pragma once

#include <zel/engine.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "api/connection_monitor.h"
#include "api/message_queue.h"
#include "api/watch_index.h"

namespace zel {
class BatchBuffer;
}

class CVartoEngine;
class CZelEngine;

class CIntRxWnd : public zel::MessageTarget {
public:
    // Process-wide ids of the registered messages.
    static uint32_t on_msg();
    static uint32_t on_status();

    CIntRxWnd();
    ~CIntRxWnd() override;

    // ---- Worker side: any thread ------------------------------------------
    // Counts the bytes and posts a batch the worker filled itself (after
    // waiting for batch room); the window owns it from here.
    void post_batch(zel::BatchBuffer *batch);
    // Asks for the listener to be told the status current when it runs.
    void post_status_change();
    CVartoSpy &monitor() { return monitor_; }

    // ---- Application thread ------------------------------------------------
    void handle(uint32_t message, uintptr_t wparam, intptr_t lparam) override;
    // Whether a message for this window is being handled further up the
    // stack, so that a receiver or listener is running.
    bool dispatching() const { return handling_depth_ > 0; }
    // The facade is being destroyed from inside one of this window's
    // callbacks: no further callback runs, and once the outermost handle()
    // returns the window deletes `engine` (stopping its worker) and itself.
    void destroy_after_dispatch(CVartoEngine *engine);
    // Parses `len` bytes holding `expected` whole messages and hands each to
    // its service, reply or watches. Raises one alert when fewer messages
    // could be parsed than expected.
    void dispatch(const char *bytes, int32_t len, int32_t expected);

    // The watch table. Guarded by lock(); a watch removed while a dispatch
    // walks the table is never called again. The table owns its watches.
    using WatchVisit = std::function<void(const sWatchData &)>;
    std::recursive_mutex &lock() { return lock_; }
    void add_watch(sWatchData *watch);
    // Each removed watch is shown to `on_removed` (when given) before it is
    // freed, newest first.
    bool remove_watch(sWatchData *watch, const WatchVisit &on_removed = {});
    // Removes every watch `match` accepts; answers how many.
    int remove_watches(const std::function<bool(const sWatchData &)> &match, const WatchVisit &on_removed = {});
    // Calls `visit` for every live watch, newest first, under the lock.
    void for_each_watch_newest_first(const std::function<void(sWatchData &)> &visit);

    // Requests waiting for replies; the table owns them until their reply.
    void add_pending(sAddWatchData *request);
    // Services by name: a request naming one calls its receiver.
    bool register_service(const sPChar &name, CZelReceiver *receiver, int *err);

    // The connection's links, set by the facade before the worker starts.
    CVartoEngine *engine() const { return engine_; }
    void set_engine(CVartoEngine *engine) { engine_ = engine; }
    CZelEngine *owner() const { return owner_; }
    void set_owner(CZelEngine *owner) { owner_ = owner; }
    // The application's callback; transports decide when to call it.
    int (*callback() const)(char *) { return callback_; }
    void set_callback(int (*callback)(char *)) { callback_ = callback; }
    const std::string &instance_text() const { return instance_text_; }
    void set_instance_text(std::string text) { instance_text_ = std::move(text); }

    int status() const { return status_.load(std::memory_order_acquire); }
    void set_status(int status) { status_.store(status, std::memory_order_release); }
    void set_listener(CZelListener *listener) { listener_ = listener; }
    void set_heartbeat_listener(CZelHeartbeatListener *listener) { heartbeat_listener_ = listener; }
    CZelHeartbeatListener *heartbeat_listener() const { return heartbeat_listener_; }

    // Meters: any thread.
    void count(int counter, uint64_t amount = 1);
    void raise_to(int counter, uint64_t value);
    void read_meters(sZelMeters *out) const;
    void reset_meters();
    uint32_t delivered() const { return delivered_; }

private:
    using Watches = zel::WatchIndex<std::unique_ptr<sWatchData>>;

    void handle_message(uint32_t message, intptr_t lparam);
    void dispatch_one(vartocb *msg);
    void complete_reply(vartocb *msg);
    void serve_request(vartocb *msg);
    void match_watches(vartocb *msg);
    void remove_filed(Watches::Watch *filed, const WatchVisit &on_removed);

    CVartoSpy monitor_;
    int (*callback_)(char *) = nullptr;
    std::string instance_text_;
    CVartoEngine *engine_ = nullptr;
    CZelEngine *owner_ = nullptr;
    std::atomic<int> status_{ZEL_STATUS_CREATED};
    CZelListener *listener_ = nullptr;
    CZelHeartbeatListener *heartbeat_listener_ = nullptr;
    vartocb *parsed_ = nullptr;
    void *services_ = nullptr;                   // name -> CZelReceiver*
    std::atomic<uint64_t> meters_[21] = {};
    std::recursive_mutex lock_;
    Watches watches_;                                        // guarded by lock_
    std::unordered_map<const sWatchData *, Watches::Watch *> filed_; // by handle; guarded by lock_
    // By request number; a number's requests oldest first.
    std::unordered_map<uint64_t, std::vector<std::unique_ptr<sAddWatchData>>> pending_;
    std::vector<const sVartoItem *> reply_numbers_; // of the reply in hand
    std::list<std::string> service_names_;       // the service table's keys
    bool parsing_ = false;                        // parsed_ is in use
    int handling_depth_ = 0;                      // calls of handle() on the stack
    bool orphaned_ = false;                       // the facade is gone: call nobody
    CVartoEngine *orphaned_engine_ = nullptr;     // freed with the window
    uint32_t delivered_ = 0;
};
