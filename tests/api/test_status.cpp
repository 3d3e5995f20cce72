// Connection status: the rules that turn worker reports into a status and a
// notification, the listener calls they lead to on the application thread,
// and the rebinding of every watch while connected.
#include <gtest/gtest.h>
#include <zel/engine.h>

#include <array>
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

TEST(ConnectionMonitor, TheListenerHearsEachNotificationOnThePumpingThreadWithTheCurrentStatus)
{
    CIntRxWnd window;
    Listener listener;
    window.set_listener(&listener);
    std::thread([&] {
        window.monitor().report(0, success);
        window.monitor().report(0, not_open);
    }).join();
    EXPECT_EQ(window.status(), ZEL_STATUS_LOST);
    EXPECT_TRUE(listener.seen.empty()); // nothing before the pump
    pump_all();
    EXPECT_EQ(listener.seen, (std::vector<int>{4, 4})); // both see the status of the moment
    std::thread([&] {
        for (int i = 0; i < 3; ++i)
            window.monitor().report(0, retry);
        window.monitor().report(0, not_open);
        window.monitor().report(0, "publish failed");
    }).join();
    EXPECT_EQ(window.status(), ZEL_STATUS_RECOVERING);
    pump_all();
    EXPECT_EQ(listener.seen, (std::vector<int>{4, 4, 3}));
    CIntRxWnd unheard; // a notification without a listener is not kept for a later one
    unheard.monitor().report(0, success);
    EXPECT_EQ(unheard.status(), ZEL_STATUS_CONNECTED);
    pump_all();
    Listener late;
    unheard.set_listener(&late);
    pump_all();
    EXPECT_TRUE(late.seen.empty());
}

TEST(ConnectionMonitor, WhileConnectedEveryReportRebindsEveryWatchNewestFirst)
{
    CIntRxWnd window;
    RecordingEngine engine;
    window.set_engine(&engine);
    std::vector<const sWatchData *> &rebound = engine.rebound;
    std::vector<sWatchData *> w;
    for (int i = 0; i < 3; ++i)
        window.add_watch(w.emplace_back(new sWatchData{{5}, {std::to_string(i)}, nullptr, nullptr, "", ""}));
    window.monitor().report(0, retry); // not connected: nothing to bind
    EXPECT_TRUE(rebound.empty());
    window.monitor().report(0, success);
    window.monitor().report(0, "publish failed"); // still connected: all again
    EXPECT_EQ(rebound, (std::vector<const sWatchData *>{w[2], w[1], w[0], w[2], w[1], w[0]}));
    rebound.clear();
    for (const char *text : {not_open, not_open, retry})
        window.monitor().report(0, text);
    EXPECT_TRUE(rebound.empty());
    EXPECT_TRUE(window.remove_watch(w[1]));
    window.monitor().report(0, success);
    EXPECT_EQ(rebound, (std::vector<const sWatchData *>{w[2], w[0]}));
    pump_all();
}

} // namespace
