// Worker reports to connection status, listener notices and re-bound watches.
#include "api/connection_monitor.h"

#include <cctype>

#include "api/engine_interface.h"
#include "api/receive_window.h"

namespace zel {

namespace {

// The text a report stands for: "<text> : <code>" is read as "<text>".
std::string_view report_text(std::string_view text)
{
    size_t at = text.rfind(" : ");
    if (at == std::string_view::npos)
        return text;
    std::string_view code = text.substr(at + 3);
    if (!code.empty() && (code[0] == '-' || code[0] == '+'))
        code.remove_prefix(1);
    if (code.empty())
        return text;
    for (char c : code)
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return text;
    return text.substr(0, at);
}

} // namespace

StatusChange next_status(int current, std::string_view text)
{
    std::string_view known = report_text(text);
    if (known == "connection success")
        return {ZEL_STATUS_CONNECTED, true};
    if (known == "connection not open") {
        if (current == ZEL_STATUS_CONNECTED)
            return {ZEL_STATUS_LOST, true};
        return {ZEL_STATUS_RECOVERING, current == ZEL_STATUS_CREATED};
    }
    if (known == "recovery attempt failed, trying again" ||
        known == "no of reconnection attempts limit breached. shutting down.")
        return {ZEL_STATUS_RECOVERING, current != ZEL_STATUS_RECOVERING};
    return {current, false};
}

} // namespace zel

int CVartoSpy::report(int, std::string_view text)
{
    zel::StatusChange change = zel::next_status(window_.status(), text);
    // Every report while connected binds every watch again, not only the
    // first: that is how watches reach a connection made anew. They are
    // bound before the status says connected, so nothing the application
    // sends once it sees the connection up can overtake them.
    CVartoEngine *owner = engine();
    if (change.status == ZEL_STATUS_CONNECTED && owner)
        window_.for_each_watch_newest_first([owner](sWatchData &watch) { owner->rebind(watch); });
    window_.set_status(change.status);
    if (change.notify)
        window_.post_status_change();
    return 1;
}

CVartoEngine *CVartoSpy::engine() const
{
    return window_.engine();
}
