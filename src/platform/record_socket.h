// What the library's own callers need of a record socket beyond the
// exported sys_sd_* calls.
#pragma once

namespace zel {

// Bounds every wait of a blocking read on `sd` to `ms` milliseconds (0: no
// bound again). A read that runs out answers detail 4 and keeps what arrived
// of a record for the next read. False when `sd` is not connected.
// @locality the thread that uses `sd`
bool sd_bound_read_wait(void *sd, int ms);

} // namespace zel
