// The alert hook: where texts go that the user must see and nobody returns.
#include <zel/engine.h>

#include <atomic>
#include <cstdio>

#include "api/alert.h"

namespace {

void write_to_stderr(const char *text)
{
    std::fprintf(stderr, "%s\n", text);
}

std::atomic<void (*)(const char *)> handler{write_to_stderr};

} // namespace

namespace zel {

void alert(const char *text)
{
    handler.load(std::memory_order_acquire)(text);
}

} // namespace zel

extern "C" void zel_set_alert_handler(void (*h)(const char *text))
{
    handler.store(h ? h : write_to_stderr, std::memory_order_release);
}
