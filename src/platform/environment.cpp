// Environment variables and the names of the user and the machine, read
// through the layer's one shared environment buffer.
#include <zel/platform.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/detail_slot.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

constexpr size_t env_buffer_size = 400;

// Shared by every caller on every thread, without a lock: each read
// overwrites it, so callers copy a value before they read another.
char env_buffer[env_buffer_size];

// Reads one variable for sys_get_host_by_name; a read that fails is reported
// on standard error.
bool read_named_variable(sPChar *out, const char *name, uint32_t *err)
{
    if (sys_fetch_env_variable(out, name, err))
        return true;
    std::fprintf(stderr, "\nEnvironment Variable %s not set.\n", name);
    *err = 2;
    return false;
}

} // namespace

extern "C" {

uint64_t sys_fetch_env_variable(sPChar *out, const char *name, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!name)
        return sys_fail(err, 3);
    if (!out)
        return sys_fail(err, 5);
    std::memset(env_buffer, 0, sizeof env_buffer);
    const char *value = std::getenv(name);
    // A value without room for its terminator reads as unset.
    if (value && strnlen(value, sizeof env_buffer) < sizeof env_buffer)
        std::strcpy(env_buffer, value);
    out->data = env_buffer;
    out->len = static_cast<int32_t>(std::strlen(env_buffer));
    return sys_succeed(err);
}

uint64_t sys_get_host_by_name(sPChar *user, sPChar *host, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!user || !host || user == host)
        return sys_fail(err, 5);
    // Both reads fill the shared buffer, so afterwards `user` points at the
    // HOSTNAME text with the USER value's length. Kept: callers are written
    // against exactly this.
    if (!read_named_variable(user, "USER", err) || !read_named_variable(host, "HOSTNAME", err))
        return 0;
    return sys_succeed(err);
}

} // extern "C"
