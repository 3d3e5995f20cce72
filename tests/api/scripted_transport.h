// A transport for tests: its worker runs a script in place of a connection,
// and its engine records what it is asked to do; and what the application
// thread of a test does with what the worker posts.
#pragma once

#include <gtest/gtest.h>
#include <zel/engine.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "api/engine_interface.h"
#include "api/receive_window.h"

struct ScriptedWorker : CVartoWorker {
    // What serve does; by default it connects and stays until a stop.
    std::function<void(ScriptedWorker &)> script = [](ScriptedWorker &w) {
        w.reportStatus(100, "connection success");
        w.end_first_attempt(connected_once);
        w.wait_for_stop();
    };
    std::function<void(unsigned)> on_timer = [](unsigned) {};
    std::atomic<int> serves{0}, recovers{0}, wakes{0};
    static inline std::atomic<int> serves_ended{0}; // by any worker: outlives the engine

    int serve() override
    {
        ++serves;
        script(*this);
        ++serves_ended;
        return 1;
    }
    int recover() override { return ++recovers; }
    int receive() override { return 1; }
    int sendHeartbeat() override { return 1; }
    int wake() override
    {
        int woken = ++wakes;
        wakes.notify_all();
        return woken;
    }
    void timer_fired(unsigned id) override { on_timer(id); }
    void wait_for_stop()
    {
        // A real worker notices the stop on its next receive pass; here the
        // wake that comes with it is enough.
        for (int seen = wakes.load(); !stop_requested(); seen = wakes.load())
            wakes.wait(seen);
    }
};

struct RecordingEngine : CVartoEngine {
    ScriptedWorker worker;
    std::vector<std::string> calls; // slot names, in call order
    std::string description;
    std::vector<const sWatchData *> rebound;

    ~RecordingEngine() override { stop_worker(); }

    int create_connection(std::string d, int, std::string, std::string, std::string, CVartoSpy *monitor) override
    {
        calls.push_back("create_connection");
        description = d;
        worker.setMonitor(monitor);
        return start_worker(&worker);
    }
    int record(const char *slot)
    {
        calls.push_back(slot);
        return 7; // any success
    }
    int addRqDontStore(void **, void *, CZelReceiver *, void *, int *) override { return record("addRqDontStore"); }
    int addWatch(void **, int *, sPChar *, int, void *, void *, bool, long, bool, bool, int *) override
    {
        return record("addWatch");
    }
    int RemoveWatch(const int *, sPChar *, int) override { return record("RemoveWatch"); }
    int removeWatch(void *, int *) override { return record("removeWatch"); }
    int sendMsg(scratchcb *, int *) override { return record("sendMsg"); }
    int enableHeartbeat(CZelHeartbeatListener *, long, int *) override { return record("enableHeartbeat"); }
    int getMeters(sZelMeters *, int *) override { return record("getMeters"); }
    int removeWatchesByContext(void *) override { return record("removeWatchesByContext"); }
    int removeWatchesByReceiver(CZelReceiver *) override { return record("removeWatchesByReceiver"); }
    int removeAllWatches(int *) override { return record("removeAllWatches"); }
    int RegisterSrvc(std::string, CZelReceiver *, int *) override { return record("RegisterSrvc"); }
    int registerSrvc(const sPChar *, void *, int, int *) override { return record("registerSrvc"); }
    int resetMeters(int *err) override { return record(err ? "resetMeters" : "resetMeters(null)"); }
    int enable_log(FILE *, std::string) override { return record("enable_log"); }
    int disableHeartbeat(int *) override { return record("disableHeartbeat"); }
    int disable_log(FILE *, std::string) override { return record("disable_log"); }
    int closeChannel(int *) override { return record("closeChannel"); }
    void rebind(const sWatchData &watch) override { rebound.push_back(&watch); }

protected:
    bool connected() const override { return true; }
    int remove_watches(const std::function<bool(const sWatchData &)> &) override { return 0; }
};

// Handles everything posted to this thread so far.
inline void pump_all()
{
    while (zel_pump_messages(0) > 0)
        ;
}

// Records the statuses it hears, which must come on the thread that made it.
struct Listener : CZelListener {
    std::vector<int> seen;
    std::thread::id pumping_thread = std::this_thread::get_id();
    int statusChange(int status, int *err) override
    {
        EXPECT_EQ(*err, 0);
        EXPECT_EQ(std::this_thread::get_id(), pumping_thread);
        seen.push_back(status);
        return 1;
    }
};
