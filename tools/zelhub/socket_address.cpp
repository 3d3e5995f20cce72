#include "socket_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace zelhub {

std::string address_text(const sockaddr_storage &address)
{
    char text[INET6_ADDRSTRLEN] = "?";
    int port = 0;
    if (address.ss_family == AF_INET) {
        auto &v4 = reinterpret_cast<const sockaddr_in &>(address);
        inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
        port = ntohs(v4.sin_port);
        return std::string(text) + ":" + std::to_string(port);
    }
    auto &v6 = reinterpret_cast<const sockaddr_in6 &>(address);
    inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
    port = ntohs(v6.sin6_port);
    return "[" + std::string(text) + "]:" + std::to_string(port);
}

bool parse_address(const std::string &host, int port, sockaddr_storage &address, socklen_t &length)
{
    address = {};
    auto &v4 = reinterpret_cast<sockaddr_in &>(address);
    if (inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(uint16_t(port));
        length = sizeof v4;
        return true;
    }
    auto &v6 = reinterpret_cast<sockaddr_in6 &>(address);
    if (inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(uint16_t(port));
        length = sizeof v6;
        return true;
    }
    return false;
}

} // namespace zelhub
