// A hash map keyed by text that is looked up with views into a message, so a
// lookup never copies the key.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace zel {

struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

template <typename Value>
using TextMap = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;

} // namespace zel
