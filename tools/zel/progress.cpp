#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace zelcli {

Progress::Progress(std::string command, std::string unit)
    : command_(std::move(command)), unit_(std::move(unit)), terminal_(::isatty(2)),
      start_(std::chrono::steady_clock::now()), shown_(start_)
{
}

double Progress::elapsed() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Progress::show()
{
    auto now = std::chrono::steady_clock::now();
    if (!terminal_ || now - shown_ < std::chrono::milliseconds(500))
        return;
    shown_ = now;
    double seconds = elapsed();
    std::fprintf(stderr, "\r%s: %llu %s, %.0f/s, %.1f s ", command_.c_str(), (unsigned long long)count_,
                 unit_.c_str(), seconds > 0 ? double(count_) / seconds : 0.0, seconds);
}

void Progress::finish()
{
    double seconds = elapsed();
    std::fprintf(stderr, "%s%s: %llu %s in %.2f s (%.0f/s)\n", terminal_ ? "\r" : "", command_.c_str(),
                 (unsigned long long)count_, unit_.c_str(), seconds, seconds > 0 ? double(count_) / seconds : 0.0);
}

} // namespace zelcli
