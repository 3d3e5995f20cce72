// The connection monitor: turns a worker's status reports into the
// connection status, has the listener told, and while connected has every
// watch bound again (which is how watches survive a reconnect).
#pragma once

#include <string_view>

class CIntRxWnd;
class CVartoEngine;

namespace zel {

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
    // The connection's engine, once the facade has linked it.
    CVartoEngine *engine() const;

private:
    CIntRxWnd &window_;
};
