// Shell commands and file deletion and renaming, for counted-string paths.
#include <zel/platform.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "platform/detail_slot.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

bool is_usable(const sPChar *text)
{
    return text && text->data && text->len > 0;
}

// A zero-terminated heap copy of a usable counted string; null when out of
// memory.
std::unique_ptr<char[]> terminated_copy(const sPChar &text)
{
    const size_t length = static_cast<size_t>(text.len);
    std::unique_ptr<char[]> copy(new (std::nothrow) char[length + 1]);
    if (copy) {
        std::memcpy(copy.get(), text.data, length);
        copy[length] = '\0';
    }
    return copy;
}

} // namespace

extern "C" {

uint64_t sys_system_call(sPChar *command, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!is_usable(command))
        return sys_fail(err, 5);
    const auto text = terminated_copy(*command);
    if (!text)
        return sys_fail(err, 9);
    return std::system(text.get()) == 0 ? sys_succeed(err) : sys_fail(err, 1);
}

uint64_t sys_file_delete(sPChar *path, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!is_usable(path))
        return sys_fail(err, 5);
    const auto name = terminated_copy(*path);
    if (!name)
        return sys_fail(err, 9);
    return unlink(name.get()) == 0 ? sys_succeed(err) : sys_fail(err, 1);
}

uint64_t sys_file_rename(sPChar *old_path, sPChar *new_path, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!is_usable(old_path) || !is_usable(new_path))
        return sys_fail(err, 5);
    const auto from = terminated_copy(*old_path);
    const auto to = terminated_copy(*new_path);
    if (!from || !to)
        return sys_fail(err, 9);
    return std::rename(from.get(), to.get()) == 0 ? sys_succeed(err) : sys_fail(err, 1);
}

} // extern "C"
