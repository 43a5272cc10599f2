#include "log/line.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

struct LevelTag {
    std::int32_t level;
    char tag;
};
constexpr auto level_tags = std::to_array<LevelTag>({{LOG_LEVEL_ERROR, 'E'},
                                                     {LOG_LEVEL_WARNING, 'W'},
                                                     {LOG_LEVEL_INFO, 'I'},
                                                     {LOG_LEVEL_TRACE, 'T'},
                                                     {LOG_LEVEL_DETAIL, 'T'},
                                                     {LOG_LEVEL_FINE, 'T'}});

char tag_of(std::int32_t level) {
    for (const LevelTag &row : level_tags)
        if (row.level == level)
            return row.tag;
    return '-';
}

// Kinds of log_cre_localmsg_ex that quote their time stamp.
constexpr auto quoted_kinds = std::to_array<std::int32_t>(
    {LOG_TYPE_UTIL, LOG_TYPE_GROUP, LOG_TYPE_RESOURCE, LOG_TYPE_MONITOR, LOG_TYPE_HEARTBEAT});

constexpr std::size_t source_width = 16; // name, colon and line number
constexpr std::size_t source_name = 10;
constexpr std::size_t function_width = 15;

// A line under construction, cut at LOG_LINE_LEN - 1 bytes. Formatting all of it by snprintf would cost as
// much as the send.
class Line {
public:
    explicit Line(char *text) : at_(text), end_(text + LOG_LINE_LEN - 1) {}

    void add(std::string_view text) { at_ += text.copy(at_, static_cast<std::size_t>(end_ - at_)); }
    void fill(std::size_t count) {
        count = std::min(count, static_cast<std::size_t>(end_ - at_));
        std::memset(at_, ' ', count);
        at_ += count;
    }
    void add_padded(std::string_view text, std::size_t width) {
        add(text);
        fill(width - std::min(width, text.size()));
    }
    // At least five digits, as "%05d".
    void add_number(std::int32_t value) { add(Number(value).text()); }
    // The name and line of a source, in at least source_width characters.
    void add_source(const char *filename, std::int32_t line) {
        std::string_view name(filename != nullptr ? filename : "");
        name = name.substr(name.rfind('/') + 1).substr(0, source_name);
        const Number number(line);
        add(name);
        add(":");
        add_padded(number.text(), source_width - name.size() - 1);
    }
    void end() { *at_ = '\0'; }

private:
    class Number {
    public:
        explicit Number(std::int32_t value) {
            char digits[16];
            const std::uint32_t magnitude =
                value < 0 ? 0U - static_cast<std::uint32_t>(value) : static_cast<std::uint32_t>(value);
            const auto length =
                static_cast<std::size_t>(std::to_chars(digits, std::end(digits), magnitude).ptr - digits);
            const std::size_t sign = value < 0 ? 1 : 0;
            const std::size_t zeros = length + sign < 5 ? 5 - length - sign : 0;
            std::memset(text_, '0', sizeof(text_));
            if (sign != 0)
                text_[0] = '-';
            std::memcpy(text_ + sign + zeros, digits, length);
            size_ = sign + zeros + length;
        }
        std::string_view text() const { return {text_, size_}; }

    private:
        char text_[24];
        std::size_t size_;
    };
    char *at_;
    char *const end_;
};

// A second in local time, as text; most lines of a thread fall into the same one as the line before.
struct Second {
    time_t seconds = -1;
    char text[64] = "";  // "YYYY/MM/DD hh:mm:ss"
    char year[16] = "";  // without its century
    std::size_t day = 0; // of the month in `text`, behind the year
};

// localtime_r does not read the zone. Before any thread: a forked child must not find this half done.
const bool zone_read [[maybe_unused]] = (tzset(), true);

// The system library has a lock of its own around the zone: a child that is forked while it is held would
// wait for it for ever. Who forks waits for this one instead.
std::mutex zone_mutex;
const int zone_released [[maybe_unused]] =
    pthread_atfork([] { zone_mutex.lock(); }, [] { zone_mutex.unlock(); }, [] { zone_mutex.unlock(); });

const Second &local_second(time_t seconds) {
    static thread_local Second last;
    if (last.seconds == seconds)
        return last;
    tm local = {};
    log_local_time(seconds, &local);
    std::snprintf(last.text, sizeof(last.text), "%04d/%02d/%02d %02d:%02d:%02d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    last.day = std::string_view(last.text).find('/') + 1;
    const int length = std::snprintf(last.year, sizeof(last.year), "%d", local.tm_year);
    if (length > 2)
        std::memmove(last.year, last.year + length - 2, 3);
    last.seconds = seconds;
    return last;
}

// Overwrites the first bytes of a UTF-8 character at the end of a text whose other bytes are cut off.
void blank_incomplete_character(char *end, std::size_t before) {
    for (std::size_t back = 1; back <= before && back <= 4; ++back) {
        const auto byte = static_cast<unsigned char>(end[-static_cast<std::ptrdiff_t>(back)]);
        if ((byte & 0xc0) == 0x80)
            continue; // a later byte of a character
        const std::size_t length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
        if (length > back)
            std::memset(end - back, ' ', back);
        return;
    }
}

// Who writes, asked of the system once a thread; a forked child has one thread, and asks anew.
struct Sender {
    pid_t pid = 0;
    pid_t tid = 0;
};
thread_local Sender known_sender;

const int sender_forgotten = pthread_atfork(nullptr, nullptr, [] { known_sender = {}; });

const Sender &sender() {
    if (known_sender.pid == 0 || sender_forgotten != 0)
        known_sender = {getpid(), gettid()};
    return known_sender;
}

// A copy for standard output, which names the thread also where it is the main one.
void print_line(const char *text, std::int32_t tid) {
    const char *bracket = std::strchr(text, ']');
    if (bracket == nullptr)
        return;
    const char *colon =
        static_cast<const char *>(memrchr(text, ':', static_cast<std::size_t>(bracket - text)));
    std::printf("%.*s:%05d%s", static_cast<int>(colon - text), text, tid, bracket);
    std::fflush(stdout);
}

} // namespace

void log_local_time(time_t seconds, std::tm *local) {
    const std::lock_guard lock(zone_mutex);
    localtime_r(&seconds, local);
}

void log_cre_datestr(char *pdatestr, std::int32_t level, std::int32_t showyearflag) {
    timeval now = {};
    gettimeofday(&now, nullptr);
    const Second &second = local_second(now.tv_sec);
    char *at = pdatestr;
    char *const end = pdatestr + LOG_DATE_LEN - 5; // room for the milliseconds
    const auto add = [&](std::string_view text) { at += text.copy(at, static_cast<std::size_t>(end - at)); };
    if (level == LOG_LEVEL_EVENT) {
        add(second.text);
    } else {
        if (showyearflag == 1) {
            add(second.year);
            add("/");
        }
        add(second.text + second.day);
    }
    const auto milliseconds = static_cast<unsigned>(now.tv_usec / 1000 % 1000);
    *at++ = '.';
    for (const unsigned unit : {100U, 10U, 1U})
        *at++ = static_cast<char>('0' + milliseconds / unit % 10);
    *at = '\0';
}

void log_end_line(char *msg) {
    msg[EVENTC_MSG_LEN - 1] = '\0';
    if (msg[EVENTC_MSG_LEN - 3] == '\n')
        return;
    if (msg[EVENTC_MSG_LEN - 3] != '\0')
        blank_incomplete_character(msg + EVENTC_MSG_LEN - 2, EVENTC_MSG_LEN - 2);
    msg[EVENTC_MSG_LEN - 2] = '\n';
}

void log_end_text(char *text, std::size_t size, int length) {
    if (length >= 0 && static_cast<std::size_t>(length) >= size)
        blank_incomplete_character(text + size - 1, size - 1);
}

void log_cre_localmsg(const LOGLIB_OBJ *plogobj, EVENTC_LOG_INFO *plogsend, std::int32_t level, std::int32_t,
                      const char *filename, std::int32_t line, const char *func, const char *msg) {
    char stamp[LOG_DATE_LEN];
    log_cre_datestr(stamp, level, plogobj->loginfo.showyearflag);
    const std::string_view function = std::string_view(func != nullptr ? func : "").substr(0, function_width);
    char *text = plogsend->destinfo.local.msg;
    const char tag[] = {tag_of(level), ' '};
    Line built(text);
    built.add({tag, sizeof(tag)});
    built.add(stamp);
    built.add("[");
    built.add_number(plogsend->pid);
    built.add(":");
    if (plogsend->tid != plogsend->pid)
        built.add_number(plogsend->tid);
    else
        built.fill(5);
    built.add("]");
    built.add_source(filename, line);
    built.add(" ");
    built.add_padded(function, function_width);
    built.add(" ");
    built.add(msg);
    built.add("\n");
    built.end();
    log_end_line(text);
    if (dbgprint != 0 && level <= dbgloglvl)
        print_line(text, plogsend->tid);
}

void log_cre_localmsg_ex(const LOGLIB_OBJ *plogobj, EVENTC_LOG_INFO *plogsend, const char *msg) {
    char stamp[LOG_DATE_LEN];
    char *text = plogsend->destinfo.local.msg;
    const std::int32_t kind = plogobj->logtype;
    if (std::find(quoted_kinds.begin(), quoted_kinds.end(), kind) != quoted_kinds.end()) {
        log_cre_datestr(stamp, LOG_LEVEL_EVENT, plogobj->loginfo.showyearflag);
        std::snprintf(text, LOG_LINE_LEN, "\"%s\",%s\n", stamp, msg);
    } else if (kind == LOG_TYPE_UTIL_TEXT) {
        log_cre_datestr(stamp, LOG_LEVEL_INFO, plogobj->loginfo.showyearflag);
        std::snprintf(text, LOG_LINE_LEN, "%s[%05d] %s\n", stamp, plogsend->pid, msg);
    }
    log_end_line(text);
}

void log_cre_record(EVENTC_LOG_INFO *plogsend, eventc_request_type dest, const char *type) {
    std::memset(plogsend, 0, sizeof(*plogsend));
    std::memcpy(plogsend->magicno, EVENTC_MAGICNO, sizeof(EVENTC_MAGICNO));
    std::memcpy(plogsend->version, EVENTC_VERSION, sizeof(EVENTC_VERSION));
    plogsend->dest = dest;
    std::string_view(type).copy(plogsend->type, sizeof(plogsend->type) - 1);
    plogsend->pid = sender().pid;
    plogsend->tid = sender().tid;
}

void log_cut_space(char *str) {
    constexpr std::size_t kept = 1023;
    constexpr char white_space[] = " \t\n\v\f\r";
    std::string_view text(str);
    const std::size_t first = std::min(text.find_first_not_of(white_space), text.size());
    text = text.substr(first, kept);
    const std::size_t last = text.find_last_not_of(white_space);
    text = text.substr(0, last == text.npos ? 0 : last + 1);
    std::memmove(str, text.data(), text.size());
    str[text.size()] = '\0';
}

std::int32_t zyngethostname(char *phostname) {
    constexpr std::size_t size = 256;
    std::memset(phostname, 0, size);
    if (gethostname(phostname, size - 1) != 0) {
        LOG_DEBUG("gethostname err errno:%d", errno);
        return 1;
    }
    phostname[std::strcspn(phostname, ".")] = '\0';
    return 0;
}
