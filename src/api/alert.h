// Alerts: the texts the library shows the user when something is dropped or
// fails without a caller to report to. Any thread.
#pragma once

namespace zel {

// Hands `text` to the application's alert handler (standard error by
// default) and returns; processing carries on.
void alert(const char *text);

} // namespace zel
