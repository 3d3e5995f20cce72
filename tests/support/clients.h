// An application's side of a connection, as the end-to-end suites use it:
// receivers that record what they get, a listener that records the status
// changes, and a connection with the calls a test makes most.
#pragma once

#include <gtest/gtest.h>
#include <zel/engine.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/messages.h"
#include "support/scoped_env.h"
#include "support/time_factor.h"

namespace zel::test {

// Pumps the calling thread's queue until `done`; false after `patience`.
inline bool pump_until(const std::function<bool()> &done, std::chrono::milliseconds wait = patience())
{
    auto deadline = std::chrono::steady_clock::now() + wait;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        zel_pump_messages(20);
    }
    return true;
}

// Reconnects come quickly in tests.
struct ReconnectDelays {
    ScopedEnv base, max;
    ReconnectDelays(const char *base_ms, const char *max_ms)
        : base("ZEL_RECONNECT_BASE_MS", base_ms), max("ZEL_RECONNECT_MAX_MS", max_ms)
    {
    }
};

// The whole of a file, such as a trace.
inline std::string file_text(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// The request number a service request carries, which its reply must repeat.
inline std::string request_number(vartocb *request)
{
    sPChar number{};
    int err = 0;
    EXPECT_EQ(zel_get_data(request, 32760, 0, &number, &err), 1);
    return std::string(number.data, size_t(number.len));
}

struct Recorder : CZelReceiver {
    std::vector<std::string> messages; // admin text of each message, in order
    std::vector<int> kinds;
    std::vector<void *> requests, contexts;
    std::function<void(vartocb *)> respond;
    int processMsg(vartocb *msg, int kind, sWatchData *, void *context, int *) override
    {
        messages.push_back(admin_text(msg));
        kinds.push_back(kind);
        contexts.push_back(context);
        if (respond)
            respond(msg);
        return 1;
    }
    int processReply(vartocb *reply, int kind, void *request, void *context, int *) override
    {
        requests.push_back(request);
        return processMsg(reply, kind, nullptr, context, nullptr);
    }
    bool saw(const std::string &text) const { return std::ranges::find(messages, text) != messages.end(); }
};

struct StatusLog : CZelListener {
    std::vector<int> seen;
    int statusChange(int status, int *) override
    {
        seen.push_back(status);
        return 1;
    }
};

// Counts the alerts raised while it lives, from any thread.
struct AlertLog {
    static inline std::atomic<size_t> raised{0};
    AlertLog()
    {
        raised = 0;
        zel_set_alert_handler([](const char *) { ++raised; });
    }
    ~AlertLog() { zel_set_alert_handler(nullptr); }
    size_t count() { return raised; }
};

// A connection; the suite's own type opens it.
struct Connection {
    std::unique_ptr<CZelEngine> owned = std::make_unique<CZelEngine>();
    CZelEngine &engine = *owned;
    StatusLog statuses;
    int err = 0;

    int status()
    {
        int s = 0;
        engine.getConnectionStatus(&s, &err);
        return s;
    }
    void *watch(std::vector<int> tags, std::vector<std::string> values, CZelReceiver *receiver, void *context = nullptr)
    {
        std::vector<sPChar> v;
        for (auto &value : values)
            v.push_back({value.data(), int32_t(value.size())});
        void *handle = nullptr;
        EXPECT_EQ(engine.addWatch(&handle, tags.data(), v.data(), int(tags.size()), receiver, context, false, 0,
                                  false, false, &err),
                  1);
        return handle;
    }
    int send(const std::string &bytes)
    {
        scratchcb message = scratch_of(bytes);
        return engine.sendMsg(&message, &err);
    }
    int send(const Fields &fields) { return send(build_message(fields)); }
    int serve(const std::string &name, CZelReceiver *receiver)
    {
        sPChar service{const_cast<char *>(name.data()), int32_t(name.size())};
        return engine.registerSrvc(&service, receiver, 0, &err);
    }
    // Sends a request for the service named in field 0, from a buffer of the
    // library's own, which the request may grow; the engine's answer.
    int ask(const Fields &fields, CZelReceiver *receiver, void *context = nullptr, void **handle = nullptr)
    {
        std::string bytes = build_message(fields);
        scratchcb *buffer = nullptr;
        zel_open_scratch(&buffer, int(bytes.size()), nullptr);
        std::memcpy(buffer->data, bytes.data(), bytes.size());
        buffer->len = int32_t(bytes.size());
        void *ignored = nullptr;
        int done = engine.addRqDontStore(handle ? handle : &ignored, buffer, receiver, context, &err);
        zel_close_scratch(&buffer, nullptr);
        return done;
    }
    // Waits until the peer has handled everything this connection asked of it
    // before: a message to a watch of its own comes back through the peer.
    bool round_trip(std::chrono::milliseconds wait = patience())
    {
        static int round = 0;
        std::string mark = "sync" + std::to_string(++round);
        Recorder sync;
        void *handle = watch({60001}, {mark}, &sync);
        bool back = send({{60001, mark}}) == 1 && pump_until([&] { return !sync.messages.empty(); }, wait);
        engine.removeWatch(handle, &err);
        return back;
    }
    sZelMeters meters()
    {
        sZelMeters m{};
        engine.getMeters(&m, &err);
        return m;
    }
};

} // namespace zel::test
