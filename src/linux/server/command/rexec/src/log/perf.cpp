// Performance logs: one row an action, with its times, and the response times of monitors to the metrics
// emitter.
#include "log.h"

#include "cancel.h"
#include "log/line.h"
#include "log/store.h"
#include "statsd.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <string_view>

#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr char action_header[] =
    "\"Date\",\"Name\",\"Action\",\"Result\",\"ReturnCode\",\"StartTime\",\"EndTime\","
    "\"ResponseTime(ms)\"";
constexpr char heartbeat_header[] =
    "\"Date\",\"Name\",\"Type\",\"Local\",\"Remote\",\"RecvCount\",\"RecvError\",\"RecvTime(Min)\","
    "\"RecvTime(Max)\",\"RecvTime(Avg)\",\"SendCount\",\"SendError\",\"SendTime(Min)\",\"SendTime(Max)\","
    "\"SendTime(Avg)\"";
static_assert(sizeof(action_header) == 86 && sizeof(heartbeat_header) == 182);

// Kinds of performance logs.
struct PerfKind {
    std::int32_t logtype;
    const char *size_key; // files of so many megabytes
    const char *rotate_key;
    const char *use_key;
    std::string_view header;
};
constexpr auto perf_kinds = std::to_array<PerfKind>({
    {LOG_TYPE_GROUP, "/root/cluster/perf/log/group/size", "/root/cluster/perf/log/group/rotate",
     "/root/cluster/perf/log/group/use", action_header},
    {LOG_TYPE_RESOURCE, "/root/cluster/perf/log/resource/size", "/root/cluster/perf/log/resource/rotate",
     "/root/cluster/perf/log/resource/use", action_header},
    {LOG_TYPE_MONITOR, "/root/cluster/perf/log/monitor/size", "/root/cluster/perf/log/monitor/rotate",
     "/root/cluster/perf/log/monitor/use", action_header},
    {LOG_TYPE_HEARTBEAT, "/root/cluster/perf/log/heartbeat/size", "/root/cluster/perf/log/heartbeat/rotate",
     "/root/cluster/perf/log/heartbeat/use", heartbeat_header},
});

const PerfKind *find_perf_kind(std::int32_t logtype) {
    const auto *kind = std::find_if(perf_kinds.begin(), perf_kinds.end(),
                                    [&](const PerfKind &row) { return row.logtype == logtype; });
    return kind != perf_kinds.end() ? kind : nullptr;
}

constexpr std::int64_t bytes_of_size_unit = 1000000;

// What a performance log keeps of its kind's settings, and where its response times go.
struct PerfSettings {
    std::int32_t size = 0; // bytes
    std::int32_t rotate = 0;
    std::int32_t collect = 0;
    char clustername[256] = "";
};

PerfSettings read_settings(const PerfKind &kind) {
    const LogStore store;
    PerfSettings settings;
    const std::int64_t size = log_read_number(kind.size_key, 1) * bytes_of_size_unit;
    settings.size = static_cast<std::int32_t>(std::clamp<std::int64_t>(size, 0, INT32_MAX));
    settings.rotate = log_read_number(kind.rotate_key, 2);
    settings.collect = log_read_number(kind.use_key, 0);
    log_read_text("/root/cluster/name", settings.clustername);
    return settings;
}

std::uint64_t ticks(std::int32_t tickuse, std::uint64_t given) {
    switch (tickuse) {
    case LOG_TICK_CLOCK:
        return static_cast<std::uint64_t>(xmllib_times());
    case LOG_TICK_CALLER:
        return given;
    default:
        return 0;
    }
}

std::uint64_t ticks_per_second() {
    constexpr std::uint64_t usual = 100;
    static std::atomic<std::uint64_t> known{0};
    if (const std::uint64_t value = known; value != 0)
        return value;
    const std::lock_guard lock(loglibmutex);
    if (known == 0) {
        const long value = sysconf(_SC_CLK_TCK);
        known = value > 0 ? static_cast<std::uint64_t>(value) : usual;
    }
    return known;
}

// Milliseconds from start to end. The difference is right across a counter that wrapped in between.
std::int64_t response_time(const log_perf_info &perfinfo, std::int32_t tickuse, std::uint64_t tick_end) {
    const bool start_missing = perfinfo.tick_start == 0 && tickuse == LOG_TICK_CLOCK;
    const auto passed = static_cast<std::int64_t>(tick_end - perfinfo.tick_start);
    if (start_missing || passed < 0)
        return 0;
    const auto second = static_cast<std::int64_t>(ticks_per_second());
    if (passed / second >= INT64_MAX / 1000)
        return INT64_MAX;
    return passed / second * 1000 + passed % second * 1000 / second;
}

// A local time with its milliseconds.
struct LocalTime {
    std::tm tm = {};
    std::int32_t ms = 0;
};

LocalTime now() {
    timeval time = {};
    gettimeofday(&time, nullptr);
    LocalTime local;
    log_local_time(time.tv_sec, &local.tm);
    local.ms = static_cast<std::int32_t>(time.tv_usec / 1000);
    return local;
}

struct TimeText {
    TimeText(const std::tm &tm, std::int32_t ms) {
        std::snprintf(text, sizeof(text), "%04d/%02d/%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900,
                      tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
    }
    char text[96];
};

// What a line has room for beside its stamp, times and numbers.
constexpr std::size_t texts_max = 384;

// Bytes of the UTF-8 character at the beginning of a text. No ASCII character is taken for a part of one,
// whatever the encoding of the text: quotes have to be found.
std::size_t character_size(const char *text) {
    const auto first = static_cast<unsigned char>(*text);
    const std::size_t whole = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : first >= 0xc0 ? 2 : 1;
    std::size_t size = 1;
    while (size < whole && (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80)
        ++size;
    return size;
}

// The inside of a quoted field of at most `limit` bytes, cut between two characters: quotes doubled (RFC
// 4180), line ends blanks, so that a line of the log stays one row of its file.
class Field {
public:
    Field(const char *text, std::size_t limit) {
        for (; *text != '\0'; text += character_size(text)) {
            const std::string_view character = replaced({text, character_size(text)});
            if (size_ + character.size() > std::min(limit, texts_max))
                break;
            size_ += character.copy(text_ + size_, character.size());
        }
    }
    const char *text() const { return text_; }
    std::size_t size() const { return size_; }

private:
    static std::string_view replaced(std::string_view character) {
        if (character == "\"")
            return "\"\"";
        return character == "\n" || character == "\r" ? " " : character;
    }
    char text_[texts_max + 1] = "";
    std::size_t size_ = 0;
};

struct Action {
    Action(const char *name_text, const char *action_text, const char *result_text, std::size_t limit)
        : name(name_text, limit), action(action_text, limit), result(result_text, limit) {}
    bool fits() const { return name.size() + action.size() + result.size() <= texts_max; }
    Field name;
    Field action;
    Field result;
};

std::int32_t write_action(void *phandle, const log_perf_info &perfinfo, const Action &action,
                          std::int32_t retcode, bool timed, std::int64_t response_ms) {
    char code[16] = "";
    if (retcode != LOG_RETCODE_NONE)
        std::snprintf(code, sizeof(code), "\"%d\"", retcode);
    const char *const name = action.name.text();
    if (!timed)
        return log_util_write(phandle, "\"%s\",\"%s\",\"%s\",%s,,,", name, action.action.text(),
                              action.result.text(), code);
    const LocalTime end = now();
    return log_util_write(phandle, "\"%s\",\"%s\",\"%s\",%s,\"%s\",\"%s\",\"%ld\"", name,
                          action.action.text(), action.result.text(), code,
                          TimeText(perfinfo.tm_start, perfinfo.ms_start).text, TimeText(end.tm, end.ms).text,
                          response_ms);
}

// Tags of one value, without those that have no text.
class Tags {
public:
    void add(std::string_view key, std::string_view value) {
        if (value.empty())
            return;
        STATSD_TAG &tag = tags_[count_++];
        tag = {};
        key.copy(tag.key, sizeof(tag.key) - 1);
        value.copy(tag.value, sizeof(tag.value) - 1);
        log_end_text(tag.value, sizeof(tag.value), static_cast<int>(value.size()));
    }
    const STATSD_TAG *get() const { return tags_; }
    int count() const { return count_; }

private:
    STATSD_TAG tags_[4];
    int count_ = 0;
};

void emit(const LOGLIB_OBJ *plogobj, const char *name, std::int64_t response_ms) {
    if (plogobj->statsd_handle == nullptr)
        return;
    Tags tags;
    tags.add("ClusterName", plogobj->clustername);
    tags.add("ServerName", plogobj->servername);
    tags.add("ModuleType", plogobj->statsd_modtype);
    tags.add("MonitorName", name);
    const auto value = static_cast<int>(std::min<std::int64_t>(response_ms, INT_MAX));
    statsd_send(plogobj->statsd_handle, STATSD_METHOD_MON_RESPONSE_TIME, value, tags.get(), tags.count());
}

} // namespace

std::int32_t log_util_perf_init(void **pphandle, const char *modtype, std::int32_t logtype) {
    if (pphandle != nullptr)
        *pphandle = nullptr;
    const PerfKind *kind = find_perf_kind(logtype);
    if (kind == nullptr || modtype == nullptr)
        return LOG_ERR_PARAMETER;
    const CancelDisabled whole;
    const PerfSettings settings = read_settings(*kind);
    ticks_per_second(); // asked for now, so that no measurement waits for the lock
    const auto hsize = static_cast<std::int32_t>(kind->header.size() + 1);
    const std::int32_t ret = log_util_init(modtype, pphandle, logtype, 0, settings.size, settings.rotate,
                                           hsize, kind->header.data(), nullptr);
    if (ret != LOG_OK)
        return ret;
    auto *plogobj = static_cast<LOGLIB_OBJ *>(*pphandle);
    plogobj->perfcollect = settings.collect;
    log_copy_text(plogobj->clustername, settings.clustername);
    zyngethostname(plogobj->servername);
    if (logtype == LOG_TYPE_MONITOR) {
        log_copy_text(plogobj->statsd_modtype, modtype);
        // Outside loglibmutex, which the emitter takes after its own.
        statsd_init(&plogobj->statsd_handle);
    }
    return LOG_OK;
}

std::int32_t log_util_perf_start(log_perf_info *perfinfo, std::int32_t tickuse, std::uint64_t tickstart) {
    if (perfinfo == nullptr)
        return LOG_ERR_PARAMETER;
    const LocalTime start = now();
    *perfinfo = {};
    perfinfo->ms_start = start.ms;
    perfinfo->tm_start = start.tm;
    perfinfo->tick_start = ticks(tickuse, tickstart);
    return LOG_OK;
}

std::int32_t log_util_perf_end(void *phandle, const log_perf_info *perfinfo, const char *name,
                               const char *action, const char *result, std::int32_t retcode,
                               std::int32_t tickuse, std::uint64_t tickend) {
    const auto *plogobj = static_cast<const LOGLIB_OBJ *>(phandle);
    if (plogobj == nullptr || perfinfo == nullptr || name == nullptr || action == nullptr ||
        result == nullptr)
        return LOG_ERR_PARAMETER;
    const CancelDisabled whole;
    const bool timed = tickuse != LOG_TICK_NONE;
    const std::int64_t response_ms = response_time(*perfinfo, tickuse, ticks(tickuse, tickend));
    std::int32_t ret = LOG_OK;
    if (plogobj->perfcollect != 0) {
        const Action full(name, action, result, texts_max);
        ret =
            write_action(phandle, *perfinfo, full.fits() ? full : Action(name, action, result, texts_max / 3),
                         retcode, timed, response_ms);
    }
    if (timed)
        emit(plogobj, name, response_ms);
    return ret;
}

std::int32_t log_util_perf_term(void *phandle) {
    auto *plogobj = static_cast<LOGLIB_OBJ *>(phandle);
    if (plogobj == nullptr)
        return LOG_ERR_PARAMETER;
    if (plogobj->statsd_handle != nullptr)
        statsd_term(plogobj->statsd_handle);
    return log_util_term(phandle);
}
