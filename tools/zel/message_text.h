// Messages in the forms a person reads and writes: admin text ("tag count
// value ..."), one JSON object per message, and (tag, value) lists.
#pragma once

#include <zel/zel.h>

#include <functional>
#include <istream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zelcli {

using Fields = std::vector<std::pair<int, std::string>>;

// Builds messages with one reusable builder and buffer, and writes them as
// admin text. A built message stays valid until the next build.
class MessageText {
public:
    MessageText();
    ~MessageText();
    MessageText(const MessageText &) = delete;
    MessageText &operator=(const MessageText &) = delete;

    // The message that admin text describes, after any fields already in
    // `prefix`; null when the text is not admin text.
    scratchcb *from_admin(std::string_view text, const Fields &prefix = {});
    scratchcb *from_fields(const Fields &fields);

    std::string admin(vartocb *message);

private:
    bool add(int tag, std::string_view value);

    vartocb *builder_ = nullptr;
    scratchcb *message_ = nullptr;
    scratchcb *text_ = nullptr;
};

// One JSON object per message: each field's tag as the key, its value as a
// string, or an array of strings for a field with several items; fields in
// the order the message holds them. Bytes that are not UTF-8 are replaced.
std::string json(const vartocb *message);

// Every item of `message` as (tag, value), in the order the message holds
// its fields.
Fields fields_of(const vartocb *message);

// Reads one message of admin text per line of `in` while `more` answers
// true, skipping blank lines and lines that start with '#', and hands each
// message to `use`. Answers 0, or the number of the first line that is not
// admin text (where it stopped).
uint64_t for_each_admin_line(std::istream &in, MessageText &text, const std::function<bool()> &more,
                             const std::function<void(scratchcb *)> &use);

// Admin text given as several arguments, joined by blanks.
std::string joined(const std::vector<std::string> &words);

} // namespace zelcli
