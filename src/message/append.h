// Appending to a scratch buffer that grows as needed (doubling), for the
// writers that must never run past a buffer. Single-threaded; no lock.
#pragma once

#include <zel/types.h>

#include <cstdint>

namespace zel::msg {

// Makes room for `extra` more bytes after `out->len`. Detail 4 when the
// buffer cannot grow.
bool reserve_append(scratchcb *out, int64_t extra, int *err);

// Appends `len` bytes; `text` may point into `out` itself.
bool append_bytes(scratchcb *out, const char *text, int64_t len, int *err);

} // namespace zel::msg
