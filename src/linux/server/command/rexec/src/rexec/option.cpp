// The command line. One walk over the words fills the request record, one rule a request decides
// afterwards which options go together.
#include "rexec/option.h"

#include "rexec/output.h"
#include "rexeccl/trace.h"
#include "trnexecgrpfo.h"
#include "trnexecnotice.h"
#include "trnexecscript.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <strings.h>

char _rexec_logpath[1024];

namespace {

constexpr std::size_t name_max = TRNSV_NAME_LEN - 1;
constexpr std::size_t category_max = 127;
constexpr std::size_t text_max = 1023;
constexpr std::size_t address_max = TRANS_IP_LEN - 1;
constexpr std::size_t number_max = 10;

// The walk over the line: where it stands and what it has seen.
struct Walk {
    int argc;
    char **argv;
    int at; // index of the option word
    REXEC_INFO *info;
    bool seen_h, seen_r, seen_k, seen_p, seen_w, seen_o;

    // The word behind the option, when it is usable: it exists, does not look like an option and has
    // at most `max` characters. Null otherwise.
    const char *argument(std::size_t max) const {
        if (at + 1 >= argc)
            return nullptr;
        const char *word = argv[at + 1];
        return word[0] != '-' && std::strlen(word) <= max ? word : nullptr;
    }
    const char *take(std::size_t max) {
        const char *word = argument(max);
        if (word != nullptr)
            ++at;
        return word;
    }
};

// Copies a text whose length has been checked into a zeroed field.
template <std::size_t N>
void store(char (&field)[N], std::string_view text) {
    const std::size_t length = std::min(text.size(), N - 1);
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

int refuse(int line, const char *text = "Invalid option.") {
    rexeccllog(1, "src/rexec", line, "rexec_ckopt", "%s", text);
    return REXEC_FAIL_OPTION;
}

// One request option a line; the first decides what is asked for.
bool set_request(Walk &walk, const char *reqcode) {
    if (walk.info->reqcode[0] != '\0')
        return false;
    store(walk.info->reqcode, reqcode);
    return true;
}

int take_failover(Walk &walk) {
    if (!set_request(walk, ZYNEXECGRPFO_EX_ID))
        return refuse(__LINE__);
    const char *group = walk.take(name_max);
    if (group != nullptr) {
        store(walk.info->target, group);
        walk.info->grpspecify = 1;
    }
    REXEC_TRACE(8, "--failover: %s", group != nullptr ? group : "-");
    return 0;
}

int take_script(Walk &walk) {
    if (!set_request(walk, ZYNEXECSCRIPT_EX_ID))
        return refuse(__LINE__);
    const char *script = walk.take(text_max);
    if (script == nullptr)
        return refuse(__LINE__);
    if (std::strchr(script, '/') != nullptr)
        return refuse(__LINE__, "Invalid option.(--script:scriptname)");
    store(walk.info->script, script);
    REXEC_TRACE(8, "--script : %s", script);
    return 0;
}

const char *take_monitor(Walk &walk) {
    const char *monitor = walk.take(name_max);
    if (monitor != nullptr) {
        store(walk.info->target, monitor);
        walk.info->monspecify = 1;
    }
    return monitor;
}

int take_notice(Walk &walk) {
    if (!set_request(walk, ZYNEXECNOTICE_ID))
        return refuse(__LINE__);
    const char *monitor = take_monitor(walk);
    REXEC_TRACE(8, "--notice : %s", monitor != nullptr ? monitor : "-");
    return 0;
}

int take_clear(Walk &walk) {
    if (!set_request(walk, ZYNEXECCLEAR_ID))
        return refuse(__LINE__);
    const char *monitor = take_monitor(walk);
    REXEC_TRACE(8, "--clear : %s", monitor != nullptr ? monitor : "specify mon_type and target");
    return 0;
}

// Stores the elements of a comma-separated list, in order; false when one cannot be stored.
bool store_addresses(REXEC_INFO *info, std::string_view list) {
    for (;;) {
        const std::size_t comma = list.find(',');
        const std::string_view element = list.substr(0, comma);
        if (++info->ipnum > info->maxsrvnum || element.empty() || element.size() > address_max)
            return false;
        store(info->ipaddr[info->ipnum - 1], element);
        if (comma == std::string_view::npos)
            return true;
        list.remove_prefix(comma + 1);
    }
}

int take_addresses(Walk &walk) {
    const char *list = walk.take(INT_MAX);
    if (walk.seen_h || list == nullptr || !store_addresses(walk.info, list))
        return refuse(__LINE__);
    walk.seen_h = true;
    return 0;
}

int take_resource(Walk &walk) {
    const char *resource = walk.take(name_max);
    if (walk.seen_r || walk.seen_k || resource == nullptr)
        return refuse(__LINE__);
    walk.seen_r = true;
    store(walk.info->target, resource);
    REXEC_TRACE(8, "-r : %s", resource);
    return 0;
}

int take_category(Walk &walk) {
    const char *text = walk.take(category_max + 1 + text_max);
    if (walk.seen_k || walk.seen_r || text == nullptr)
        return refuse(__LINE__);
    walk.seen_k = true;
    const std::string_view whole = text;
    const std::size_t dot = whole.find('.');
    const std::string_view category = whole.substr(0, dot);
    const std::string_view keyword = dot == std::string_view::npos ? "" : whole.substr(dot + 1);
    if (category.size() > category_max || keyword.size() > text_max ||
        keyword.find('.') != std::string_view::npos)
        return refuse(__LINE__);
    store(walk.info->target, category);
    store(walk.info->montarget, keyword);
    return 0;
}

int take_number(Walk &walk, bool &seen, int &value) {
    const char *text = walk.take(number_max);
    if (seen || text == nullptr || rexec_cknum_int(text, &value) != 0)
        return refuse(__LINE__);
    seen = true;
    return 0;
}

int take_port(Walk &walk) {
    REXEC_TRACE(8, "-p: Port Number");
    return take_number(walk, walk.seen_p, walk.info->portnumber);
}

int take_timeout(Walk &walk) {
    REXEC_TRACE(8, "-w: Command Timeout");
    return take_number(walk, walk.seen_w, walk.info->cmdtimeout);
}

int take_logpath(Walk &walk) {
    const char *path = walk.take(text_max);
    if (walk.seen_o || path == nullptr)
        return refuse(__LINE__);
    walk.seen_o = true;
    store(_rexec_logpath, path);
    REXEC_TRACE(8, "-o : %s", path);
    return 0;
}

int take_help(Walk &) {
    return REXEC_HELP;
}

struct OptionRow {
    const char *word;    // compared without regard to case
    int (*take)(Walk &); // reads the option and its argument; 0, REXEC_FAIL_OPTION or REXEC_HELP
};

constexpr auto option_rows = std::to_array<OptionRow>({
    {"--failover", take_failover},
    {"--script", take_script},
    {"--notice", take_notice},
    {"--clear", take_clear},
    {"-h", take_addresses},
    {"-r", take_resource},
    {"-k", take_category},
    {"-p", take_port},
    {"-w", take_timeout},
    {"-o", take_logpath},
    {"--help", take_help},
});

int take_word(Walk &walk) {
    for (const OptionRow &row : option_rows)
        if (strcasecmp(walk.argv[walk.at], row.word) == 0)
            return row.take(walk);
    return refuse(__LINE__);
}

// Which targets a request wants, once the whole line is known.
struct RequestRule {
    const char *reqcode;
    bool named;    // a name behind the request option is a target
    bool resource; // -r is a target
    bool category; // -k is a target
    int targets;   // how many of the three must be given
};

constexpr auto request_rules = std::to_array<RequestRule>({
    {ZYNEXECGRPFO_EX_ID, true, true, false, 1},
    {ZYNEXECSCRIPT_EX_ID, false, false, false, 0},
    {ZYNEXECNOTICE_ID, true, false, true, 1},
    {ZYNEXECCLEAR_ID, true, false, true, 1},
});

bool keeps_rule(const Walk &walk, const RequestRule &rule) {
    const bool named = walk.info->grpspecify != 0 || walk.info->monspecify != 0;
    if ((walk.seen_r && !rule.resource) || (walk.seen_k && !rule.category) || (named && !rule.named))
        return false;
    return int{named} + int{walk.seen_r} + int{walk.seen_k} == rule.targets;
}

int check_combination(const Walk &walk) {
    const REXEC_INFO *info = walk.info;
    for (const RequestRule &rule : request_rules)
        if (std::strcmp(info->reqcode, rule.reqcode) == 0 && !keeps_rule(walk, rule))
            return refuse(__LINE__);
    REXEC_TRACE(4, "option  : %s", info->reqcode);
    if (walk.seen_k) {
        REXEC_TRACE(4, "mon_type  : %s", info->target);
        REXEC_TRACE(4, "mon_target  : %s", info->montarget);
    } else {
        const bool script = std::strcmp(info->reqcode, ZYNEXECSCRIPT_EX_ID) == 0;
        REXEC_TRACE(4, "target  : %s", script ? info->script : info->target);
    }
    return 0;
}

int read_line(int argc, char **argv, REXEC_INFO *info) {
    Walk walk = {.argc = argc,
                 .argv = argv,
                 .at = 1,
                 .info = info,
                 .seen_h = false,
                 .seen_r = false,
                 .seen_k = false,
                 .seen_p = false,
                 .seen_w = false,
                 .seen_o = false};
    for (; walk.at < argc; ++walk.at)
        if (const int ret = take_word(walk); ret != 0)
            return ret;
    if (_rexec_logpath[0] != '\0')
        REXEC_TRACE(4, "logfile : %s", _rexec_logpath);
    if (info->reqcode[0] == '\0')
        return refuse(__LINE__, "Invalid option. No reqcode.");
    if (!walk.seen_h) {
        REXEC_TRACE(4, "no IPaddr.");
        store(info->ipaddr[0], "127.0.0.1");
        info->ipnum = 1;
    }
    if (const int ret = check_combination(walk); ret != 0)
        return ret;
    REXEC_TRACE(4, "port : %d", info->portnumber);
    REXEC_TRACE(4, "wait : %d", info->cmdtimeout);
    for (int i = 0; i < info->ipnum; ++i)
        REXEC_TRACE(4, "ipaddr[%d]: %s", i, info->ipaddr[i]);
    return 0;
}

constexpr const char *usage_text =
    "\n"
    "Usage: Group Failover\n"
    "        zynrexec --failover {<grpname>|-r <rscname>} -h <IP1>[,<IP2>...]\n"
    "                 [-w <wait(sec)>] [-p <port_number>] [-o <logfile_path>]\n"
    "     : Execute Script\n"
    "        zynrexec --script <scriptname> -h <IP1>[,<IP2>...]\n"
    "                 [-w <wait(sec)>] [-p <port_number>] [-o <logfile_path>]\n"
    "     : Notice Error Occurrence\n"
    "        zynrexec --notice {<mrw_name>|-k <category>[.<keyword>]} -h <IP1>[,<IP2>...]\n"
    "                 [-w <wait(sec)>] [-p <port_number>] [-o <logfile_path>]\n"
    "     : Clear Monitor Status\n"
    "        zynrexec --clear {<mrw_name>|-k <category>[.<keyword>]} -h <IP1>[,<IP2>...]\n"
    "                 [-w <wait(sec)>] [-p <port_number>] [-o <logfile_path>]\n"
    "\n";

} // namespace

int rexec_ckopt(int argc, char **argv, REXEC_INFO *info) {
    REXEC_ENTER();
    const int ret = read_line(argc, argv, info);
    REXEC_EXIT(ret);
    return ret;
}

int rexec_cknum_int(const char *text, int *value) {
    REXEC_ENTER();
    char *end = nullptr;
    const bool fits = std::strlen(text) <= number_max;
    const unsigned long number = fits ? std::strtoul(text, &end, 0) : 0;
    const int ret = fits && *end == '\0' && number <= INT_MAX ? 0 : 1;
    if (ret == 0)
        *value = static_cast<int>(number);
    REXEC_EXIT(ret);
    return ret;
}

void rexec_usage() {
    REXEC_ENTER();
    Output out;
    out.print("%s", usage_text);
    REXEC_EXIT(0);
}
