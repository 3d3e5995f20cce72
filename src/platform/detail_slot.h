// Where an exported call writes its detail code. Callers may pass a null detail
// pointer when they only look at the result; every exported entry point first
// swaps such a pointer for a per-thread sink, so the code below it (and every
// helper it hands the pointer to) can go on writing through it unconditionally.
#pragma once

namespace zel {

template <typename Detail>
inline Detail *detail_slot(Detail *err)
{
    // Per thread, so concurrent callers that pass null never share a write.
    thread_local Detail sink;
    return err ? err : &sink;
}

} // namespace zel
