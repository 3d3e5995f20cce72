// The ZeroMQ engine's operations.
#include "transport/zmq/zmq_engine.h"

#include <cstdlib>

#include "api/meters.h"
#include "api/receive_window.h"
#include "message/fields.h"
#include "message/wire.h"
#include "transport/description.h"
#include "transport/zmq/zmq_filters.h"

using namespace zel::meter;

CVartoEngine *make_zmq_engine(CIntRxWnd *window)
{
    return new CZmqEngine(window);
}

CZmqEngine::CZmqEngine(CIntRxWnd *window)
{
    set_window(window);
}

CZmqEngine::~CZmqEngine()
{
    stop_worker();
    worker_.reset();
}

bool CZmqEngine::connected() const
{
    return window()->status() == ZEL_STATUS_CONNECTED && worker_ && builder_.ready();
}

int CZmqEngine::create_connection(std::string description, int, std::string, std::string, std::string,
                                  CVartoSpy *monitor)
{
    std::vector<std::string> fields = zel::split_description(description, 5);
    ZmqSettings settings;
    settings.host = fields[0];
    settings.port = std::atoi(fields[1].c_str());
    settings.type = fields[2];
    settings.name = fields[3];
    settings.label = fields[4];
    settings.window = window();
    worker_ = std::make_unique<CZmqWorker>(std::move(settings));
    worker_->setMonitor(monitor);
    return start_worker(worker_.get()) ? 1 : 0;
}

// ---- Sending: PUB connections -----------------------------------------------

int CZmqEngine::sendMsg(scratchcb *message, int *err)
{
    if (!connected() || !worker_->publishes())
        return 0;
    int parse_err = 0;
    if (!message || !zel_parse_first_msg(builder_.parsed, nullptr, message, &parse_err)) {
        *err = ZEL_DETAIL_NOT_A_MESSAGE;
        return 0;
    }
    std::string_view record(message->data, size_t(message->len));
    if (!worker_->publish(zel::zmq::topic_of(builder_.parsed), record))
        return 0;
    window()->count(bytes_sent, record.size());
    for (int counter : {data_sent, data_messages_sent, messages_sent})
        window()->count(counter);
    return 1;
}

int CZmqEngine::addRqDontStore(void **request, void *message, CZelReceiver *receiver, void *context, int *err)
{
    if (!connected() || !worker_->publishes())
        return 0;
    auto *built = static_cast<scratchcb *>(message);
    auto pending =
        zel::prepare_request(built, receiver, context, zel::RequestNumber::entry_address, builder_.parsed, err);
    if (!pending)
        return 0;
    std::string_view record(built->data, size_t(built->len));
    if (!worker_->publish(zel::zmq::topic_of(builder_.parsed), record))
        return 0;
    *err = 0;
    *request = pending.get();
    window()->add_pending(pending.release());
    window()->count(requests_sent);
    window()->count(messages_sent);
    return 1;
}

// ---- Watches: SUB connections ---------------------------------------------------

int CZmqEngine::addWatch(void **watch, int *tags, sPChar *values, int count, void *receiver, void *context, bool,
                         long, bool, bool, int *err)
{
    if (!connected())
        return 0;
    auto made =
        zel::make_watch(tags, values, count, static_cast<CZelReceiver *>(receiver), context, builder_, err);
    if (!made)
        return 0;
    std::string filter = zel::zmq::watch_filter(tags, values, count);
    sWatchData *added = made.release();
    window()->add_watch(added);
    filters_[added] = filter;
    *watch = added;
    worker_->subscribe(filter, true);
    return 1;
}

void CZmqEngine::unsubscribe(const sWatchData &watch)
{
    auto found = filters_.find(&watch);
    if (found == filters_.end())
        return;
    worker_->subscribe(found->second, false);
    filters_.erase(found);
}

// Finds the newest watch whose filter equals the removal key of these pairs:
// since a filter's pieces end with "." and the key's do not, only a watch
// that subscribed nothing is ever found.
int CZmqEngine::RemoveWatch(const int *tags, sPChar *values, int count)
{
    if (!connected())
        return 0;
    std::string key = zel::zmq::removal_key(tags, values, count);
    sWatchData *found = nullptr;
    window()->for_each_watch_newest_first([&](sWatchData &w) {
        auto filter = filters_.find(&w);
        if (!found && filter != filters_.end() && filter->second == key)
            found = &w;
    });
    return found && window()->remove_watch(found, [this](const sWatchData &w) { unsubscribe(w); }) ? 1 : 0;
}

int CZmqEngine::removeWatch(void *watch, int *)
{
    if (!connected())
        return 0;
    return window()->remove_watch(static_cast<sWatchData *>(watch), [this](const sWatchData &w) { unsubscribe(w); })
               ? 1
               : 0;
}

int CZmqEngine::remove_watches(const std::function<bool(const sWatchData &)> &match)
{
    return window()->remove_watches(match, [this](const sWatchData &w) { unsubscribe(w); });
}

// ZeroMQ keeps a socket's subscriptions across its own reconnects: nothing
// is to be done again.
void CZmqEngine::rebind(const sWatchData &) {}

// ---- Services ---------------------------------------------------------------------

int CZmqEngine::RegisterSrvc(std::string name, CZelReceiver *, int *)
{
    if (!connected())
        return 0;
    worker_->subscribe(zel::zmq::service_filter(name), true);
    return 1;
}

int CZmqEngine::registerSrvc(const sPChar *name, void *handler, int, int *err)
{
    if (!connected() || !name)
        return 0;
    if (!window()->register_service(*name, static_cast<CZelReceiver *>(handler), err))
        return 0;
    worker_->subscribe(zel::zmq::service_filter(std::string_view(name->data, size_t(std::max(name->len, 0)))), true);
    return 1;
}

// ---- Heartbeat, meters, log ---------------------------------------------------

int CZmqEngine::enableHeartbeat(CZelHeartbeatListener *listener, long interval, int *)
{
    if (!worker_)
        return 0;
    window()->set_heartbeat_listener(listener);
    worker_->enable_heartbeat(interval);
    return 1;
}

int CZmqEngine::disableHeartbeat(int *)
{
    return 1;
}

int CZmqEngine::getMeters(sZelMeters *meters, int *)
{
    window()->read_meters(meters);
    meters->counters[bytes_sent] = worker_ ? worker_->sent_bytes() : 0;
    return 1;
}

int CZmqEngine::resetMeters(int *)
{
    window()->reset_meters();
    if (worker_)
        worker_->reset_sent_bytes();
    return 1;
}

int CZmqEngine::enable_log(FILE *, std::string path)
{
    if (worker_)
        worker_->trace().open(path);
    return 1;
}

int CZmqEngine::disable_log(FILE *, std::string)
{
    if (worker_)
        worker_->trace().close();
    return 1;
}

int CZmqEngine::closeChannel(int *)
{
    return 1;
}
