// Socket addresses as the hub reads them from its command line and writes
// them in its output: IPv4 or IPv6 numbers, no name lookups.
#pragma once

#include <sys/socket.h>

#include <string>

namespace zelhub {

// False when `host` is not a numeric IPv4 or IPv6 address.
bool parse_address(const std::string &host, int port, sockaddr_storage &address, socklen_t &length);
// "1.2.3.4:port" or "[::1]:port".
std::string address_text(const sockaddr_storage &address);

} // namespace zelhub
