// The hub's address-book file as zelhub reads it at start: whatever the file
// holds, loading gives a table or a clear error. A table that loads is set
// once more, which writes it back, and must load again to the same entry.
#include <unistd.h>

#include <cstdio>
#include <string>

// The table's code lives with the hub, which is not a library: compiled in.
#include "../tools/zelhub/address_book.cpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string path = "/tmp/fuzz_addrbook_" + std::to_string(getpid());
    if (FILE *file = std::fopen(path.c_str(), "wb")) {
        if (size > 0) // an empty input may come with no bytes at all
            std::fwrite(data, 1, size, file);
        std::fclose(file);
    }
    std::string error;
    zelhub::AddressBook book(path);
    if (book.load(error)) {
        book.set("fuzz key", "fuzz address");
        zelhub::AddressBook again(path);
        if (!again.load(error) || !again.find("fuzz key") || *again.find("fuzz key") != "fuzz address")
            __builtin_trap();
    } else if (error.empty()) {
        __builtin_trap();
    }
    std::remove(path.c_str());
    return 0;
}
