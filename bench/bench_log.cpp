// Log throughput in lines per second (items_per_second) to a file in a fresh
// temporary directory: text lines and length-prefixed records, beside
// BM_write_reference, which formats the same line with snprintf and hands it
// to the system with one write(2). Rates are of wall-clock time, as a log
// writer sees them; compare the items_per_second.
#include <benchmark/benchmark.h>
#include <zel/zel.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

// A log file in its own temporary directory, removed with it.
class TempLog {
public:
    TempLog()
    {
        std::string pattern = (fs::temp_directory_path() / "zel-bench-log-XXXXXX").string();
        dir_ = mkdtemp(pattern.data());
        path_ = dir_ / "bench.log";
    }
    ~TempLog() { fs::remove_all(dir_); }
    const fs::path &path() const { return path_; }

private:
    fs::path dir_, path_;
};

// Opens a log of `type` on a temporary file, or reports why it could not.
sLogHandle *open_log(benchmark::State &state, const TempLog &file, const char *type)
{
    setenv("PL_LOG_TYPE", type, 1);
    setenv("PL_LOG_FILE", file.path().c_str(), 1);
    sLogHandle *log = nullptr;
    char name[] = "bench";
    sPChar app{name, sizeof name - 1};
    uint32_t err = 0;
    if (!sys_log_open(&log, &app, &err))
        state.SkipWithError(("sys_log_open failed, detail " + std::to_string(err)).c_str());
    return log;
}

void log_lines(benchmark::State &state, const char *type)
{
    TempLog file;
    sLogHandle *log = open_log(state, file, type);
    if (!log)
        return;
    uint32_t err = 0;
    int sequence = 0;
    for (auto _ : state)
        if (!sys_log(log, 0, &err, 0, "order %d filled %s at %s", ++sequence, "1000000", "1.08415"))
            state.SkipWithError("sys_log failed");
    state.SetItemsProcessed(state.iterations());
    sys_log_close(&log, &err);
}

void BM_log_text_line(benchmark::State &state)
{
    log_lines(state, "log_file");
}
BENCHMARK(BM_log_text_line)->UseRealTime();

void BM_log_record(benchmark::State &state)
{
    log_lines(state, "log_mnm_file");
}
BENCHMARK(BM_log_record)->UseRealTime();

// A line of the same shape written without the library.
void BM_write_reference(benchmark::State &state)
{
    TempLog file;
    const int fd = open(file.path().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    char line[256];
    int sequence = 0;
    for (auto _ : state) {
        const int length = std::snprintf(line, sizeof line, "%-24s %s %s %s : order %d filled %s at %s\n",
                                         "Tue Mar  5 07:08:09 2024", "box1", "alice", "bench", ++sequence,
                                         "1000000", "1.08415");
        benchmark::DoNotOptimize(write(fd, line, static_cast<size_t>(length)));
    }
    state.SetItemsProcessed(state.iterations());
    close(fd);
}
BENCHMARK(BM_write_reference)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
