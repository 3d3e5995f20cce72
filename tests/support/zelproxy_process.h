// The ZeroMQ forwarder as a test's peer: started on ports it picks, found by
// the line it prints, stopped by its process id.
#pragma once

#include <signal.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "support/child_process.h"

namespace zel::test {

// The forwarder, on ports it picks.
class ZelproxyProcess : public ChildProcess {
public:
    ZelproxyProcess() { start("0", "0"); }
    // Kills it and starts it again on the same ports.
    void restart()
    {
        stop(SIGKILL);
        start(std::to_string(publishers_), std::to_string(subscribers_));
    }
    int publishers() const { return publishers_; }
    int subscribers() const { return subscribers_; }

private:
    void start(const std::string &publishers, const std::string &subscribers)
    {
        int out = -1;
        pid_ = spawn_program({ZELPROXY_PATH, "--pub-port", publishers, "--sub-port", subscribers}, out);
        std::string line = first_line(out);
        if (std::sscanf(line.c_str(), "zelproxy listening on 127.0.0.1:%d 127.0.0.1:%d", &publishers_,
                        &subscribers_) != 2)
            throw std::runtime_error("zelproxy did not start: " + line);
    }

    int publishers_ = 0, subscribers_ = 0;
};

} // namespace zel::test
