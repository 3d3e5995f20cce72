// The address-book client: one short record connection per operation, one
// request message, and for a lookup one reply mapped into result pairs.
// Nothing here is shared between calls, so nothing locks; the environment
// read uses the platform layer's one shared buffer.
#include <zel/addrbk.h>
#include <zel/descriptors.h>
#include <zel/message.h>
#include <zel/platform.h>

#include <chrono>
#include <initializer_list>
#include <string>
#include <utility>

#include "message/fields.h"
#include "platform/detail_slot.h"
#include "platform/environment_number.h"
#include "platform/record_socket.h"
#include "platform/result.h"

namespace field = zel::field;
using zel::sys_fail;
using zel::sys_succeed;

namespace {

constexpr int second_kind_tag = 10003;
constexpr int third_first_tag = 32750;
constexpr int first_second_tag = 32771;
constexpr int second_second_tag = 32772;
constexpr int third_second_tag = 32773;

constexpr int request_buffer_size = 1024;
constexpr int default_reply_wait_ms = 5000;

const char *const service_variable = "PL_LOC_BROK_ADDR";

// The lookup's bound on the reply wait; the environment may shorten it.
int reply_wait_ms()
{
    return int(zel::positive_from_environment("ZEL_ADDRBK_TIMEOUT_MS", default_reply_wait_ms, 3600 * 1000));
}

sPChar text(const char *literal)
{
    return sPChar{const_cast<char *>(literal), int32_t(std::char_traits<char>::length(literal))};
}

// A message builder and its buffer, released together.
class Message {
public:
    ~Message()
    {
        int ignored;
        zel_close_scratch(&bytes_, &ignored);
        zel_dtor_vartocb(&parsed_, &ignored);
    }
    // Starts a request named `name`. False with the builder's detail.
    bool start(const char *name, uint32_t *err)
    {
        sPChar value = text(name);
        return check(zel_ctor_vartocb(&parsed_, &detail_) && zel_open_scratch(&bytes_, request_buffer_size, &detail_) &&
                         zel_start_msg(parsed_, bytes_, &detail_) &&
                         zel_add_data(parsed_, field::name, 1, &value, &detail_),
                     err);
    }
    bool add(int tag, sPChar *value, uint32_t *err)
    {
        return check(zel_add_data(parsed_, tag, 1, value, &detail_), err);
    }
    bool send(void *sd, uint32_t *err) { return sys_sd_write(sd, 0, bytes_, err) != 0; }

    // Reads the one reply into the buffer, waiting at most `wait_ms` in all.
    bool receive(void *sd, int wait_ms, uint32_t *err);
    bool parse(uint32_t *err) { return check(zel_parse_msg(parsed_, bytes_, &detail_), err); }
    vartocb *parsed() const { return parsed_; }

private:
    bool check(bool ok, uint32_t *err)
    {
        if (!ok)
            *err = uint32_t(detail_);
        return ok;
    }

    vartocb *parsed_ = nullptr;
    scratchcb *bytes_ = nullptr;
    int detail_ = 0;
};

bool Message::receive(void *sd, int wait_ms, uint32_t *err)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(wait_ms);
    // A failed read is tried again (a record that does not fit yet, a
    // signal), unless the service has gone or the time is up.
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            *err = 4;
            return false;
        }
        zel::sd_bound_read_wait(sd, int(left));
        bytes_->len = 0;
        if (sys_sd_read(sd, 0, bytes_, err))
            return true;
        if (*err == 31)
            return false;
    }
}

// Builds a request of `name` with the fields given, in order, and writes it.
uint64_t send_request(void *sd, const char *name, std::initializer_list<std::pair<int, sPChar *>> fields,
                      uint32_t *err)
{
    if (!sd)
        return sys_fail(err, 2);
    for (const auto &field : fields)
        if (!field.second)
            return sys_fail(err, 2);
    Message request;
    if (!request.start(name, err))
        return 0;
    for (const auto &[tag, value] : fields)
        if (!request.add(tag, value, err))
            return 0;
    return request.send(sd, err) ? sys_succeed(err) : 0;
}

// The service address from a holder, PL_LOC_BROK_ADDR filling an empty one.
std::string service_address(sPChar *holder)
{
    if (!holder->data) {
        uint32_t ignored;
        sys_fetch_env_variable(holder, service_variable, &ignored);
    }
    return std::string(holder->data ? holder->data : "", size_t(holder->data ? holder->len : 0));
}

// A connection to the service, closed when it goes out of scope.
class Connection {
public:
    // Connects to the service in `holder`.
    bool open(sPChar *holder, uint32_t *err)
    {
        std::string address = service_address(holder);
        sPChar where{address.data(), int32_t(address.size())};
        return p_addr_connect_to_addrbk(&sd_, &where, err) != 0;
    }
    ~Connection()
    {
        uint32_t ignored;
        if (sd_)
            p_addr_discnnct_from_addrbk(&sd_, &ignored);
    }
    void *sd() const { return sd_; }

private:
    void *sd_ = nullptr;
};

// An owned copy of `tag`'s first value in the reply, (null, 0) for an empty
// or absent one.
bool copy_field(vartocb *reply, int tag, sPChar *out, uint32_t *err)
{
    sPChar value{};
    int detail = 0;
    *out = sPChar{nullptr, 0};
    if (!zel_get_data(reply, tag, 0, &value, &detail) || value.len <= 0)
        return true;
    if (pchar_replicate_mem(out, &value, &detail))
        return true;
    *err = uint32_t(detail);
    return false;
}

bool has_field(vartocb *reply, int tag)
{
    int count = 0, detail = 0;
    return zel_get_field(reply, tag, &count, &detail) && count > 0;
}

// Maps a reply into the caller's pairs: all of it, or, on failure, nothing.
bool map_reply(vartocb *reply, sPChar *pair1, sPChar *pair2, sPChar *pair3, uint32_t *kind, uint32_t *err)
{
    if (!has_field(reply, field::address))
        return sys_fail(err, 3);
    struct Target {
        int tag;
        sPChar *out;
    };
    Target targets[6];
    size_t count = 0;
    targets[count++] = {field::address, &pair2[0]};
    if (pair3)
        targets[count++] = {third_first_tag, &pair3[0]}; // (null, 0) when absent
    bool second_kind = has_field(reply, second_kind_tag);
    if (second_kind) {
        if (pair1)
            targets[count++] = {second_kind_tag, &pair1[0]};
        // The second values only where the reply carries them.
        for (Target second : {Target{first_second_tag, pair1}, Target{second_second_tag, pair2},
                              Target{third_second_tag, pair3}})
            if (second.out && has_field(reply, second.tag))
                targets[count++] = {second.tag, &second.out[1]};
    }
    // Copied aside first, so that a failure leaves the pairs alone and leaks
    // nothing.
    sPChar copies[6] = {};
    for (size_t i = 0; i < count; ++i) {
        if (!copy_field(reply, targets[i].tag, &copies[i], err)) {
            int ignored;
            for (sPChar &copy : copies)
                if (copy.data)
                    pchar_destroy_mem(&copy, &ignored);
            return false;
        }
    }
    for (size_t i = 0; i < count; ++i)
        *targets[i].out = copies[i];
    if (kind)
        *kind = second_kind ? 2 : 1;
    return true;
}

} // namespace

extern "C" {

uint64_t p_addr_connect_to_addrbk(void **sd, sPChar *address, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!sd || !address)
        return sys_fail(err, 2);
    sSdOpenRequest request{*address, *address, SYS_SD_TCP, 3, 1, 1};
    return sys_sd_open(sd, &request, err);
}

uint64_t p_addr_discnnct_from_addrbk(void **sd, uint32_t *err)
{
    err = zel::detail_slot(err);
    return sys_sd_close(sd, err);
}

uint64_t p_addr_get_details_from_addrbk(sPChar *key, sPChar *pair1, sPChar *pair2, sPChar *pair3, uint32_t *kind,
                                        uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!key || !pair2)
        return sys_fail(err, 2);
    sPChar from_environment{};
    Connection connection;
    if (!connection.open(&from_environment, err))
        return sys_fail(err, 7);
    Message exchange;
    if (!exchange.start("mrv_ab", err) || !exchange.add(field::address_key, key, err))
        return 0;
    exchange.send(connection.sd(), err);
    if (!exchange.receive(connection.sd(), reply_wait_ms(), err) || !exchange.parse(err))
        return 0;
    return map_reply(exchange.parsed(), pair1, pair2, pair3, kind, err) ? sys_succeed(err) : 0;
}

uint32_t p_addr_local_addrbk_lookup(sPChar *key, sPChar *pair2, uint32_t *err)
{
    return uint32_t(p_addr_get_details_from_addrbk(key, nullptr, pair2, nullptr, nullptr, err));
}

uint64_t p_addr_update_addrbk(sPChar *key, void *, sPChar *service, sPChar *address, void *, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!key || !service || !address)
        return sys_fail(err, 2);
    Connection connection;
    if (!connection.open(service, err))
        return 0;
    return p_addrbk_update_request(connection.sd(), address, key, err) ? sys_succeed(err) : 0;
}

uint64_t p_addr_remove_addrbk(sPChar *key, void *, sPChar *service, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!key || !service)
        return sys_fail(err, 2);
    Connection connection;
    if (!connection.open(service, err))
        return 0;
    uint32_t ignored;
    p_addrbk_remove_request(connection.sd(), key, &ignored);
    return sys_succeed(err);
}

uint64_t p_addrbk_request(void *sd, sPChar *address, sPChar *key, uint32_t *err)
{
    err = zel::detail_slot(err);
    return send_request(sd, "mrv_ab", {{field::address_key, key}, {field::address, address}}, err);
}

uint64_t p_addrbk_update_request(void *sd, sPChar *address, sPChar *key, uint32_t *err)
{
    err = zel::detail_slot(err);
    return send_request(sd, "mrv_lb_set_info", {{field::address_key, key}, {field::address, address}}, err);
}

uint64_t p_addrbk_remove_request(void *sd, sPChar *key, uint32_t *err)
{
    err = zel::detail_slot(err);
    return send_request(sd, "mrv_lb_unset_info", {{field::address_key, key}}, err);
}

} // extern "C"
