// A connection description as the facade joins it: fields separated by "@",
// nothing escaped.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

namespace zel {

// The first `count` fields of `description`, each cut at the first "@" of
// what is left, the last taking the rest (a field that holds "@" shifts the
// ones after it); missing fields are empty.
inline std::vector<std::string> split_description(const std::string &description, size_t count)
{
    std::vector<std::string> fields;
    size_t from = 0;
    while (fields.size() + 1 < count) {
        size_t at = description.find('@', from);
        if (at == std::string::npos)
            break;
        fields.push_back(description.substr(from, at - from));
        from = at + 1;
    }
    fields.push_back(description.substr(std::min(from, description.size())));
    fields.resize(count);
    return fields;
}

} // namespace zel
