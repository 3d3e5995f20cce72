// The AMQP engine: the facade's operations over an AMQP 0-9-1 broker. Watches
// and services become bindings of the connection's private queue, requests
// and messages become publishes; all of them are handed to the worker's
// sender, and only the worker talks to the broker.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "api/engine_interface.h"
#include "api/requests.h"
#include "transport/amqp/amqp_worker.h"

class CAmqpEngine : public CVartoEngine {
public:
    explicit CAmqpEngine(CIntRxWnd *window);
    ~CAmqpEngine() override;

    int create_connection(std::string description, int option, std::string text1, std::string text2,
                          std::string text3, CVartoSpy *monitor) override;
    int addRqDontStore(void **request, void *message, CZelReceiver *receiver, void *context, int *err) override;
    int addWatch(void **watch, int *tags, sPChar *values, int count, void *receiver, void *context, bool, long, bool,
                 bool, int *err) override;
    int RemoveWatch(const int *tags, sPChar *values, int count) override;
    int removeWatch(void *watch, int *err) override;
    int sendMsg(scratchcb *message, int *err) override;
    int enableHeartbeat(CZelHeartbeatListener *listener, long interval, int *err) override;
    int getMeters(sZelMeters *meters, int *err) override;
    int removeAllWatches(int *err) override;
    int RegisterSrvc(std::string name, CZelReceiver *receiver, int *err) override;
    int registerSrvc(const sPChar *name, void *handler, int option, int *err) override;
    int resetMeters(int *err) override;
    int enable_log(FILE *file, std::string path) override;
    int disableHeartbeat(int *err) override;
    int disable_log(FILE *file, std::string path) override;
    int closeChannel(int *err) override;
    void rebind(const sWatchData &watch) override;

private:
    bool connected() const override;
    // Hands a bind or unbind of `key` to the worker; false without one.
    bool queue_request(int kind, const std::string &key);
    enum class Published { queued, not_open, queue_full };
    Published queue_publish(const std::string &routing_key, const scratchcb *message);
    int remove_watches(const std::function<bool(const sWatchData &)> &match) override;
    // The same, writing `failure_trace` (when given) for each unbind that
    // could not be queued.
    int remove_watches_tracing(const std::function<bool(const sWatchData &)> &match, const char *failure_trace);
    void trace_failure(const char *text);

    zel::RequestBuilder builder_;
    std::string request_routing_key_; // where sendMsg publishes: the last request's key
    bool route_by_fields_ = false;    // ZEL_AMQP_ROUTE_BY_FIELDS, read when the connection opens
    std::unique_ptr<CAmqpWorker> worker_;
};

// The AMQP engine maker. @locality application thread
CVartoEngine *make_amqp_engine(CIntRxWnd *window);
