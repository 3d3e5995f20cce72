// The ZeroMQ engine: the facade's operations over one SUB or PUB socket.
// Watches and services become prefix filters of a SUB socket; a PUB socket
// sends [topic][message]. Received messages go through the same window and
// dispatch as on every transport.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "api/engine_interface.h"
#include "api/requests.h"
#include "transport/zmq/zmq_worker.h"

class CZmqEngine : public CVartoEngine {
public:
    explicit CZmqEngine(CIntRxWnd *window);
    ~CZmqEngine() override;

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
    int remove_watches(const std::function<bool(const sWatchData &)> &match) override;
    void unsubscribe(const sWatchData &watch);

    zel::RequestBuilder builder_;
    std::unordered_map<const sWatchData *, std::string> filters_; // each watch's filter, as subscribed
    std::unique_ptr<CZmqWorker> worker_;
};

// The ZeroMQ engine maker. @locality application thread
CVartoEngine *make_zmq_engine(CIntRxWnd *window);
