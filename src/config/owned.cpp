// Opening and closing the scratch buffers and files of the loader.
#include "config/owned.h"

namespace zel::cfg {

void ScratchCloser::operator()(scratchcb *s) const
{
    int ignored;
    zel_close_scratch(&s, &ignored);
}

void FileCloser::operator()(sFileDescriptor *fd) const
{
    uint32_t ignored;
    sys_fd_close(&fd, &ignored);
}

OwnedScratch open_scratch(int size, uint32_t *err)
{
    scratchcb *s = nullptr;
    int detail = 0;
    zel_open_scratch(&s, size, &detail);
    *err = uint32_t(detail);
    return OwnedScratch(s);
}

OwnedFile open_for_reading(sPChar *path, uint32_t format, uint32_t *err)
{
    sFileDescriptor *fd = nullptr;
    sFdOpenRequest request{*path, SYS_FD_READ, format, 0, 0};
    if (!sys_fd_open(&fd, &request, err))
        return nullptr;
    return OwnedFile(fd);
}

bool is_usable_path(const sPChar *path)
{
    return path && path->data && path->len > 0;
}

} // namespace zel::cfg
