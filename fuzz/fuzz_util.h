// Shared pieces of the message fuzz targets.
#pragma once

#include <zel/zel.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// A scratch buffer holding exactly the input bytes, so that any read past
// them is caught.
struct ExactScratch {
    scratchcb s{};

    ExactScratch(const uint8_t *data, size_t size)
    {
        s.len = s.size = s.alloc = int32_t(size);
        s.data = static_cast<char *>(std::malloc(size ? size : 1));
        if (size)
            std::memcpy(s.data, data, size);
    }
    ~ExactScratch() { std::free(s.data); }
};

// A scratch buffer the library allocates, closed on scope exit.
struct OwnedScratch {
    scratchcb *s = nullptr;

    explicit OwnedScratch(int size = 16) { int err; zel_open_scratch(&s, size, &err); }
    ~OwnedScratch() { int err; zel_close_scratch(&s, &err); }
};

// Ends the run with the message when a check fails.
template <typename... Args> void require(bool ok, const char *format, Args... args)
{
    if (!ok) {
        std::fprintf(stderr, format, args...);
        std::abort();
    }
}

// One vartocb for the whole run: it is large and meant to be reused.
inline vartocb *shared_vartocb(int which = 0)
{
    static vartocb *blocks[2];
    int err;
    if (!blocks[which])
        zel_ctor_vartocb(&blocks[which], &err);
    return blocks[which];
}

// Reads every field and item of the indexed message, the way a receiver does.
inline void read_every_field(vartocb *m)
{
    int err, tag = 0, count = 0;
    for (int more = zel_get_first_field(m, &tag, &count, &err); more;
         more = zel_get_next_field(m, &tag, &count, &err)) {
        for (int i = 0; i < count; ++i) {
            sPChar v;
            if (zel_get_data(m, tag, i, &v, &err) && v.len > 0)
                (void)*(volatile char *)&v.data[v.len - 1];
        }
    }
}
