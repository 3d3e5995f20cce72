// Watch requests and request numbers.
#include "api/requests.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "api/alert.h"
#include "message/append.h"
#include "message/fields.h"
#include "message/wire.h"

namespace zel {

namespace {


// An unsubscribe request is its subscribe request with the name field's
// value "subscribe" (9 bytes at offset 12) replaced by "unsubscribe".
std::string unsubscribe_for(const std::string &subscribe)
{
    constexpr size_t name_length_at = ZEL_MSG_HEADER_SIZE + 2;
    constexpr size_t name_at = ZEL_MSG_HEADER_SIZE + ZEL_ITEM_HEADER_SIZE;
    std::string unsubscribe = subscribe.substr(0, name_length_at);
    char length[4];
    wire::store_u32(length, 11);
    unsubscribe.append(length, 4);
    unsubscribe.append("un");
    unsubscribe.append(subscribe, name_at);
    return unsubscribe;
}

// Appends one item to the single message that `message` holds.
bool append_field(scratchcb *message, int tag, const std::string &value, int *err)
{
    if (!message->data || message->len < ZEL_MSG_HEADER_SIZE || wire::load_u16(message->data) != ZEL_MSG_MAGIC ||
        !msg::reserve_append(message, ZEL_ITEM_HEADER_SIZE + int64_t(value.size()), err)) {
        *err = 2;
        return false;
    }
    wire::store_item(message->data + message->len, uint16_t(tag), value.data(), int32_t(value.size()));
    message->len += ZEL_ITEM_HEADER_SIZE + int32_t(value.size());
    wire::store_u32(message->data + 2, wire::load_u32(message->data + 2) + 1);
    return true;
}

} // namespace

RequestBuilder::RequestBuilder()
{
    int err = 0;
    if (!zel_ctor_vartocb(&parsed, &err))
        alert("Vartocb ctor failed");
    if (!zel_open_scratch(&scratch, 4096, &err))
        alert("ScratchCb open failed");
}

RequestBuilder::~RequestBuilder()
{
    int err = 0;
    zel_close_scratch(&scratch, &err);
    zel_dtor_vartocb(&parsed, &err);
}

std::unique_ptr<sWatchData> make_watch(const int *tags, const sPChar *values, int count, CZelReceiver *receiver,
                                       void *context, RequestBuilder &builder, int *err)
{
    if (count < 0 || (count > 0 && (!tags || !values))) {
        *err = 2;
        return nullptr;
    }
    std::vector<std::pair<int, sPChar>> keys;
    for (int i = 0; i < count; ++i)
        keys.emplace_back(tags[i], values[i].len > 0 ? values[i] : sPChar{nullptr, 0});
    std::stable_sort(keys.begin(), keys.end(), [](const auto &a, const auto &b) { return a.first < b.first; });

    sPChar name{const_cast<char *>("subscribe"), 9};
    scratchcb *scratch = builder.scratch;
    scratch->len = 0;
    if (!zel_start_msg(builder.parsed, scratch, err) || !zel_add_data(builder.parsed, field::name, 1, &name, err))
        return nullptr;
    auto watch = std::make_unique<sWatchData>();
    for (auto &[tag, value] : keys) {
        if (!zel_add_data(builder.parsed, tag, 1, &value, err))
            return nullptr;
        watch->tags.push_back(tag);
        watch->values.emplace_back(value.data ? value.data : "", size_t(value.len));
    }
    watch->receiver = receiver;
    watch->context = context;
    watch->subscribe.assign(scratch->data, size_t(scratch->len));
    watch->unsubscribe = unsubscribe_for(watch->subscribe);
    return watch;
}

std::unique_ptr<sAddWatchData> prepare_request(scratchcb *request, CZelReceiver *receiver, void *context,
                                               RequestNumber numbering, vartocb *parser, int *err)
{
    if (!request) {
        *err = ZEL_DETAIL_NULL_ARGUMENT;
        return nullptr;
    }
    auto entry = std::make_unique<sAddWatchData>(sAddWatchData{0, receiver, context});
    const void *numbered = numbering == RequestNumber::entry_address ? static_cast<const void *>(entry.get())
                                                                     : static_cast<const void *>(receiver);
    entry->request_number = uint64_t(reinterpret_cast<uintptr_t>(numbered));
    int count = 0;
    if (!wire::holds_one_message(request->data, request->len) ||
        !append_field(request, field::request_number, std::to_string(entry->request_number), err) ||
        !zel_parse_msg(parser, request, err) || !zel_get_field(parser, field::name, &count, err) || count < 1) {
        *err = ZEL_DETAIL_NOT_A_MESSAGE;
        return nullptr;
    }
    return entry;
}

} // namespace zel
