// The hub engine's operations.
#include "transport/hub/hub_engine.h"

#include <cstdlib>

#include "api/meters.h"
#include "api/receive_window.h"
#include "api/requests.h"
#include "message/wire.h"

namespace {

// Three counters keep the same count of requests sent.
constexpr int requests_sent[] = {zel::meter::messages_sent, zel::meter::requests_sent,
                                 zel::meter::data_messages_sent};

bool holds_one_message(const scratchcb *message)
{
    return message && zel::wire::holds_one_message(message->data, message->len);
}

} // namespace

CVartoEngine *make_hub_engine(CIntRxWnd *window)
{
    return new CHubEngine(window);
}

CHubEngine::CHubEngine(CIntRxWnd *window)
{
    set_window(window);
}

CHubEngine::~CHubEngine()
{
    stop_worker();
    worker_.reset();
}

// Up, and with the buffers every request is built in.
bool CHubEngine::connected() const
{
    return window()->status() == ZEL_STATUS_CONNECTED && worker_ && builder_.ready();
}

int CHubEngine::create_connection(std::string description, int, std::string, std::string, std::string,
                                  CVartoSpy *monitor)
{
    HubSettings settings;
    size_t at = description.find('@');
    settings.host = description.substr(0, at);
    settings.port = at == std::string::npos ? 0 : std::atoi(description.c_str() + at + 1);
    settings.window = window();
    worker_ = std::make_unique<CHubworker>(std::move(settings));
    worker_->setMonitor(monitor);
    return start_worker(worker_.get()) ? 1 : 0;
}

// ---- Sending ------------------------------------------------------------------

int CHubEngine::sendMsg(scratchcb *message, int *err)
{
    if (!connected())
        return 0;
    if (!holds_one_message(message)) {
        *err = ZEL_DETAIL_NOT_A_MESSAGE;
        return 0;
    }
    // A socket found closed is reported by the worker, and answered 1 all
    // the same: what sendMsg's 1 promises is a hand-over, not a delivery.
    if (worker_->send(message->data, message->len) == CHubworker::SendResult::queue_full) {
        *err = ZEL_DETAIL_SEND_QUEUE_FULL;
        return 0;
    }
    return 1;
}

int CHubEngine::addRqDontStore(void **request, void *message, CZelReceiver *receiver, void *context, int *err)
{
    if (!connected())
        return 0;
    auto *built = static_cast<scratchcb *>(message);
    auto pending = zel::prepare_request(built, receiver, context, zel::RequestNumber::receiver_address,
                                        builder_.parsed, err);
    if (!pending)
        return 0;
    for (int counter : requests_sent)
        window()->count(counter);
    switch (worker_->send(built->data, built->len)) {
    case CHubworker::SendResult::queued:
        break;
    case CHubworker::SendResult::queue_full:
        *err = ZEL_DETAIL_SEND_QUEUE_FULL;
        return 0;
    case CHubworker::SendResult::not_open:
        return 0;
    }
    *err = 0;
    *request = pending.get();
    window()->add_pending(pending.release());
    return 1;
}

// ---- Watches --------------------------------------------------------------------

int CHubEngine::addWatch(void **watch, int *tags, sPChar *values, int count, void *receiver, void *context, bool,
                         long, bool, bool, int *err)
{
    if (!connected())
        return 0;
    auto made = zel::make_watch(tags, values, count, static_cast<CZelReceiver *>(receiver), context, builder_,
                                err);
    if (!made)
        return 0;
    sWatchData *added = made.release();
    window()->add_watch(added);
    *watch = added;
    worker_->send_watch_request(added->subscribe);
    return 1;
}

void CHubEngine::send_unsubscribe(const sWatchData &watch)
{
    worker_->send_watch_request(watch.unsubscribe);
}

int CHubEngine::remove_watches(const std::function<bool(const sWatchData &)> &match)
{
    return window()->remove_watches(match, [this](const sWatchData &w) { send_unsubscribe(w); });
}

int CHubEngine::removeWatch(void *watch, int *)
{
    if (!connected())
        return 0;
    return window()->remove_watch(static_cast<sWatchData *>(watch),
                                  [this](const sWatchData &w) { send_unsubscribe(w); })
               ? 1
               : 0;
}

// Removes the watches whose keys are exactly these tags and values.
int CHubEngine::RemoveWatch(const int *tags, sPChar *values, int count)
{
    int err = 0;
    if (!connected())
        return 0;
    auto wanted = zel::make_watch(tags, values, count, nullptr, nullptr, builder_, &err);
    if (!wanted)
        return 0;
    return remove_watches([&wanted](const sWatchData &w) {
        return w.tags == wanted->tags && w.values == wanted->values;
    });
}

void CHubEngine::rebind(const sWatchData &watch)
{
    worker_->send_watch_request(watch.subscribe);
}

// ---- Services -----------------------------------------------------------------

int CHubEngine::RegisterSrvc(std::string, CZelReceiver *, int *)
{
    // Announces nothing and keeps nothing: the receiver is not reachable
    // through this call.
    return connected() ? 1 : 0;
}

int CHubEngine::registerSrvc(const sPChar *name, void *handler, int, int *err)
{
    if (!connected() || !name)
        return 0;
    return window()->register_service(*name, static_cast<CZelReceiver *>(handler), err) ? 1 : 0;
}

// ---- Heartbeat, meters, log ---------------------------------------------------

int CHubEngine::enableHeartbeat(CZelHeartbeatListener *listener, long interval, int *)
{
    window()->set_heartbeat_listener(listener);
    worker_->enable_heartbeat(interval);
    return 1;
}

int CHubEngine::disableHeartbeat(int *)
{
    return 1;
}

int CHubEngine::getMeters(sZelMeters *meters, int *)
{
    window()->read_meters(meters);
    meters->counters[zel::meter::bytes_sent] = worker_ ? worker_->sent_bytes() : 0;
    meters->counters[zel::meter::discarded_frames] = worker_ ? worker_->discarded_frames() : 0;
    return 1;
}

int CHubEngine::resetMeters(int *)
{
    window()->reset_meters();
    if (worker_)
        worker_->reset_counters();
    return 1;
}

int CHubEngine::enable_log(FILE *, std::string path)
{
    worker_->open_log(path);
    return 1;
}

int CHubEngine::disable_log(FILE *, std::string)
{
    worker_->close_log();
    return 1;
}

int CHubEngine::closeChannel(int *)
{
    return 1;
}
