// Programs a test starts: spawned with pipes to their outputs, tied to the
// test's life, and ended and reaped by their process id.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

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

} // namespace zel::test
