// Reading a format or ini file whole into memory.
#include "config/text_lists.h"

namespace zel::cfg {

namespace {

// The buffer's first size; the file layer grows it while the file is longer.
constexpr int text_buffer_size = 4096;

} // namespace

bool read_text_file(sPChar *path, OwnedScratch *text, uint32_t *err)
{
    *text = open_scratch(text_buffer_size, err);
    if (!*text) {
        *err = 4;
        return false;
    }
    OwnedFile file = open_for_reading(path, SYS_FD_WHOLE, err);
    if (!file)
        return false;
    if (!sys_fd_read(file.get(), 0, text->get(), err)) {
        *err = 4;
        return false;
    }
    return true;
}

} // namespace zel::cfg
