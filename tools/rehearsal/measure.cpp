// Measures exchanges and writes the rows.
#include "measure.h"

#include "log.h"
#include "status.h"
#include "text.h"
#include "xmllib.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <iostream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace rehearsal {
namespace {

enum LogIndex : std::size_t { group_log, script_log, monitor_log, log_count };

struct LogRow {
    const char *module;
    std::int32_t logtype;
};
constexpr std::array<LogRow, log_count> log_rows{{
    {"group", LOG_TYPE_GROUP},
    {"script", LOG_TYPE_RESOURCE},
    {"monitor", LOG_TYPE_MONITOR},
}};

// What is measured.
struct ActionRow {
    RequestKind kind;
    LogIndex log;
    const char *action;
};
constexpr auto action_rows = std::to_array<ActionRow>({
    {RequestKind::failover, group_log, "failover"},
    {RequestKind::script, script_log, "exec"},
    {RequestKind::notice, monitor_log, "notice"},
    {RequestKind::clear, monitor_log, "clear"},
});

const ActionRow *find_action(RequestKind kind) {
    const auto *row = std::ranges::find(action_rows, kind, &ActionRow::kind);
    return row != action_rows.end() ? row : nullptr;
}

// Why a log cannot be opened or written.
struct CodeRow {
    std::int32_t code;
    const char *meaning;
};
constexpr auto code_rows = std::to_array<CodeRow>({
    {LOG_ERR_MEMORY, "out of memory"},
    {LOG_ERR_INSTALL, "the install directory is unknown"},
    {LOG_ERR_TRANSPORT, "the way to the event daemon cannot be opened"},
    {LOG_ERR_DAEMON, "no event daemon can be reached"},
    {LOG_ERR_CONFIG, "there is no installation, or its configuration cannot be read"},
    {LOG_ERR_POLICY, "a policy of the installation cannot be loaded"},
});

std::string explain(std::int32_t code) {
    const auto *known = std::ranges::find(code_rows, code, &CodeRow::code);
    return "code " + std::to_string(code) +
           (known != code_rows.end() ? std::string(", ") + known->meaning : "");
}

// A performance log.
class Log {
public:
    explicit Log(const LogRow &row) {
        const std::int32_t code = log_util_perf_init(&handle_, row.module, row.logtype);
        if (code != LOG_OK)
            throw std::runtime_error("cannot open the log \"" + std::string(row.module) +
                                     "\": " + explain(code));
    }
    ~Log() { log_util_perf_term(handle_); }
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    void *handle() const { return handle_; }

private:
    void *handle_ = nullptr;
};

struct Row {
    LogIndex log;
    const char *action;
    log_perf_info start;
    std::uint64_t tick_end;
    std::string name;
    std::int32_t status;
    std::int32_t retcode;
};

std::string result_of(std::int32_t status) {
    const auto name = find_status_name(status);
    return name ? std::string(*name) : std::to_string(status);
}

// The rows of an exchange of a measured kind.
std::vector<Row> rows_of(const Exchange &exchange, const ActionRow &action, const log_perf_info &start) {
    const auto tick_end = static_cast<std::uint64_t>(xmllib_times());
    const Row row{.log = action.log,
                  .action = action.action,
                  .start = start,
                  .tick_end = tick_end,
                  .name = {},
                  .status = exchange.status,
                  .retcode = exchange.outcome.exitcode.value_or(LOG_RETCODE_NONE)};
    std::vector<Row> rows;
    if (action.log != monitor_log) {
        const Request &request = exchange.request;
        rows.push_back(row);
        rows.back().name = action.log == script_log ? request.script
                           : request.group.empty()  ? request.resource
                                                    : request.group;
    }
    for (const MonitorResult &monitor : exchange.outcome.monitors) {
        rows.push_back(row);
        rows.back().name = monitor.name;
        rows.back().status = monitor.result;
    }
    return rows;
}

} // namespace

class Measurements::Running {
public:
    Running() : thread_([this] { write_all(); }) {}
    ~Running() {
        {
            const std::lock_guard lock(mutex_);
            ending_ = true;
        }
        changed_.notify_one();
        thread_.join();
    }
    Running(const Running &) = delete;
    Running &operator=(const Running &) = delete;

    void begin(const Exchange &exchange) {
        if (find_action(exchange.request.kind) == nullptr)
            return;
        log_perf_info start;
        log_util_perf_start(&start, LOG_TICK_CLOCK, 0);
        const std::lock_guard lock(mutex_);
        started_[exchange.connection] = start;
    }

    void end(const Exchange &exchange) {
        const ActionRow *action = find_action(exchange.request.kind);
        if (action == nullptr)
            return;
        const std::lock_guard lock(mutex_);
        const auto started = started_.extract(exchange.connection);
        if (started.empty())
            return; // its packet was refused
        for (Row &row : rows_of(exchange, *action, started.mapped()))
            waiting_.push_back(std::move(row));
        changed_.notify_one();
    }

private:
    void write_all() {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
            if (waiting_.empty())
                return;
            const std::vector<Row> rows = std::exchange(waiting_, {});
            lock.unlock();
            for (const Row &row : rows)
                write(row);
            lock.lock();
        }
    }

    // Names are a client's, and a file that holds what is no text is not read any more.
    void write(const Row &row) {
        const std::int32_t code =
            log_util_perf_end(logs_[row.log].handle(), &row.start, printable(row.name).c_str(), row.action,
                              result_of(row.status).c_str(), row.retcode, LOG_TICK_CALLER, row.tick_end);
        if (code != LOG_OK && !losing_)
            std::cerr << "zynrehearse: measurements are lost: " + explain(code) + '\n';
        losing_ = code != LOG_OK;
    }

    std::array<Log, log_count> logs_{Log(log_rows[group_log]), Log(log_rows[script_log]),
                                     Log(log_rows[monitor_log])};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::uint64_t, log_perf_info> started_; // by connection, which has one request at a time
    std::vector<Row> waiting_;                       // guarded by mutex_, as the one above and the next
    bool ending_ = false;
    bool losing_ = false; // what was written last was lost; of the thread alone
    std::thread thread_;
};

Measurements::Measurements() : running_(std::make_unique<Running>()) {}
Measurements::~Measurements() = default;

void Measurements::begin(const Exchange &exchange) {
    running_->begin(exchange);
}
void Measurements::end(const Exchange &exchange) {
    running_->end(exchange);
}

} // namespace rehearsal
