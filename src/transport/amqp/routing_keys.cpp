// Binding keys, service keys and routing keys.
#include "transport/amqp/routing_keys.h"

#include "message/fields.h"

namespace zel::amqp {

namespace {

constexpr size_t longest_routing_key = 255;

std::string piece(int tag, std::string_view value)
{
    std::string text = "^" + std::to_string(tag) + ".";
    text.append(value);
    return text;
}

} // namespace

std::string binding_key(const std::vector<int> &tags, const std::vector<std::string> &values)
{
    std::string key = "#.";
    for (size_t i = 0; i < tags.size(); ++i) {
        if (i > 0)
            key += ".#.";
        key += piece(tags[i], values[i].empty() ? std::string_view("*") : std::string_view(values[i]));
    }
    return key + ".#";
}

std::string service_key(std::string_view name)
{
    return piece(0, name);
}

std::string routing_key_of(vartocb *message)
{
    std::string key;
    field::visit_items_by_tag(message, [&key](int tag, std::string_view value) {
        std::string next = piece(tag, value);
        if (key.size() + (key.empty() ? 0 : 1) + next.size() > longest_routing_key)
            return false;
        if (!key.empty())
            key += '.';
        key += next;
        return true;
    });
    return key;
}

} // namespace zel::amqp
