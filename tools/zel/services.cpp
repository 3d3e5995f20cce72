// zel req asks a service once and prints its reply; zel serve answers a
// service's requests.
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>

#include "connection.h"
#include "progress.h"

extern char **environ;

namespace zelcli {

namespace {

struct ReqOptions {
    ConnectionOptions connection;
    std::string service;
    std::vector<std::string> words;
    bool json = false;
    double timeout_s = 10;
};

struct ReplyCatcher : CZelReceiver {
    MessageText text;
    bool json = false;
    std::optional<std::string> line;
    int processMsg(vartocb *, int, sWatchData *, void *, int *) override { return 1; }
    int processReply(vartocb *reply, int, void *, void *, int *) override
    {
        line = json ? zelcli::json(reply) : text.admin(reply);
        return 1;
    }
};

int run_req(const ReqOptions &o)
{
    refuse_zmq(o.connection);
    MessageText text;
    Fields head = {{0, o.service}};
    std::string given = joined(o.words);
    if (!text.from_admin(given, head))
        throw UsageError("not admin text ('tag count value ...'): " + given);

    Connection connection(o.connection, Connection::Use::either);
    if (connection.is_amqp())
        head.emplace_back(requester_tag, connection.client_name());
    ReplyCatcher catcher;
    catcher.json = o.json;
    void *handle = nullptr;
    int err = 0;
    if (!connection.engine().addRqDontStore(&handle, text.from_admin(given, head), &catcher, nullptr, &err))
        throw Failure("the request was refused (detail " + std::to_string(err) + ")");
    if (!pump_until([&] { return catcher.line.has_value(); }, o.timeout_s))
        throw Failure(interrupted() ? "interrupted before a reply came"
                                    : "no reply from '" + o.service + "' within " + seconds_text(o.timeout_s));
    std::printf("%s\n", catcher.line->c_str());
    return 0;
}

// Runs `script` with the shell, `input` on its standard input; its standard
// output, or nothing when it could not run or did not exit with 0.
std::optional<std::string> run_script(const std::string &script, const std::string &input)
{
    int in = ::memfd_create("zel-request", 0), out[2] = {-1, -1};
    if (in < 0 || ::write(in, input.data(), input.size()) != ssize_t(input.size()) || ::lseek(in, 0, SEEK_SET) != 0 ||
        ::pipe(out) != 0) {
        if (in >= 0)
            ::close(in);
        return std::nullopt;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    const char *argv[] = {"sh", "-c", script.c_str(), nullptr};
    pid_t child = 0;
    int spawned = posix_spawn(&child, "/bin/sh", &actions, nullptr, const_cast<char **>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in);
    ::close(out[1]);
    std::string output;
    char chunk[4096];
    for (ssize_t n; spawned == 0 && (n = ::read(out[0], chunk, sizeof chunk)) != 0;)
        if (n > 0)
            output.append(chunk, size_t(n));
        else if (errno != EINTR)
            break;
    ::close(out[0]);
    int status = 0;
    while (spawned == 0 && ::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (spawned != 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return std::nullopt;
    return output;
}

struct ServeOptions {
    ConnectionOptions connection;
    std::string service;
    std::string reply_script;
    bool json = false;
    uint64_t count = 0;
};

// Prints each request and answers it: with the request's own fields, or
// with the fields the reply script writes as admin text.
struct Responder : CZelReceiver {
    Connection *connection = nullptr;
    const ServeOptions *options = nullptr;
    MessageText text;
    Progress progress{"zel serve", "requests"};

    bool done() const { return options->count && progress.count() >= options->count; }

    int processMsg(vartocb *request, int, sWatchData *, void *, int *) override
    {
        if (done())
            return 1;
        std::string admin = text.admin(request);
        std::printf("%s\n", options->json ? zelcli::json(request).c_str() : admin.c_str());
        Fields head = {{reply_mark_tag, "1"}}, echo, requester;
        for (auto &field : fields_of(request)) {
            if (field.first == request_number_tag)
                head.push_back(std::move(field));
            else if (field.first == requester_tag)
                requester.push_back(std::move(field));
            else if (field.first != 0 &&
                     (field.first < ZEL_TRANSPORT_TAG_FIRST || field.first > ZEL_TRANSPORT_TAG_LAST))
                echo.push_back(std::move(field));
        }
        scratchcb *reply = nullptr;
        if (options->reply_script.empty()) {
            head.insert(head.end(), echo.begin(), echo.end());
            head.insert(head.end(), requester.begin(), requester.end());
            reply = text.from_fields(head);
        } else {
            head.insert(head.end(), requester.begin(), requester.end());
            std::optional<std::string> written = run_script(options->reply_script, admin + "\n");
            reply = written ? text.from_admin(*written, head) : nullptr;
            if (!reply)
                std::fprintf(stderr, "zel serve: the reply script failed or wrote no admin text: no reply sent\n");
        }
        if (reply)
            connection->send(reply);
        progress.add();
        return 1;
    }
    int processReply(vartocb *, int, void *, void *, int *) override { return 1; }
};

int run_serve(const ServeOptions &o)
{
    refuse_zmq(o.connection);
    Connection connection(o.connection, Connection::Use::either);
    Responder responder;
    responder.connection = &connection;
    responder.options = &o;
    sPChar name{const_cast<char *>(o.service.data()), int32_t(o.service.size())};
    int err = 0;
    if (!connection.engine().registerSrvc(&name, &responder, 0, &err))
        throw Failure("the service was refused (detail " + std::to_string(err) + ")");
    connection.round_trip(o.connection.connect_timeout_s);
    std::fprintf(stderr, "zel serve: ready, serving '%s' on the %s\n", o.service.c_str(), connection.where().c_str());
    pump_until(
        [&] {
            std::fflush(stdout);
            return responder.done();
        },
        1e9);
    // The last reply leaves before the connection closes.
    connection.round_trip(o.connection.connect_timeout_s);
    responder.progress.finish();
    return 0;
}

} // namespace

Command add_req(CLI::App &zel)
{
    auto o = std::make_shared<ReqOptions>();
    CLI::App *app = zel.add_subcommand("req", "Send a request to a service and print its reply.");
    app->add_option("service", o->service, "the service's name")->required();
    app->add_option("fields", o->words, "the request's fields as admin text ('tag count value ...')");
    app->add_flag("--json", o->json, "print the reply as one JSON object");
    app->add_option("--timeout", o->timeout_s, "seconds to wait for the reply")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    add_connection_options(app, o->connection);
    return {app, [o] { return run_req(*o); }};
}

Command add_serve(CLI::App &zel)
{
    auto o = std::make_shared<ServeOptions>();
    CLI::App *app = zel.add_subcommand("serve", "Answer a service's requests, printing each one.");
    app->add_option("service", o->service, "the service's name")->required();
    app->add_option("--reply", o->reply_script,
                    "a shell command that reads the request's admin text and writes the reply's; "
                    "without it the reply echoes the request's fields");
    app->add_flag("--json", o->json, "print each request as one JSON object");
    app->add_option("--count", o->count, "stop after N requests");
    add_connection_options(app, o->connection);
    return {app, [o] { return run_serve(*o); }};
}

} // namespace zelcli
