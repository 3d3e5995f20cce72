// Address text ("host:port", dotted quads) and the machine's own IPv4
// addresses, found by walking its network interfaces.
#include <zel/platform.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/detail_slot.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

struct InterfaceListFree {
    void operator()(ifaddrs *list) const { freeifaddrs(list); }
};
using InterfaceList = std::unique_ptr<ifaddrs, InterfaceListFree>;

// False when the system cannot list its interfaces; an empty list is a success.
bool list_interfaces(InterfaceList *out)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return false;
    out->reset(list);
    return true;
}

sockaddr_in ipv4_of(const ifaddrs *entry)
{
    sockaddr_in address;
    std::memcpy(&address, entry->ifa_addr, sizeof address);
    return address;
}

// An IPv4 address, other than `excluded` (network order), of an interface
// that is not a loopback.
bool is_candidate(const ifaddrs *entry, in_addr_t excluded)
{
    return entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET &&
           !(entry->ifa_flags & IFF_LOOPBACK) && ipv4_of(entry).sin_addr.s_addr != excluded;
}

// True when no entry before `entry` in `list` is a candidate of the same
// interface: an interface can carry several IPv4 addresses.
bool is_first_of_its_interface(const ifaddrs *list, const ifaddrs *entry, in_addr_t excluded)
{
    for (const ifaddrs *earlier = list; earlier != entry; earlier = earlier->ifa_next)
        if (is_candidate(earlier, excluded) && std::strcmp(earlier->ifa_name, entry->ifa_name) == 0)
            return false;
    return true;
}

const ifaddrs *first_candidate(const ifaddrs *list, in_addr_t excluded)
{
    for (const ifaddrs *entry = list; entry; entry = entry->ifa_next)
        if (is_candidate(entry, excluded))
            return entry;
    return nullptr;
}

// Fills `text` (INET_ADDRSTRLEN bytes) with the dotted quad of an IPv4 entry.
void address_text(const ifaddrs *entry, char *text)
{
    const in_addr address = ipv4_of(entry).sin_addr;
    inet_ntop(AF_INET, &address, text, INET_ADDRSTRLEN);
}

} // namespace

extern "C" {

uint64_t sys_addr_parse(sPChar *addr, uint64_t, uint32_t *pos, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!addr || !addr->data || addr->len < 0 || !pos)
        return sys_fail(err, 5);
    const void *colon = std::memchr(addr->data, ':', static_cast<size_t>(addr->len));
    if (!colon)
        return sys_fail(err, 4);
    *pos = static_cast<uint32_t>(static_cast<const char *>(colon) - addr->data);
    return sys_succeed(err);
}

uint64_t sys_addr_convert_from_bin(sPChar *dst, uint32_t addr, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!dst || !dst->data || dst->len <= 0)
        return sys_fail(err, 5);
    unsigned char bytes[sizeof addr];
    std::memcpy(bytes, &addr, sizeof addr);
    // The destination is documented to hold INET_ADDRSTRLEN (16) bytes, the
    // longest text "255.255.255.255" with its terminator; its length does not
    // tell its capacity.
    dst->len = std::snprintf(dst->data, INET_ADDRSTRLEN, "%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
    return sys_succeed(err);
}

uint64_t sys_get_local_address(char **dest, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!dest || !*dest)
        return sys_fail(err, 5);
    InterfaceList list;
    if (!list_interfaces(&list))
        return sys_fail(err, 1);
    const in_addr_t any = htonl(INADDR_ANY);
    const ifaddrs *chosen = nullptr;
    for (const ifaddrs *entry = list.get(); entry; entry = entry->ifa_next)
        if (is_candidate(entry, any) && is_first_of_its_interface(list.get(), entry, any))
            chosen = entry; // the last interface with an address wins
    if (chosen) {
        char text[INET_ADDRSTRLEN];
        address_text(chosen, text);
        std::strcpy(*dest, text);
    }
    return sys_succeed(err);
}

uint64_t sys_get_local_address_port(sPChar *out, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!out)
        return sys_fail(err, 5);
    InterfaceList list;
    if (!list_interfaces(&list))
        return sys_fail(err, 1);
    const ifaddrs *chosen = first_candidate(list.get(), htonl(INADDR_LOOPBACK));
    if (!chosen)
        return sys_succeed(err);
    char address[INET_ADDRSTRLEN];
    address_text(chosen, address);
    // An interface address carries port 0, so the text always ends in ":0".
    char text[INET_ADDRSTRLEN + sizeof ":65535"];
    sPChar made{text, std::snprintf(text, sizeof text, "%s:%hu", address, ntohs(ipv4_of(chosen).sin_port))};
    int detail = 0;
    if (!pchar_replicate_mem(out, &made, &detail))
        return sys_fail(err, 9);
    return sys_succeed(err);
}

} // extern "C"
