// Watch filters, removal keys, service filters and topics.
#include "transport/zmq/zmq_filters.h"

#include <zel/message.h>

#include "message/fields.h"

namespace zel::zmq {

namespace {

std::string_view text_of(const sPChar &value)
{
    return value.data && value.len > 0 ? std::string_view(value.data, size_t(value.len)) : std::string_view();
}

std::string piece(int tag, std::string_view value)
{
    std::string text = "^" + std::to_string(tag) + ".";
    text.append(value);
    return text;
}

} // namespace

std::string watch_filter(const int *tags, const sPChar *values, int count)
{
    std::string filter;
    for (int i = 0; i < count; ++i) {
        std::string_view value = text_of(values[i]);
        if (value.empty() && tags[i] == 0)
            continue;
        filter += piece(tags[i], value);
        if (!value.empty())
            filter += '.';
    }
    return filter;
}

std::string removal_key(const int *tags, const sPChar *values, int count)
{
    std::string key;
    for (int i = 0; i < count; ++i) {
        if (!key.empty())
            key += '.';
        std::string_view value = text_of(values[i]);
        if (!value.empty())
            key += piece(tags[i], value);
    }
    return key;
}

std::string service_filter(std::string_view name)
{
    return piece(0, name);
}

std::string topic_of(vartocb *message)
{
    std::string topic;
    field::visit_items_by_tag(message, [&topic](int tag, std::string_view value) {
        topic += piece(tag, value);
        topic += '.';
        return true;
    });
    return topic;
}

} // namespace zel::zmq
