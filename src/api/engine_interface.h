// Two of the three objects every transport is made of: the engine the facade
// calls and the sender that writes to the transport. The third, the worker
// that owns the connection on a thread of its own, is in api/worker.h.
#pragma once

#include <zel/engine.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "api/worker.h"

class CIntRxWnd;
class CVartoSpy;

class CVartoEngine {
public:
    CVartoEngine() = default;
    // A concrete engine calls stop_worker() in its own destructor, before its
    // worker goes away (a thread left running ends the process).
    virtual ~CVartoEngine() = default;
    CVartoEngine(const CVartoEngine &) = delete;
    CVartoEngine &operator=(const CVartoEngine &) = delete;

    // The facade's operations, one slot each, in this order. Every slot but
    // create_connection runs on the thread that created the connection.
    virtual int create_connection(std::string description, int option, std::string text1, std::string text2,
                                  std::string text3, CVartoSpy *monitor) = 0;
    virtual int addRqDontStore(void **request, void *message, CZelReceiver *receiver, void *context, int *err) = 0;
    virtual int addWatch(void **watch, int *tags, sPChar *values, int count, void *receiver, void *context, bool,
                         long, bool, bool, int *err) = 0;
    virtual int RemoveWatch(const int *tags, sPChar *values, int count) = 0;
    virtual int removeWatch(void *watch, int *err) = 0;
    virtual int sendMsg(scratchcb *message, int *err) = 0;
    virtual int enableHeartbeat(CZelHeartbeatListener *listener, long interval, int *err) = 0;
    virtual int getMeters(sZelMeters *meters, int *err) = 0;
    // The three bulk removals are the same on every transport: each watch
    // they take is unbound through remove_watches.
    virtual int removeWatchesByContext(void *context);
    virtual int removeWatchesByReceiver(CZelReceiver *receiver);
    virtual int removeAllWatches(int *err);
    virtual int RegisterSrvc(std::string name, CZelReceiver *receiver, int *err) = 0;
    virtual int registerSrvc(const sPChar *name, void *handler, int option, int *err) = 0;
    // `err` may be null: the facade resets the meters that way before the
    // connection starts.
    virtual int resetMeters(int *err) = 0;
    virtual int enable_log(FILE *file, std::string path) = 0;
    virtual int disableHeartbeat(int *err) = 0;
    virtual int disable_log(FILE *file, std::string path) = 0;
    virtual int closeChannel(int *err) = 0;

    // Binds `watch` at the peer again: the connection monitor calls it for
    // every watch on every report that arrives while connected.
    // @locality worker thread, window lock held
    virtual void rebind(const sWatchData &watch) = 0;

    CIntRxWnd *window() const { return window_; }
    void set_window(CIntRxWnd *window) { window_ = window; }

    // The stop request: raised by the application thread to end the worker,
    // acknowledged by the worker once it has seen it. @locality any thread
    bool stop_requested() const { return stop_request_.load(std::memory_order_acquire) > 0; }
    void acknowledge_stop();
    // Whether the worker's thread is still at work. @locality any thread
    bool worker_running() const;

protected:
    // Whether the connection is up and the engine ready to bind and send.
    virtual bool connected() const = 0;
    // Takes every watch `match` accepts out of the window, unbinding each at
    // the peer; answers how many went.
    virtual int remove_watches(const std::function<bool(const sWatchData &)> &match) = 0;

    // Starts `worker` on its own thread, then waits, polling every 5 ms, until
    // its first connect attempt has ended. False when no thread could be
    // started. @locality application thread
    bool start_worker(CVartoWorker *worker);
    // Raises the stop request, wakes the worker and waits for its thread to
    // end. Does nothing when no worker was started. @locality application thread
    void stop_worker();

private:
    CIntRxWnd *window_ = nullptr;
    std::atomic<int> stop_request_{0};
    CVartoWorker *worker_ = nullptr;
    std::thread thread_;
};

// Writes to a transport. The lock serialises the application thread's sends
// with the worker's flushing.
class CVartoSender {
public:
    virtual ~CVartoSender() = default;

    // The most bytes a connection may hold queued and not yet written
    // (zel_set_send_queue_limit). @locality any thread
    static uint64_t queue_limit();

protected:
    std::recursive_mutex lock_;
};
