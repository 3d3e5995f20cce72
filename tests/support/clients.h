// An application's side of a connection, as the end-to-end suites use it:
// receivers that record what they get, a listener that records the status
// changes, and a connection with the calls a test makes most.
#pragma once

#include <gtest/gtest.h>
#include <zel/engine.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/messages.h"
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
    bool saw(const std::string &text) const
    {
        return std::find(messages.begin(), messages.end(), text) != messages.end();
    }
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
class AlertLog {
public:
    AlertLog()
    {
        current() = this;
        zel_set_alert_handler(record);
    }
    ~AlertLog()
    {
        zel_set_alert_handler(nullptr);
        current() = nullptr;
    }
    size_t count()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return count_;
    }

private:
    static AlertLog *&current()
    {
        static AlertLog *log = nullptr;
        return log;
    }
    static void record(const char *)
    {
        std::lock_guard<std::mutex> guard(current()->lock_);
        ++current()->count_;
    }

    std::mutex lock_;
    size_t count_ = 0;
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
    sZelMeters meters()
    {
        sZelMeters m{};
        engine.getMeters(&m, &err);
        return m;
    }
};

} // namespace zel::test
