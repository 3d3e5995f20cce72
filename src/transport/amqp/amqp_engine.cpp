// The AMQP engine's operations.
#include "transport/amqp/amqp_engine.h"

#include <cstdlib>
#include <cstring>

#include "api/meters.h"
#include "api/receive_window.h"
#include "api/requests.h"
#include "message/fields.h"
#include "transport/amqp/routing_keys.h"
#include "transport/description.h"

using namespace zel::meter;

namespace {


// Data messages go where the last request went, unless the application asks
// for routing keys made of the messages' own fields.
bool route_by_fields()
{
    const char *value = std::getenv("ZEL_AMQP_ROUTE_BY_FIELDS");
    return value && std::strcmp(value, "1") == 0;
}

} // namespace

CVartoEngine *make_amqp_engine(CIntRxWnd *window)
{
    return new CAmqpEngine(window);
}

CAmqpEngine::CAmqpEngine(CIntRxWnd *window)
{
    set_window(window);
}

CAmqpEngine::~CAmqpEngine()
{
    stop_worker();
    worker_.reset();
}

bool CAmqpEngine::connected() const
{
    return window()->status() == ZEL_STATUS_CONNECTED && worker_ && builder_.ready();
}

int CAmqpEngine::create_connection(std::string description, int option, std::string ca_path, std::string key_path,
                                   std::string certificate_path, CVartoSpy *monitor)
{
    std::vector<std::string> fields = zel::split_description(description, 7);
    AmqpSettings settings;
    settings.exchange = fields[0];
    settings.name = fields[1];
    settings.password = fields[2];
    settings.server_name = fields[3];
    settings.port = std::atoi(fields[4].c_str());
    settings.virtual_host = fields[5];
    settings.user = fields[6];
    settings.ca_path = std::move(ca_path);
    settings.key_path = std::move(key_path);
    settings.certificate_path = std::move(certificate_path);
    settings.compression = option;
    settings.window = window();
    route_by_fields_ = route_by_fields();
    worker_ = std::make_unique<CAmqpWorker>(std::move(settings));
    worker_->setMonitor(monitor);
    return start_worker(worker_.get()) ? 1 : 0;
}

// ---- Queueing for the worker ------------------------------------------------------

bool CAmqpEngine::queue_request(int kind, const std::string &key)
{
    if (!worker_)
        return false;
    worker_->sender().queue_request(CPublishMessage{kind, worker_->exchange(), key, {}});
    return true;
}

CAmqpEngine::Published CAmqpEngine::queue_publish(const std::string &routing_key, const scratchcb *message)
{
    if (!worker_)
        return Published::not_open;
    if (worker_->recovering()) {
        worker_->reportStatus(1, "connection not open");
        return Published::not_open;
    }
    std::string_view body(message->data, size_t(message->len));
    if (worker_->publish_now(routing_key, body))
        return Published::queued;
    CPublishMessage publish{CPublishMessage::publish, worker_->exchange(), routing_key, std::string(body)};
    return worker_->sender().queue_publish(std::move(publish)) ? Published::queued : Published::queue_full;
}

void CAmqpEngine::trace_failure(const char *text)
{
    if (worker_)
        worker_->trace().status(text);
}

// ---- Sending --------------------------------------------------------------------

int CAmqpEngine::addRqDontStore(void **request, void *message, CZelReceiver *receiver, void *context, int *err)
{
    if (!connected())
        return 0;
    auto *built = static_cast<scratchcb *>(message);
    auto pending = zel::prepare_request(built, receiver, context, zel::RequestNumber::entry_address,
                                        builder_.parsed, err);
    if (!pending)
        return 0;
    sPChar service{};
    zel_get_data(builder_.parsed, zel::field::name, 0, &service, err);
    request_routing_key_ = zel::amqp::service_key(std::string_view(service.data ? service.data : "",
                                                                   size_t(service.len)));
    *request = pending.get();
    window()->add_pending(pending.release());
    window()->count(requests_sent);
    window()->count(messages_sent);
    switch (queue_publish(request_routing_key_, built)) {
    case Published::queued:
        *err = 0;
        return 1;
    case Published::queue_full:
        *err = ZEL_DETAIL_SEND_QUEUE_FULL;
        break;
    case Published::not_open:
        break;
    }
    trace_failure("Amqp Send Message Failed \n");
    return 0;
}

int CAmqpEngine::sendMsg(scratchcb *message, int *err)
{
    if (!connected())
        return 0;
    int parse_err = 0;
    if (!message || !zel_parse_first_msg(builder_.parsed, nullptr, message, &parse_err)) {
        *err = ZEL_DETAIL_NOT_A_MESSAGE;
        return 0;
    }
    std::string routing_key = route_by_fields_ ? zel::amqp::routing_key_of(builder_.parsed) : request_routing_key_;
    window()->count(bytes_sent, uint64_t(message->len));
    for (int counter : {data_sent, data_messages_sent, messages_sent})
        window()->count(counter);
    Published published = queue_publish(routing_key, message);
    if (published == Published::queue_full) {
        *err = ZEL_DETAIL_SEND_QUEUE_FULL;
        return 0;
    }
    // Written when the hand-over worked, as this trace always has been.
    if (published == Published::queued)
        trace_failure("Amqp Send Message Failed \n");
    return 1;
}

// ---- Watches ----------------------------------------------------------------------

int CAmqpEngine::addWatch(void **watch, int *tags, sPChar *values, int count, void *receiver, void *context, bool,
                          long, bool, bool, int *err)
{
    if (!connected())
        return 0;
    auto made = zel::make_watch(tags, values, count, static_cast<CZelReceiver *>(receiver), context, builder_,
                                err);
    if (!made)
        return 0;
    std::string key = zel::amqp::binding_key(made->tags, made->values);
    sWatchData *added = made.release();
    window()->add_watch(added);
    *watch = added;
    if (!queue_request(CPublishMessage::bind, key))
        trace_failure("Amqp Subscribe Message Failed \n");
    return 1;
}

// Removes the newest watch whose binding key is that of these pairs.
int CAmqpEngine::RemoveWatch(const int *tags, sPChar *values, int count)
{
    int err = 0;
    if (!builder_.ready())
        return 0;
    auto wanted = zel::make_watch(tags, values, count, nullptr, nullptr, builder_, &err);
    if (!wanted)
        return 0;
    std::string key = zel::amqp::binding_key(wanted->tags, wanted->values);
    sWatchData *found = nullptr;
    window()->for_each_watch_newest_first([&](sWatchData &w) {
        if (!found && zel::amqp::binding_key(w.tags, w.values) == key)
            found = &w;
    });
    if (!found || !window()->remove_watch(found))
        return 0;
    if (!queue_request(CPublishMessage::unbind, key))
        trace_failure("Amqp Subscribe Message Failed \n");
    return 1;
}

int CAmqpEngine::removeWatch(void *watch, int *)
{
    std::string key;
    bool removed = window()->remove_watch(static_cast<sWatchData *>(watch), [&key](const sWatchData &w) {
        key = zel::amqp::binding_key(w.tags, w.values);
    });
    if (!removed)
        return 0;
    if (!queue_request(CPublishMessage::unbind, key))
        trace_failure("Amqp unSubscribing Message Failed \n");
    return 1;
}

int CAmqpEngine::remove_watches(const std::function<bool(const sWatchData &)> &match)
{
    return remove_watches_tracing(match, nullptr);
}

int CAmqpEngine::remove_watches_tracing(const std::function<bool(const sWatchData &)> &match,
                                        const char *failure_trace)
{
    return window()->remove_watches(match, [this, failure_trace](const sWatchData &w) {
        if (!queue_request(CPublishMessage::unbind, zel::amqp::binding_key(w.tags, w.values)) && failure_trace)
            trace_failure(failure_trace);
    });
}

int CAmqpEngine::removeAllWatches(int *)
{
    // A watch without receiver stays.
    return remove_watches_tracing([](const sWatchData &w) { return w.receiver != nullptr; },
                                  "Amqp Send Message Failed \n");
}

void CAmqpEngine::rebind(const sWatchData &watch)
{
    queue_request(CPublishMessage::bind, zel::amqp::binding_key(watch.tags, watch.values));
}

// ---- Services ---------------------------------------------------------------------

int CAmqpEngine::RegisterSrvc(std::string name, CZelReceiver *, int *)
{
    if (!connected())
        return 0;
    queue_request(CPublishMessage::bind, zel::amqp::service_key(name));
    return 1;
}

int CAmqpEngine::registerSrvc(const sPChar *name, void *handler, int, int *err)
{
    if (!connected() || !name)
        return 0;
    if (!window()->register_service(*name, static_cast<CZelReceiver *>(handler), err))
        return 0;
    queue_request(CPublishMessage::bind,
                  zel::amqp::service_key(std::string_view(name->data, size_t(std::max(name->len, 0)))));
    return 1;
}

// ---- Heartbeat, meters, log ---------------------------------------------------

int CAmqpEngine::enableHeartbeat(CZelHeartbeatListener *listener, long interval, int *)
{
    if (!worker_)
        return 0;
    window()->set_heartbeat_listener(listener);
    worker_->enable_heartbeat(interval);
    return 1;
}

int CAmqpEngine::disableHeartbeat(int *)
{
    return 1;
}

int CAmqpEngine::getMeters(sZelMeters *meters, int *)
{
    window()->read_meters(meters);
    meters->counters[bytes_sent] = worker_ ? worker_->sender().queued_bytes() : 0;
    return 1;
}

int CAmqpEngine::resetMeters(int *)
{
    window()->reset_meters();
    if (worker_)
        worker_->sender().reset_queued_bytes();
    return 1;
}

int CAmqpEngine::enable_log(FILE *, std::string path)
{
    if (worker_)
        worker_->trace().open(path);
    return 1;
}

int CAmqpEngine::disable_log(FILE *, std::string)
{
    if (worker_)
        worker_->trace().close();
    return 1;
}

int CAmqpEngine::closeChannel(int *)
{
    if (worker_)
        worker_->close_channel();
    return 1;
}
