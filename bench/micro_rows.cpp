// Single functions that every exchange calls many times, against the least that does their work.
#include "rows.h"

#include "log_bench.h"
#include "statsd_bench.h"
#include "store.h"

#include "rexeccl/packet.h"
#include "rexeccl/trace.h"

#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <stdexcept>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int repetitions = 7;
constexpr double seconds_each = 0.05;
constexpr off_t log_limit = off_t{64} << 20; // bytes; the file is cut when it has grown that far
constexpr int lines_between_looks = 4096;

[[gnu::noinline]] void empty_call(int level, const char *file, int line, const char *function,
                                  const char *format, ...) {
    benchmark::DoNotOptimize(level);
    benchmark::DoNotOptimize(file);
    benchmark::DoNotOptimize(line);
    benchmark::DoNotOptimize(function);
    benchmark::DoNotOptimize(format);
}

void closed_trace(benchmark::State &state) {
    for (auto _ : state)
        REXECCL_TRACE(8, "send OK. (sock=%d sent=%zu/%zu)", 5, std::size_t{636}, std::size_t{636});
}

void closed_trace_bare(benchmark::State &state) {
    for (auto _ : state)
        empty_call(8, "src/rexeccl", __LINE__, __func__, "send OK. (sock=%d sent=%zu/%zu)", 5,
                   std::size_t{636}, std::size_t{636});
}

// A file in memory, so that no disk is measured.
class LogFile {
public:
    LogFile() : file_(fdopen(memfd_create("log", MFD_CLOEXEC), "w")) {
        if (file_ == nullptr)
            throw std::runtime_error("no file in memory");
    }
    ~LogFile() { std::fclose(file_); }
    LogFile(const LogFile &) = delete;
    LogFile &operator=(const LogFile &) = delete;

    std::FILE *get() const { return file_; }
    void keep_small() {
        if (++lines_ % lines_between_looks != 0 || std::ftell(file_) < log_limit)
            return;
        std::rewind(file_);
    }

private:
    std::FILE *file_;
    long lines_ = 0;
};

void open_trace(benchmark::State &state) {
    LogFile log;
    _rexec_pusrlogfd = log.get();
    for (auto _ : state) {
        REXECCL_TRACE(8, "send OK. (sock=%d sent=%zu/%zu)", 5, std::size_t{636}, std::size_t{636});
        log.keep_small();
    }
    _rexec_pusrlogfd = nullptr;
}

void open_trace_bare(benchmark::State &state) {
    LogFile log;
    for (auto _ : state) {
        std::fprintf(log.get(),
                     "%c %4d/%02d/%02d %02d:%02d:%02d.%03ld [%05lu:%08x]%05d:%-10.10s %-16.16s  "
                     "send OK. (sock=%d sent=%zu/%zu)\n",
                     'T', 2026, 1, 31, 12, 34, 56, 789L, 12345UL, 0x1234abcdU, 139, "rexeccl", "send_packet",
                     5, std::size_t{636}, std::size_t{636});
        log.keep_small();
    }
}

void header_conversion(benchmark::State &state) {
    TRANS_PACKET_HEADER_INFO header = {};
    header.ncode = TRANS_REQ_EXEC_PARAM;
    for (auto _ : state) {
        rexeccl_conv_byteorder(&header, TRANS_REQ_HEAD);
        benchmark::DoNotOptimize(header);
    }
}

void header_conversion_bare(benchmark::State &state) {
    TRANS_PACKET_HEADER_INFO header = {};
    header.ncode = TRANS_REQ_EXEC_PARAM;
    for (auto _ : state) {
        for (std::int32_t *field : {&header.ncode, &header.seq, &header.status})
            *field = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(*field)));
        header.allsize = htonl(header.allsize);
        header.size = htonl(header.size);
        benchmark::DoNotOptimize(header);
    }
}

struct Micro {
    const char *name;
    const char *other;
    void (*ours)(benchmark::State &);
    void (*bare)(benchmark::State &);
    double limit = 0; // of the ratio
    double bound = 0; // of the time, in ns
};
constexpr Micro micros[] = {
    {"a trace that nobody asked for", "empty call", closed_trace, closed_trace_bare},
    {"a trace to the user log", "one fprintf", open_trace, open_trace_bare},
    {"byte order of a header", "five htonl", header_conversion, header_conversion_bare},
    {"a value from the middle of 200 sections", "compiled XPath", query, query_xpath, 1 / 8.0},
    {"the same, against a walk under a lock", "bare walk", query, query_bare, 2},
    {"a message to the event daemon", "bare sendto", log_kept, log_kept_bare, 1.5},
    {"a message above the level, 256 types in the table", "call of nothing", log_suppressed,
     closed_trace_bare, 0, 300},
    {"a measured value", "bare sendto of its line", statsd_plain, statsd_plain_bare, 1.5},
    {"a measured value with four tags", "bare sendto of that line", statsd_tags, statsd_tags_bare, 1.5},
    {"a measured value that sampling leaves out", "call of nothing for it", statsd_suppressed,
     closed_trace_bare, 0, 100},
    {"a measured value, metrics off", "the same call", statsd_off, closed_trace_bare, 0, 100},
    {"a value from the first section", "from the last one", query_first, query_last},
};

// Takes the figures instead of printing them.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &one : runs)
            if (one.run_type == Run::RT_Iteration)
                samples[one.run_name.function_name].push_back(one.GetAdjustedRealTime());
    }
    std::map<std::string, Samples> samples; // nanoseconds
};

} // namespace

void add_micro_rows(Rows &rows) {
    for (const Micro &micro : micros) {
        benchmark::RegisterBenchmark(micro.name, micro.ours)->Repetitions(repetitions)->MinTime(seconds_each);
        benchmark::RegisterBenchmark(micro.other, micro.bare)
            ->Repetitions(repetitions)
            ->MinTime(seconds_each);
    }
    // Each repetition of one function is followed by one of another: a drift weighs on all of them.
    char name[] = "zynbench";
    char interleaved[] = "--benchmark_enable_random_interleaving=true";
    char *arguments[] = {name, interleaved, nullptr};
    int count = 2;
    benchmark::Initialize(&count, arguments);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    for (const Micro &micro : micros) {
        const Samples &ours = collector.samples[micro.name];
        rows.push_back(row_of(Comparison{.name = micro.name,
                                         .unit = "ns",
                                         .other = micro.other,
                                         .ours = ours,
                                         .others = collector.samples[micro.other],
                                         .limit = micro.limit}));
        if (micro.bound > 0)
            rows.back().target =
                row_of(Bound{.name = "", .unit = "ns", .ours = ours, .limit = micro.bound}).target;
    }
    const int allocations = query_allocations();
    rows.push_back({.name = "heap allocations of a value",
                    .ours = std::to_string(allocations),
                    .other = "",
                    .ratio = "",
                    .target = "at most 1: " + verdict(allocations <= 1)});
}
