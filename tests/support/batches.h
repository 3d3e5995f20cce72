// Batches handed to a window the way a worker hands them on, for tests and
// benchmarks that play the worker.
#pragma once

#include <cstdint>
#include <memory>

#include "api/batch_buffer.h"
#include "api/receive_window.h"

namespace zel::test {

// Posts the bytes of `messages` whole messages to `window` as one batch,
// after waiting for batch room as a worker does.
inline void post_block(CIntRxWnd &window, const char *bytes, int32_t len, int32_t messages = 1)
{
    zel::wait_for_batch_room();
    auto batch = std::make_unique<zel::BatchBuffer>();
    if (batch->append(bytes, len, messages))
        window.post_batch(batch.release());
}

} // namespace zel::test
