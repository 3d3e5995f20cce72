// The ZeroMQ forwarder as a test's peer: started on ports it picks, found by
// the line it prints, stopped by its process id.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/zelhub_process.h"

namespace zel::test {

// The forwarder, on ports it picks, stopped by its process id.
class ZelproxyProcess {
public:
    ZelproxyProcess() { start({ZELPROXY_PATH, "--pub-port", "0", "--sub-port", "0"}); }
    ~ZelproxyProcess() { stop(); }
    ZelproxyProcess(const ZelproxyProcess &) = delete;
    ZelproxyProcess &operator=(const ZelproxyProcess &) = delete;
    // Kills it and starts it again on the same ports.
    void restart()
    {
        stop();
        start({ZELPROXY_PATH, "--pub-port", std::to_string(publishers_), "--sub-port", std::to_string(subscribers_)});
    }
    int publishers() const { return publishers_; }
    int subscribers() const { return subscribers_; }

private:
    void start(std::vector<std::string> args)
    {
        int out = -1;
        pid_ = spawn_program(std::move(args), out);
        std::string line = first_line(out);
        char in[64] = {}, to[64] = {};
        if (std::sscanf(line.c_str(), "zelproxy listening on 127.0.0.1:%63s 127.0.0.1:%63s", in, to) != 2)
            throw std::runtime_error("zelproxy did not start: " + line);
        publishers_ = std::atoi(in);
        subscribers_ = std::atoi(to);
    }
    // Once only: a restart whose start failed leaves nothing to stop.
    void stop()
    {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    pid_t pid_ = -1;
    int publishers_ = 0, subscribers_ = 0;
};

} // namespace zel::test
