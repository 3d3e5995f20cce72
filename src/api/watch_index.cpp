// The one matching rule of watches and subscriptions.
#include "api/watch_index.h"

#include <algorithm>
#include <string_view>

namespace zel {

bool satisfies(const vartocb *m, const WatchKeys &keys)
{
    for (const WatchKey &key : keys) {
        const sVartoItem *item = field::first_item(m, key.tag);
        if (!item)
            return false;
        if (!key.value.empty() && std::string_view(item->data, size_t(item->len)) != key.value)
            return false;
    }
    return true;
}

size_t anchor_of(const WatchKeys &keys)
{
    auto with_value = std::find_if(keys.begin(), keys.end(), [](const WatchKey &k) { return !k.value.empty(); });
    // All values empty: the first key. No keys: 0, which is keys.size() then.
    return with_value != keys.end() ? size_t(with_value - keys.begin()) : 0;
}

} // namespace zel
