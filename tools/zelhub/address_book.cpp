#include "address_book.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "system_error.h"

namespace zelhub {

namespace {

constexpr std::string_view first_line = "zelhub address book 1";

bool printable_as_itself(unsigned char c)
{
    return c >= 0x20 && c < 0x7f && c != '\\';
}

void append_escaped(std::string &text, std::string_view bytes)
{
    static constexpr char hex[] = "0123456789abcdef";
    for (unsigned char c : bytes) {
        if (printable_as_itself(c)) {
            text += char(c);
        } else {
            text += "\\x";
            text += hex[c >> 4];
            text += hex[c & 0xf];
        }
    }
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// False for a byte that should have been escaped, or a broken escape.
bool unescape(std::string_view text, std::string &bytes)
{
    bytes.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (printable_as_itself(static_cast<unsigned char>(text[i]))) {
            bytes += text[i];
            continue;
        }
        if (text.substr(i, 2) != "\\x" || i + 4 > text.size())
            return false;
        int high = hex_digit(text[i + 2]), low = hex_digit(text[i + 3]);
        if (high < 0 || low < 0)
            return false;
        bytes += char(high * 16 + low);
        i += 3;
    }
    return true;
}

// Why a line is not an entry; empty when it is one, read into `key` and `address`.
std::string read_entry(std::string_view line, std::string &key, std::string &address)
{
    size_t tab = line.find('\t');
    if (tab == std::string_view::npos)
        return "no tab between key and address";
    if (!unescape(line.substr(0, tab), key) || !unescape(line.substr(tab + 1), address))
        return "a byte that should be escaped, or a broken \\xHH escape";
    return {};
}

// The whole file; false, with errno telling why, when it cannot be read.
bool read_file(const std::string &path, std::string &bytes)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char chunk[64 * 1024];
    ssize_t got;
    while ((got = read(fd, chunk, sizeof chunk)) != 0) {
        if (got > 0)
            bytes.append(chunk, size_t(got));
        else if (errno != EINTR)
            break;
    }
    int reason = errno;
    close(fd);
    errno = reason;
    return got == 0;
}

bool write_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        ssize_t put = write(fd, bytes.data(), bytes.size());
        if (put > 0)
            bytes.remove_prefix(size_t(put));
        else if (errno != EINTR)
            return false;
    }
    return true;
}

std::string directory_of(const std::string &path)
{
    std::string directory = std::filesystem::path(path).parent_path();
    return directory.empty() ? "." : directory;
}

// A rename is on disk only once its directory is.
std::string sync_directory_of(const std::string &path)
{
    std::string directory = directory_of(path);
    int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return system_error("open " + directory);
    std::string failure = fsync(fd) == 0 ? "" : system_error("sync " + directory);
    close(fd);
    return failure;
}

// Puts `text` in place of the file at `path`, whole or not at all; empty on
// success, else what failed.
std::string replace_file(const std::string &path, std::string_view text)
{
    std::string temporary = path + ".XXXXXX";
    int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        return system_error("create " + temporary);
    std::string failure;
    if (!write_all(fd, text) || fsync(fd) != 0)
        failure = system_error("write " + temporary);
    if (close(fd) != 0 && failure.empty())
        failure = system_error("close " + temporary);
    if (failure.empty() && rename(temporary.c_str(), path.c_str()) != 0)
        failure = system_error("rename " + temporary);
    if (!failure.empty()) {
        unlink(temporary.c_str());
        return failure;
    }
    return sync_directory_of(path);
}

} // namespace

bool AddressBook::load(std::string &error)
{
    if (file_.empty())
        return true;
    std::string text;
    if (read_file(file_, text))
        return parse(text, error);
    error = system_error("address book " + file_);
    // Not there yet is an empty table, as long as it can be made.
    std::error_code unknown;
    return errno == ENOENT && std::filesystem::is_directory(directory_of(file_), unknown);
}

bool AddressBook::parse(std::string_view text, std::string &error)
{
    for (int number = 1;; ++number) {
        size_t end = text.find('\n');
        if (std::string why = take_line(number, text.substr(0, end)); !why.empty()) {
            error = "address book " + file_ + " line " + std::to_string(number) + ": " + why;
            return false;
        }
        // The last line may lack its line feed.
        if (end == std::string_view::npos || end + 1 == text.size())
            return true;
        text.remove_prefix(end + 1);
    }
}

// Why a line of the file cannot be taken; empty once it is taken.
std::string AddressBook::take_line(int number, std::string_view line)
{
    if (number == 1)
        return line == first_line ? "" : "not the line \"" + std::string(first_line) + "\"";
    std::string key, address;
    if (std::string why = read_entry(line, key, address); !why.empty())
        return why;
    return entries_.emplace(std::move(key), std::move(address)).second ? "" : "a key that an earlier line has";
}

const std::string *AddressBook::find(std::string_view key) const
{
    auto entry = entries_.find(key);
    return entry == entries_.end() ? nullptr : &entry->second;
}

void AddressBook::set(std::string_view key, std::string_view address)
{
    if (const std::string *known = find(key); known && *known == address)
        return;
    entries_.insert_or_assign(std::string(key), std::string(address));
    save();
}

void AddressBook::unset(std::string_view key)
{
    auto entry = entries_.find(key);
    if (entry == entries_.end())
        return;
    entries_.erase(entry);
    save();
}

void AddressBook::save() const
{
    if (file_.empty())
        return;
    std::string text(first_line);
    text += '\n';
    for (const auto &[key, address] : entries_) {
        append_escaped(text, key);
        text += '\t';
        append_escaped(text, address);
        text += '\n';
    }
    if (std::string failure = replace_file(file_, text); !failure.empty())
        std::fprintf(stderr, "zelhub: address book %s not saved, the change is kept in memory only: %s\n",
                     file_.c_str(), failure.c_str());
}

} // namespace zelhub
