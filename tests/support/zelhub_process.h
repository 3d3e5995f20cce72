// The hub server as a test's peer: started on a free loopback port (or a
// given one), found by the line it prints once it accepts connections, and
// stopped by its process id.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace zel::test {

// The exit status of a hub that refuses to serve with `args`; -1 when it
// serves instead.
inline int zelhub_exit_status(std::vector<std::string> args)
{
    args.insert(args.begin(), ZELHUB_PATH);
    int out;
    ChildProcess hub(spawn_program(std::move(args), out, true));
    // A hub that printed nothing has exited, which the signal does not
    // change, or hangs; one that printed serves. Neither is left running.
    bool serving = !first_line(out).empty();
    int status = hub.stop(SIGKILL);
    return !serving && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ZelhubProcess : public ChildProcess {
public:
    // `port` 0 lets the hub pick a free one.
    explicit ZelhubProcess(std::vector<std::string> extra = {}, int port = 0) : extra_(std::move(extra))
    {
        start(port);
    }
    ~ZelhubProcess() { stop(SIGTERM); }

    int port() const { return port_; }
    // Starts it again on the same port.
    void restart()
    {
        stop(SIGKILL);
        start(port_);
    }

private:
    void start(int port)
    {
        std::vector<std::string> args = {ZELHUB_PATH, "--port", std::to_string(port)};
        args.insert(args.end(), extra_.begin(), extra_.end());
        int out;
        pid_ = spawn_program(std::move(args), out);
        // The base's destructor kills a hub that did not start.
        std::string line = first_line(out);
        if (std::sscanf(line.c_str(), "zelhub listening on %*[^:]:%d", &port_) != 1)
            throw std::runtime_error("zelhub did not start: '" + line + "'");
    }

    std::vector<std::string> extra_;
    int port_ = 0;
};

} // namespace zel::test
