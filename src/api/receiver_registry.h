// The process-wide registry of live receivers (CZelReceiver::isRegistered).
#pragma once

namespace zel {

// Drops the entry for `key`, if there is one. @locality any thread; takes
// the registry's lock
void forget_receiver(const void *key);

} // namespace zel
