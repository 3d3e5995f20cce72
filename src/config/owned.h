// Owners of the scratch buffers and files the loader opens, so that every way
// out of a loading or compiling call closes them. Single-threaded.
#pragma once

#include <zel/descriptors.h>
#include <zel/types.h>

#include <cstdint>
#include <memory>

namespace zel::cfg {

struct ScratchCloser {
    void operator()(scratchcb *s) const;
};
using OwnedScratch = std::unique_ptr<scratchcb, ScratchCloser>;

struct FileCloser {
    void operator()(sFileDescriptor *fd) const;
};
using OwnedFile = std::unique_ptr<sFileDescriptor, FileCloser>;

// A heap scratch of `size` bytes, or null with the scratch layer's detail.
OwnedScratch open_scratch(int size, uint32_t *err);

// `path` opened read-only in record format `format`, or null with the file
// layer's detail.
OwnedFile open_for_reading(sPChar *path, uint32_t format, uint32_t *err);

// A path the loaders accept: present and not empty.
bool is_usable_path(const sPChar *path);

} // namespace zel::cfg
