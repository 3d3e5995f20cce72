#include "message_text.h"

#include <nlohmann/json.hpp>

#include <charconv>
#include <new>

namespace zelcli {

MessageText::MessageText()
{
    int err = 0;
    if (!zel_ctor_vartocb(&builder_, &err) ||
        !zel_open_scratch(&message_, 1024, &err) || !zel_open_scratch(&text_, 1024, &err))
        throw std::bad_alloc();
}

MessageText::~MessageText()
{
    zel_close_scratch(&text_, nullptr);
    zel_close_scratch(&message_, nullptr);
    zel_dtor_vartocb(&builder_, nullptr);
}

bool MessageText::add(int tag, std::string_view value)
{
    sPChar item{const_cast<char *>(value.data()), int32_t(value.size())};
    if (value.empty())
        item.data = nullptr;
    return zel_add_data(builder_, tag, 1, &item, nullptr) == 1;
}

scratchcb *MessageText::from_fields(const Fields &fields)
{
    message_->len = 0;
    if (!zel_start_msg(builder_, message_, nullptr))
        return nullptr;
    for (const auto &[tag, value] : fields)
        if (!add(tag, value))
            return nullptr;
    return message_;
}

// The library's own admin reader insists on a token after a field with count
// 0, so a message whose last field is empty would not read back from the
// text it writes. This reader walks the triplets itself and takes that
// message too.
scratchcb *MessageText::from_admin(std::string_view text, const Fields &prefix)
{
    if (!from_fields(prefix))
        return nullptr;
    std::string copy(text);
    std::vector<sPChar> tokens(copy.size() / 2 + 1);
    sPChar whole{copy.data(), int32_t(copy.size())};
    int count = 0;
    zel_get_data_triplets(tokens.data(), &count, &whole);
    auto number = [&](int i, int &out) {
        const sPChar &t = tokens[size_t(i)];
        auto [end, ec] = std::from_chars(t.data, t.data + t.len, out);
        return ec == std::errc() && end == t.data + t.len;
    };
    for (int i = 0; i < count;) {
        int tag = 0, items = 0;
        if (i + 1 >= count || !number(i, tag) || !number(i + 1, items) || tag < 0 || tag >= ZEL_DELETED_TAG ||
            items < 0 || items > count - i - 2)
            return nullptr;
        if (items == 0 && !add(tag, {}))
            return nullptr;
        for (int k = 0; k < items; ++k) {
            const sPChar &v = tokens[size_t(i + 2 + k)];
            if (!add(tag, std::string_view(v.data, size_t(v.len))))
                return nullptr;
        }
        i += 2 + items;
    }
    return message_;
}

std::string MessageText::admin(vartocb *message)
{
    text_->len = 0;
    varto_to_admin(message, text_, nullptr);
    std::string out(text_->data, size_t(text_->len));
    if (!out.empty() && out.back() == ' ')
        out.pop_back();
    return out;
}

Fields fields_of(const vartocb *message)
{
    Fields out;
    for (int32_t i = 0; i < message->tag_count; ++i) {
        int tag = message->tags[i];
        for (const sVartoItem *item = &message->slots[tag].first; item; item = item->next)
            out.emplace_back(tag, std::string(item->data, size_t(item->len)));
    }
    return out;
}

std::string json(const vartocb *message)
{
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    for (const auto &[tag, value] : fields_of(message)) {
        auto &slot = object[std::to_string(tag)];
        if (slot.is_null())
            slot = value;
        else if (slot.is_string())
            slot = nlohmann::ordered_json::array({slot, value});
        else
            slot.push_back(value);
    }
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

uint64_t for_each_admin_line(std::istream &in, MessageText &text, const std::function<bool()> &more,
                             const std::function<void(scratchcb *)> &use)
{
    uint64_t number = 0;
    for (std::string line; more() && std::getline(in, line);) {
        ++number;
        if (line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#')
            continue;
        scratchcb *message = text.from_admin(line);
        if (!message)
            return number;
        use(message);
    }
    return 0;
}

std::string joined(const std::vector<std::string> &words)
{
    std::string out;
    for (const std::string &word : words)
        out += (out.empty() ? "" : " ") + word;
    return out;
}

} // namespace zelcli
