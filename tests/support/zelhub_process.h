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

#include <stdexcept>
#include <string>
#include <vector>

#include "support/time_factor.h"

namespace zel::test {

// In a forked child: runs the program args[0] with the rest as its
// arguments, tied to the test's life. A test that crashes must not leave its
// child behind, holding the test's output pipe open and a later run waiting
// on it.
[[noreturn]] inline void run_in_child(std::vector<std::string> &args)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

// Starts the program args[0] with the rest as its arguments; `out` gets the
// reading end of its standard output, and `in` and `err`, when given, the
// test's ends of its standard input and error. Without `err`, a `quiet`
// program's complaints go nowhere.
inline pid_t spawn_program(std::vector<std::string> args, int &out, bool quiet = false, int *in = nullptr,
                           int *err = nullptr)
{
    int *test_end[3] = {in, &out, err}, ends[3][2];
    for (int stream = 0; stream < 3; ++stream)
        if (test_end[stream] && ::pipe(ends[stream]) != 0)
            throw std::runtime_error("pipe");
    pid_t pid = ::fork();
    for (int stream = 0; stream < 3; ++stream) {
        if (!test_end[stream])
            continue;
        int program_end = ends[stream][stream == 0 ? 0 : 1], own_end = ends[stream][stream == 0 ? 1 : 0];
        if (pid == 0)
            ::dup2(program_end, stream);
        ::close(program_end);
        if (pid == 0)
            ::close(own_end);
        else
            *test_end[stream] = own_end;
    }
    if (pid == 0) {
        if (quiet && !err)
            ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
        run_in_child(args);
    }
    return pid;
}

// Starts the hub with `args`.
inline pid_t spawn_zelhub(std::vector<std::string> args, int &out, bool quiet = false)
{
    args.insert(args.begin(), ZELHUB_PATH);
    return spawn_program(std::move(args), out, quiet);
}

// The first line the hub prints, or what came of it before the hub fell
// silent for longer than patience; closes `fd`.
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

// The exit status of a hub that refuses to serve with `args`; -1 when it
// serves instead.
inline int zelhub_exit_status(const std::vector<std::string> &args)
{
    int out;
    pid_t pid = spawn_zelhub(args, out, true);
    // A hub that printed nothing has exited, which the signal does not
    // change, or hangs; one that printed serves. Neither is left running.
    bool serving = !first_line(out).empty();
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return !serving && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

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
        std::vector<std::string> args = {"--port", std::to_string(port)};
        args.insert(args.end(), extra_.begin(), extra_.end());
        int out;
        pid_ = spawn_zelhub(args, out);
        std::string line = first_line(out);
        auto colon = line.rfind(':');
        const std::string expected = "zelhub listening on ";
        if (line.compare(0, expected.size(), expected) != 0 || colon == std::string::npos) {
            stop(SIGKILL);
            throw std::runtime_error("zelhub did not start: '" + line + "'");
        }
        port_ = std::stoi(line.substr(colon + 1));
    }

    std::vector<std::string> extra_;
    pid_t pid_ = -1;
    int port_ = 0;
};

} // namespace zel::test
