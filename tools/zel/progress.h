// Progress of a long run on standard error (only when it is a terminal),
// and its summary at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zelcli {

class Progress {
public:
    // `command` and `unit` name the summary: "zel pub: 20 messages in ...".
    Progress(std::string command, std::string unit);

    void add(uint64_t n = 1)
    {
        count_ += n;
        if (terminal_)
            show();
    }
    // Shows the line now if half a second has passed since the last one.
    void show();
    uint64_t count() const { return count_; }
    // Prints the one-line summary.
    void finish();

private:
    double elapsed() const;

    std::string command_, unit_;
    bool terminal_;
    uint64_t count_ = 0;
    std::chrono::steady_clock::time_point start_, shown_;
};

} // namespace zelcli
