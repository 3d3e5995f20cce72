// The hub server as a test's peer: started on a free loopback port (or a
// given one), found by the line it prints once it accepts connections, and
// stopped by its process id.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/time_factor.h"

namespace zel::test {

class ZelhubProcess {
public:
    // `port` 0 lets the hub pick a free one.
    explicit ZelhubProcess(std::vector<std::string> extra = {}, int port = 0) : extra_(std::move(extra))
    {
        start(port);
    }
    ~ZelhubProcess() { stop(SIGTERM); }
    ZelhubProcess(const ZelhubProcess &) = delete;
    ZelhubProcess &operator=(const ZelhubProcess &) = delete;

    int port() const { return port_; }
    pid_t pid() const { return pid_; }

    // Ends the hub with `signal` and reaps it; answers its wait status.
    int stop(int signal = SIGTERM)
    {
        if (pid_ <= 0)
            return 0;
        ::kill(pid_, signal);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }
    // Starts it again on the same port.
    void restart()
    {
        stop(SIGKILL);
        start(port_);
    }

private:
    void start(int port)
    {
        int out[2];
        if (::pipe(out) != 0)
            throw std::runtime_error("pipe");
        std::vector<std::string> args = {ZELHUB_PATH, "--port", std::to_string(port)};
        args.insert(args.end(), extra_.begin(), extra_.end());
        pid_ = ::fork();
        if (pid_ == 0) {
            // A test that crashes must not leave its hub behind, holding the
            // test's output pipe open and a later run waiting on it.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(out[1], STDOUT_FILENO);
            ::close(out[0]);
            ::close(out[1]);
            std::vector<char *> argv;
            for (auto &a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(out[1]);
        std::string line = read_line(out[0]);
        ::close(out[0]);
        auto colon = line.rfind(':');
        const std::string expected = "zelhub listening on ";
        if (line.compare(0, expected.size(), expected) != 0 || colon == std::string::npos) {
            stop(SIGKILL);
            throw std::runtime_error("zelhub did not start: '" + line + "'");
        }
        port_ = std::stoi(line.substr(colon + 1));
    }

    static std::string read_line(int fd)
    {
        std::string line;
        auto deadline = std::chrono::steady_clock::now() + patience();
        char c;
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0)
                continue;
            if (::read(fd, &c, 1) != 1 || c == '\n')
                break;
            line += c;
        }
        return line;
    }

    std::vector<std::string> extra_;
    pid_t pid_ = -1;
    int port_ = 0;
};

} // namespace zel::test
