// Connection status: the rules that turn worker reports into a status and a
// notification, the listener calls they lead to on the application thread,
// and the rebinding of every watch while connected.
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <array>
#include <initializer_list>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "api/connection_monitor.h"
#include "api/receive_window.h"
#include "scripted_transport.h"

namespace {

const char *const success = "connection success";
const char *const not_open = "connection not open";
const char *const retry = "recovery attempt failed, trying again";
const char *const given_up = "no of reconnection attempts limit breached. shutting down.";

// Reports `texts` in order from a worker thread of its own.
void report_from_worker(CIntRxWnd &window, std::initializer_list<const char *> texts)
{
    std::thread([&] {
        for (const char *text : texts)
            window.monitor().report(0, text);
    }).join();
}

TEST(StatusRules, EachReportFromEachStatusGivesItsNextStatusAndNotification)
{
    // The status and whether to notify after `text`, from statuses 1 to 4; a
    // known text with a code counts as the text, anything else changes nothing.
    const std::vector<std::tuple<std::string, std::array<int, 4>, std::array<bool, 4>>> rules = {
        {success, {2, 2, 2, 2}, {1, 1, 1, 1}},
        {not_open, {3, 4, 3, 3}, {1, 1, 0, 0}},
        {retry, {3, 3, 3, 3}, {1, 1, 0, 1}},
        {given_up, {3, 3, 3, 3}, {1, 1, 0, 1}},
        {"connection not open : 104", {3, 4, 3, 3}, {1, 1, 0, 0}},
        {"recovery attempt failed, trying again : -111", {3, 3, 3, 3}, {1, 1, 0, 1}},
        {"connection success : 1x", {1, 2, 3, 4}, {0, 0, 0, 0}},
        {"", {1, 2, 3, 4}, {0, 0, 0, 0}},
        {"publish failed", {1, 2, 3, 4}, {0, 0, 0, 0}},
        {"connection successful", {1, 2, 3, 4}, {0, 0, 0, 0}},
        {"connection not opened", {1, 2, 3, 4}, {0, 0, 0, 0}}};
    for (const auto &[text, status, notify] : rules)
        for (int from = 1; from <= 4; ++from) {
            zel::StatusChange got = zel::next_status(from, text);
            EXPECT_EQ(std::make_pair(got.status, got.notify), std::make_pair(status[from - 1], notify[from - 1]))
                << from << " " << text;
        }
}

// What reports lead to, on one window: while connected each one binds every
// watch again, newest first; its notification reaches the listener on the
// pumping thread with the status of that moment, and none waits for a later
// listener.
TEST(ConnectionMonitor, WhileConnectedReportsRebindEveryWatchAndTheListenerHearsOnThePumpingThread)
{
    CIntRxWnd window;
    RecordingEngine engine;
    window.set_engine(&engine);
    Listener listener;
    window.set_listener(&listener);
    std::vector<const sWatchData *> &rebound = engine.rebound;
    std::vector<sWatchData *> w;
    for (int i = 0; i < 3; ++i)
        window.add_watch(w.emplace_back(new sWatchData{{5}, {std::to_string(i)}, nullptr, nullptr, "", ""}));
    report_from_worker(window, {retry}); // not connected: nothing to bind
    EXPECT_TRUE(rebound.empty());
    report_from_worker(window, {success, "publish failed"}); // still connected: all again
    EXPECT_EQ(rebound, (std::vector<const sWatchData *>{w[2], w[1], w[0], w[2], w[1], w[0]}));
    EXPECT_TRUE(listener.seen.empty()); // nothing before the pump
    pump_all();
    EXPECT_EQ(listener.seen, (std::vector<int>{2, 2})); // both hear the status of the moment

    rebound.clear();
    report_from_worker(window, {not_open, not_open, retry});
    EXPECT_TRUE(rebound.empty());
    pump_all();
    EXPECT_EQ(listener.seen, (std::vector<int>{2, 2, 3}));
    EXPECT_TRUE(window.remove_watch(w[1]));
    report_from_worker(window, {success});
    EXPECT_EQ(rebound, (std::vector<const sWatchData *>{w[2], w[0]}));

    window.set_listener(nullptr); // the last notification is unheard, and not kept for a later listener
    pump_all();
    window.set_listener(&listener);
    pump_all();
    EXPECT_EQ(listener.seen, (std::vector<int>{2, 2, 3}));
}

} // namespace
