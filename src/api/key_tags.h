// The process-wide list of key tags that transports compose a message's key
// text from, in this order.
#pragma once

#include <cstdint>
#include <vector>

namespace zel {

// Filled by the first CZelEngine constructed. @locality application thread
const std::vector<int32_t> &key_tags();
void fill_key_tags_once();

} // namespace zel
