// A failed system call as it goes into a log line or an error message.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

namespace zelhub {

// `what`, then the reason that errno holds.
inline std::string system_error(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

} // namespace zelhub
