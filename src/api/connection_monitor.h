// The connection monitor: turns a worker's status reports into the
// connection status, has the listener told, and while connected has every
// watch bound again (which is how watches survive a reconnect).
#pragma once

#include <string_view>

class CIntRxWnd;
struct sWatchData;

namespace zel {

// What the monitor hands each watch to while connected; the connection's
// engine implements it. @locality worker thread, window lock held
class WatchBinder {
public:
    virtual ~WatchBinder() = default;
    virtual void rebind(const sWatchData &watch) = 0;
};

// The status after a report `text` arrives in status `current`, and whether
// the listener is to be told. A text "<known text> : <code>" counts as the
// known text; any other text changes nothing.
struct StatusChange {
    int status;
    bool notify;
};
StatusChange next_status(int current, std::string_view text);

} // namespace zel

class CVartoSpy {
public:
    explicit CVartoSpy(CIntRxWnd &window) : window_(window) {}
    virtual ~CVartoSpy() = default;

    // A worker's report. @locality worker thread
    virtual int report(int level, std::string_view text);
    void set_binder(zel::WatchBinder *binder) { binder_ = binder; }

private:
    CIntRxWnd &window_;
    zel::WatchBinder *binder_ = nullptr;
};
