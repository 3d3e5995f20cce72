// Expands arbitrary bytes as an LZMA frame. Whatever its header claims, the
// call ends with a detail code inside its buffers, and a frame it accepts
// restores exactly the length that the frame declares.
#include "fuzz_util.h"

namespace {

// One handle for the whole run, as a receiver keeps one.
void *lzma_handle()
{
    static void *handle = [] {
        void *h = nullptr;
        int type = ZEL_COMPRESS_LZMA, err;
        zel_compress_open(&h, &type, &err);
        return h;
    }();
    return handle;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ExactScratch in(data, size);
    scratchcb out{};
    int err;
    unsigned long long declared = 0;
    bool sized = zel_compressed_size(lzma_handle(), &in.s, &declared, &err);
    bool restored = zel_decompress(lzma_handle(), &in.s, &out, &err);
    if ((restored && (!sized || uint64_t(out.len) != declared)) || out.len < 0 || out.len > out.alloc)
        __builtin_trap();
    punset_buffer_size(&out, &err);
    return 0;
}
