// The address book that the hub keeps for its clients: a table from keys to
// addresses, both any bytes.
//
// With a file, the table is read from it at start and written back whole
// after every change, into a temporary file beside it that is synced and
// then renamed over it: a crash leaves the old table or the new one, never a
// part of one.
//
// The file is text: the line "zelhub address book 1", then one line per
// entry, KEY<TAB>ADDRESS, sorted by key so that the same table always makes
// the same file. In keys and addresses, a backslash and every byte outside
// printable ASCII (tab and line breaks included) are written \xHH, so that
// any bytes come back as they were and an entry is always one line.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace zelhub {

class AddressBook {
public:
    // The most bytes a key or an address may have.
    static constexpr size_t longest_value = 64 * 1024;

    // An empty `file`: the table lives in memory only.
    explicit AddressBook(std::string file) : file_(std::move(file)) {}

    // Reads the file, if there is one yet: without one the table starts empty
    // and the file is made at the first change. False, with `error` naming the
    // file and the line, when it cannot be read or is not an address book.
    bool load(std::string &error);

    // Null for an unknown key.
    const std::string *find(std::string_view key) const;
    // A change that cannot be written to the file is logged and kept in
    // memory all the same: the clients go on with the table they changed.
    void set(std::string_view key, std::string_view address);
    void unset(std::string_view key);

private:
    bool parse(std::string_view text, std::string &error);
    std::string take_line(int number, std::string_view line);
    void save() const;

    std::string file_;
    std::map<std::string, std::string, std::less<>> entries_; // in the file's order
};

} // namespace zelhub
