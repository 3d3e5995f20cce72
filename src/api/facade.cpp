// CZelEngine: the thin object an application holds per connection. It makes
// the window and the transport's engine and forwards nearly every call to
// one engine operation.
#include <zel/engine.h>

#include <memory>

#include "api/engine_factory.h"
#include "api/engine_interface.h"
#include "api/key_tags.h"
#include "api/receive_window.h"
#include "api/receiver_registry.h"
#include "platform/detail_slot.h"

namespace zel {

namespace {

std::vector<int32_t> &key_tag_list()
{
    static std::vector<int32_t> tags;
    return tags;
}

std::string describe(Transport transport, const std::string &port, const std::string &host, const std::string &type,
                     const std::string &text4, const std::string &text5, const std::string &text6,
                     const std::string &text7)
{
    // Joined with "@" and nothing escaped: a field holding "@" shifts the
    // fields after it when the engine splits the description.
    switch (transport) {
    case Transport::zmq:
        return host + "@" + port + "@" + type + "@" + text7 + "@" + text6;
    case Transport::hub:
        return host + "@" + port;
    case Transport::amqp:
        break;
    }
    return text6 + "@" + text7 + "@" + text5 + "@" + host + "@" + port + "@" + type + "@" + text4;
}

} // namespace

const std::vector<int32_t> &key_tags()
{
    return key_tag_list();
}

void fill_key_tags_once()
{
    if (key_tag_list().empty())
        key_tag_list() = {10100, 31003, 44031, 50207, 54211, 63001, 63100, 64001, 64016, 64022};
}

} // namespace zel

CZelEngine::CZelEngine() : engine(nullptr), window(nullptr), reserved(0)
{
    zel::fill_key_tags_once();
}

CZelEngine::~CZelEngine()
{
    // Destroyed from inside one of its own callbacks: the window is still in
    // use further up the stack, so it takes the engine and frees both once
    // the dispatch has unwound.
    if (window && window->dispatching()) {
        window->destroy_after_dispatch(engine);
    } else {
        // The engine goes first: its destructor stops the worker and waits
        // for its thread, so nothing posts to the window once it is freed.
        delete engine;
        delete window;
    }
    engine = nullptr;
    window = nullptr;
}

int CZelEngine::create_connection(int port, std::string host, std::string type, std::string text4,
                                  std::string text5, std::string text6, std::string text7, int option,
                                  std::string text9, std::string text10, std::string text11,
                                  int (*callback)(char *))
{
    if (engine || window)
        return 0;
    zel::Transport transport = zel::transport_for(type);
    zel::EngineMaker make = zel::engine_maker(transport);
    if (!make)
        return 0;
    auto made_window = std::make_unique<CIntRxWnd>();
    std::string description = zel::describe(transport, std::to_string(port), host, type, text4, text5, text6, text7);
    engine = make(made_window.get());
    window = made_window.release();
    window->set_owner(this);
    window->set_callback(callback);
    window->set_instance_text(text7);
    engine->set_window(window);
    engine->resetMeters(nullptr);
    window->set_engine(engine);
    // A connection that fails to start shows in its status, not here.
    engine->create_connection(description, option, text9, text10, text11, &window->monitor());
    return 1;
}

namespace {

// Answers 0 with `detail` in the caller's slot, if it gave one.
int refuse(int *err, int detail)
{
    if (err)
        *err = detail;
    return 0;
}

// Hands `call` a detail slot that is never null and answers 1 when the
// engine operation succeeded; without an engine it answers 0 and calls
// nothing.
template <typename Call>
int forward(CVartoEngine *engine, int *err, Call &&call)
{
    if (!engine)
        return refuse(err, ZEL_DETAIL_NO_CONNECTION);
    return call(zel::detail_slot(err)) ? 1 : 0;
}

} // namespace

int CZelEngine::addRqDontStore(void **handle, void *request, CZelReceiver *receiver, void *context, int *err)
{
    return forward(engine, err, [&](int *detail) {
        if (!handle)
            return refuse(detail, ZEL_DETAIL_NULL_ARGUMENT);
        return engine->addRqDontStore(handle, request, receiver, context, detail);
    });
}

int CZelEngine::addWatch(void **handle, int *tags, sPChar *values, int count, void *receiver, void *context,
                         bool option1, long option2, bool option3, bool option4, int *err)
{
    return forward(engine, err, [&](int *detail) {
        if (!handle)
            return refuse(detail, ZEL_DETAIL_NULL_ARGUMENT);
        return engine->addWatch(handle, tags, values, count, receiver, context, option1, option2, option3, option4,
                                detail);
    });
}

int CZelEngine::RemoveWatch(const int *tags, sPChar *values, int count)
{
    // Answers 0 whatever happened; callers never read success from it.
    if (engine)
        engine->RemoveWatch(tags, values, count);
    return 0;
}

int CZelEngine::removeWatch(void *handle, int *err)
{
    return forward(engine, err, [&](int *detail) { return engine->removeWatch(handle, detail); });
}

int CZelEngine::removeWatchesByContext(void *context)
{
    return forward(engine, nullptr, [&](int *) { return engine->removeWatchesByContext(context); });
}

int CZelEngine::removeWatchesByReceiver(CZelReceiver *receiver)
{
    return forward(engine, nullptr, [&](int *) { return engine->removeWatchesByReceiver(receiver); });
}

int CZelEngine::removeAllWatches(int *err)
{
    return forward(engine, err, [&](int *detail) { return engine->removeAllWatches(detail); });
}

int CZelEngine::sendMsg(scratchcb *message, int *err)
{
    return forward(engine, err, [&](int *detail) { return engine->sendMsg(message, detail); });
}

int CZelEngine::registerSrvc(const sPChar *name, void *handler, int option, int *err)
{
    return forward(engine, err, [&](int *detail) { return engine->registerSrvc(name, handler, option, detail); });
}

int CZelEngine::RegisterSrvc(std::string name, CZelReceiver *receiver, int *err)
{
    return forward(engine, err, [&](int *detail) { return engine->RegisterSrvc(std::move(name), receiver, detail); });
}

int CZelEngine::enableHeartbeat(CZelHeartbeatListener *listener, long interval, int *err)
{
    return forward(engine, err, [&](int *detail) {
        // Below 1 ms a transport would beat on every pass of its loop.
        if (interval < 1)
            return refuse(detail, ZEL_DETAIL_BAD_INTERVAL);
        return engine->enableHeartbeat(listener, interval, detail);
    });
}

int CZelEngine::disableHeartbeat(int *)
{
    return 1;
}

int CZelEngine::isHeartbeatEnabled(bool *, int *)
{
    return 1;
}

int CZelEngine::getMeters(sZelMeters *meters, int *err)
{
    return forward(engine, err, [&](int *detail) {
        if (!meters)
            return refuse(detail, ZEL_DETAIL_NULL_ARGUMENT);
        return engine->getMeters(meters, detail);
    });
}

int CZelEngine::resetMeters(int *err)
{
    return forward(engine, err, [&](int *detail) { return engine->resetMeters(detail); });
}

int CZelEngine::removeAllRqs(int *err)
{
    zel::forget_receiver(err);
    return 1;
}

int CZelEngine::openChannel(int *)
{
    return 1;
}

int CZelEngine::stop(int *)
{
    return 1;
}

int CZelEngine::addDevice(const sPChar *, int *)
{
    return 1;
}

int CZelEngine::addVersion(const sPChar *, const sPChar *, int *)
{
    return 1;
}

int CZelEngine::closeChannel(int *err)
{
    // Answers 1 whatever the transport did.
    return forward(engine, err, [&](int *detail) {
        engine->closeChannel(detail);
        return 1;
    });
}

int CZelEngine::enable_log(FILE *file, std::string path)
{
    if (!engine)
        return 0;
    engine->enable_log(file, std::move(path));
    return 1;
}

int CZelEngine::disable_log(FILE *file, std::string path)
{
    if (!engine)
        return 0;
    engine->disable_log(file, std::move(path));
    return 1;
}

void CZelEngine::getConnectionStatus(int *status, int *)
{
    if (window && status)
        *status = window->status();
}

void CZelEngine::setConnectionListener(CZelListener *listener, int *)
{
    if (window)
        window->set_listener(listener);
}

int NT_series()
{
    return 4;
}

int m_all_digits(sPChar *text)
{
    if (!text)
        return 0;
    for (int32_t i = text->len; i-- > 0;) {
        auto byte = static_cast<signed char>(text->data[i]);
        if (byte < '0' || byte > '9')
            return 0;
    }
    return 1;
}
