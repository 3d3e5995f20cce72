// The hub engine: the facade's operations over a TCP hub. Requests become
// messages handed to the worker's sender; watches, services and pending
// requests live in the connection's window.
#pragma once

#include <memory>

#include "api/engine_interface.h"
#include "api/requests.h"
#include "transport/hub/hub_worker.h"

class CHubEngine : public CVartoEngine {
public:
    explicit CHubEngine(CIntRxWnd *window);
    ~CHubEngine() override;

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

    const CHubworker *worker() const { return worker_.get(); }

private:
    bool connected() const override;
    int remove_watches(const std::function<bool(const sWatchData &)> &match) override;
    void send_unsubscribe(const sWatchData &watch);

    zel::RequestBuilder builder_;
    std::unique_ptr<CHubworker> worker_;
};

// The hub's engine maker. @locality application thread
CVartoEngine *make_hub_engine(CIntRxWnd *window);
