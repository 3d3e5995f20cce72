// The hub server as a test's peer: started on a free loopback port (or a
// given one), found by the line it prints once it accepts connections, and
// stopped by its process id.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/time_factor.h"

namespace zel::test {

// Starts the program args[0] with the rest as its arguments; `out` gets the
// reading end of its standard output, and `in` and `err`, when given, the
// test's ends of its standard input and error. Without `err`, a `quiet`
// program's complaints go nowhere. The pipes close on exec, so that no other
// program holds them open; the program's own ends are duplicated first.
inline pid_t spawn_program(std::vector<std::string> args, int &out, bool quiet = false, int *in = nullptr,
                           int *err = nullptr)
{
    int *test_end[3] = {in, &out, err}, ends[3][2];
    for (int stream = 0; stream < 3; ++stream)
        if (test_end[stream] && ::pipe2(ends[stream], O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
    pid_t pid = ::fork();
    if (pid == 0) {
        // Tied to the test's life: a test that crashes must not leave its
        // child behind, holding the test's output pipe open and a later run
        // waiting on it.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (int stream = 0; stream < 3; ++stream)
            if (test_end[stream])
                ::dup2(ends[stream][stream == 0 ? 0 : 1], stream);
        if (quiet && !err)
            ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
        std::vector<char *> argv;
        for (auto &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    for (int stream = 0; stream < 3; ++stream) {
        if (test_end[stream]) {
            ::close(ends[stream][stream == 0 ? 0 : 1]);
            *test_end[stream] = ends[stream][stream == 0 ? 1 : 0];
        }
    }
    return pid;
}

// The first line a program prints, or what came of it before the program
// fell silent for longer than patience; closes `fd`.
inline std::string first_line(int fd)
{
    std::string line;
    pollfd p{fd, POLLIN, 0};
    char c;
    while (::poll(&p, 1, int(patience().count())) > 0 && ::read(fd, &c, 1) == 1 && c != '\n')
        line += c;
    ::close(fd);
    return line;
}

// A program the test started, ended and reaped by its process id, and never
// left running after the test.
class ChildProcess {
public:
    explicit ChildProcess(pid_t pid = -1) : pid_(pid) {}
    ~ChildProcess() { stop(SIGKILL); }
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    pid_t pid() const { return pid_; }

    // Ends it with `signal` and reaps it; answers its wait status. Once
    // only: a restart whose start failed leaves nothing to stop.
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

protected:
    pid_t pid_ = -1;
};

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
