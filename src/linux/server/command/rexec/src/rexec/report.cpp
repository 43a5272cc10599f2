// The result lines and closing messages. Texts stand in tables; the code picks a row.
#include "rexec/report.h"

#include "rexec/output.h"
#include "rexeccl/trace.h"
#include "trnexecgrpfo.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>

#include <strings.h>

namespace {

// How a status counts towards the worker's result.
enum class Count { success, invalid, offline, notfound, failed };

// A number and its text.
struct Text {
    int number;
    const char *text;
};

template <std::size_t N>
constexpr const char *find_text(const std::array<Text, N> &table, int number, const char *otherwise) {
    for (const Text &row : table)
        if (row.number == number)
            return row.text;
    return otherwise;
}

struct RequestTexts {
    const char *reqcode;
    const char *label;
    const char *word;
};

constexpr auto request_texts = std::to_array<RequestTexts>({
    {ZYNEXECGRPFO_EX_ID, "GRP_FAILOVER", "Failover"},
    {ZYNEXECSCRIPT_EX_ID, "EXEC_SCRIPT", "Script"},
    {ZYNEXECNOTICE_ID, "MRW_NOTICE", "Notice"},
    {ZYNEXECCLEAR_ID, "MRW_CLEAR", "Clear"},
});

constexpr auto status_texts = std::to_array<Text>({
    {TRANS_RES_STAT_SUCCESS, "Success."},
    {TRANS_RES_STAT_SUCCESS_NOTDATA, "Success."},
    {TRANS_RES_STAT_FAIL_BUSY, "Busy."},
    {TRANS_RES_STAT_FAIL_NOTEXISTFILE, "Not exist file."},
    {TRANS_RES_STAT_FAIL_NOFREESPACE, "No free space."},
    {TRANS_RES_STAT_FAIL_PARAMTIMEOUT, "Timeout."},
});

constexpr auto skipped_monitor_texts = std::to_array<Text>({
    {TRANS_RES_STAT_FAIL_NOTACTMON, "monitor not active, do not action\n"},
    {TRANS_RES_STAT_FAIL_ERRMON, "already error status, do not action\n"},
    {TRANS_RES_STAT_FAIL_INVALIDCONF, "invalid config\n"},
});

constexpr auto preaction_texts = std::to_array<Text>({
    {TRANS_RES_STAT_FAIL_NOEXISTSCRIPT, "[File not exists]"},
    {TRANS_RES_STAT_FAIL_NOTAVAILABLE, "[Permission denied]"},
    {TRANS_RES_STAT_FAIL_EXECUTE, "[Cannot Executed]"},
    {TRANS_RES_STAT_FAIL_SCRIPTTIMEOUT, "[Timeout]"},
    {TRANS_RES_STAT_NORECOVERY, "[Not Executed(Recovery Action Disabled)]"},
});

constexpr auto acttype_texts = std::to_array<Text>({
    {TRANS_ACTTYPE_RESTART, "Restart"},
    {TRANS_ACTTYPE_FAILOVER, "Failover"},
    {TRANS_ACTTYPE_SCRIPT, "Recovery Script"},
});

constexpr auto action_texts = std::to_array<Text>({
    {1, "Do nothing"},
    {2, "Stop group"},
    {3, "Stop the cluster"},
    {4, "Stop the system"},
    {5, "Reboot the system"},
    {8, "Panic by sysrq"},
    {9, "Reset by keepalive driver"},
    {10, "Panic by keepalive driver"},
    {11, "Reset by BMC"},
    {12, "Power down by BMC"},
    {13, "Power cycle by BMC"},
    {14, "NMI sent by BMC"},
    {15, "I/O Fencing"},
    {16, "Stop resource"},
});

constexpr auto result_texts = std::to_array<Text>({
    {TRANS_RES_STAT_SUCCESS, "[Success]"},
    {TRANS_RES_STAT_FAIL_EXECUTE, "[Failure]"},
    {TRANS_RES_STAT_FAIL_SOMEEXECUTE, "[Failure in several servers]"},
    {TRANS_RES_STAT_FAIL_LATEEXECUTE, "[Doing]"},
    {TRANS_RES_STAT_FAIL_SCRIPTTIMEOUT, "[Timeout]"},
    {TRANS_RES_STAT_NORECOVERY, "[Not Executed(Recovery Action Disabled)]"},
});

constexpr auto clear_texts = std::to_array<Text>({
    {TRANS_RES_STAT_SUCCESS, "[Success]"},
    {TRANS_RES_STAT_FAIL_INVALIDMONSTAT, "[Failure]"},
});

constexpr auto closing_texts = std::to_array<Text>({
    {REXEC_SUCCESS, ""},
    {REXEC_FAIL_SERVER, ""},
    {REXEC_FAIL_OPTION, "Invalid option.\n"},
    {2, "Log in as root.\n"},
    {9, "Could not connect to the data transfer server.\nCheck if the server has started up.\n"},
    {REXEC_FAIL_CONNECT,
     "Could not connect to all data transfer servers.\nCheck if the servers have started up.\n"},
    {REXEC_FAIL_TIMEOUT, "Command timeout.\n"},
    {REXEC_FAIL_BUSY, "All servers are busy. Check if this command is already run.\n"},
});

// The result line of one server, and what it is told from.
struct ResultLine {
    Output &out;
    const REXEC_INFO *info;
    const REXECCL_CONNECTION_INFO *connection;
    int index;
    const char *label;
};

void trace_status(const ResultLine &line, int level) {
    REXEC_TRACE(level, "sv%d=%s status=%#x", line.index, line.connection->connstr, line.connection->status);
}

// How the rest of a result line is told, behind the label and the address.
using Tell = void (*)(const ResultLine &);

void tell_success(const ResultLine &line) {
    trace_status(line, 4);
    REXEC_TRACE(4, "execparam success.(%s)", line.connection->connstr);
    line.out.print("Success \n");
}

void tell_invalid(const ResultLine &line) {
    REXEC_TRACE(1, "RequestID not exist.(%s)", line.connection->connstr);
    line.out.print("Invalid option. \n");
}

void tell_offline(const ResultLine &line) {
    REXEC_TRACE(1, "grp is not active(%s).", line.connection->connstr);
    if (line.info->grpspecify != 0)
        line.out.print("Group(%s) is offline. \n", line.info->target);
    else
        line.out.print("Group that specified resource(%s) belongs to is offline. \n", line.info->target);
}

void tell_no_resource(const ResultLine &line) {
    REXEC_TRACE(1, "Specified rsc is not exist.");
    if (line.info->monspecify != 0)
        line.out.print("Specified resource(%s) does not exist. \n", line.info->target);
    else
        line.out.print("Specified resource(Category:%s, Keyword:%s) does not exist. \n", line.info->target,
                       line.info->montarget);
}

void tell_no_script(const ResultLine &line) {
    REXEC_TRACE(1, "Specified Script not exist.(%s)", line.connection->connstr);
    line.out.print("Specified script(%s) does not exist. \n", line.info->script);
}

void tell_not_executable(const ResultLine &line) {
    REXEC_TRACE(1, "Specified script is not executable.(%s)", line.connection->connstr);
    line.out.print("Specified script(%s) is not executable. \n", line.info->script);
}

void tell_not_permitted(const ResultLine &line) {
    REXEC_TRACE(1, "No permition.(%s)", line.connection->connstr);
    line.out.print("This server is not permitted to execute zynrexec. \n");
}

void tell_execute_failed(const ResultLine &line) {
    REXEC_TRACE(1, "request failed in execute.");
    line.out.print("%s failed in execute. \n", rexec_mkstr_ex(line.info->reqcode));
}

void tell_no_group(const ResultLine &line) {
    REXEC_TRACE(1, "Specified grp is not exist.");
    line.out.print("Specified group(%s) does not exist. \n", line.info->target);
}

void tell_failed(const ResultLine &line) {
    trace_status(line, 1);
    char text[16];
    rexec_makestr_rexecclsvstat(line.connection->status, text);
    line.out.print("%s\n", text);
}

struct ResultRow {
    int status;
    Tell tell;
    Count count;
};

constexpr auto result_rows = std::to_array<ResultRow>({
    {TRANS_RES_STAT_SUCCESS, tell_success, Count::success},
    {TRANS_RES_STAT_SUCCESS_NOTDATA, tell_success, Count::success},
    {TRANS_RES_STAT_FAIL_INSTRUCTMSG, tell_invalid, Count::invalid},
    {TRANS_RES_STAT_FAIL_NOACTGRP, tell_offline, Count::offline},
    {TRANS_RES_STAT_FAIL_NOEXISTRSC, tell_no_resource, Count::notfound},
    {TRANS_RES_STAT_FAIL_NOEXISTSCRIPT, tell_no_script, Count::notfound},
    {TRANS_RES_STAT_FAIL_NOTAVAILABLE, tell_not_executable, Count::notfound},
    {TRANS_RES_STAT_FAIL_NOTPERMIT, tell_not_permitted, Count::notfound},
    {TRANS_RES_STAT_FAIL_EXECUTE, tell_execute_failed, Count::notfound},
    {TRANS_RES_STAT_FAIL_NOEXISTGRP, tell_no_group, Count::notfound},
});
constexpr ResultRow other_result = {0, tell_failed, Count::failed};

const ResultRow &find_result(int status) {
    for (const ResultRow &row : result_rows)
        if (row.status == status)
            return row;
    return other_result;
}

// What follows the result line when the server sent data.
void report_detail(const REXEC_INFO *info, const REXECCL_EXEC_PARAM_INFO &answer) {
    if (answer.out_size == 0) {
        REXEC_TRACE(4, "not recv out_data(%p, size=%d)", answer.out_data, static_cast<int>(answer.out_size));
        return;
    }
    if (strcasecmp(info->reqcode, ZYNEXECSCRIPT_EX_ID) == 0)
        rexec_exscript_errcmd(static_cast<const ZYNEXECSCRIPT_EX_OUT_PARAM *>(answer.out_data));
    else if (strcasecmp(info->reqcode, ZYNEXECNOTICE_ID) == 0)
        rexec_notice_errcmd(static_cast<const ZYNEXEC_EXNOTICE_OUT_PARAM *>(answer.out_data));
    else if (strcasecmp(info->reqcode, ZYNEXECCLEAR_ID) == 0)
        rexec_clear_errcmd(static_cast<const ZYNEXEC_EXNOTICE_OUT_PARAM *>(answer.out_data));
}

Count report_connection(const ResultLine &line) {
    const ResultRow &row = find_result(line.connection->status);
    line.out.print("%s %s : ", line.label, line.connection->connstr);
    row.tell(line);
    line.out.flush();
    report_detail(line.info, line.connection->datainfo.execparam);
    return row.count;
}

struct Counts {
    int all = 0, failed = 0, invalid = 0, unsuccessful = 0;

    void add(Count count) {
        ++all;
        failed += count == Count::failed ? 1 : 0;
        invalid += count == Count::invalid ? 1 : 0;
        unsuccessful += count == Count::success ? 0 : 1;
    }
    int result() const {
        if (failed >= all)
            return REXEC_FAIL_COMMAND;
        if (invalid >= all)
            return REXEC_FAIL_OPTION;
        return unsuccessful >= all ? REXEC_FAIL_SERVER : REXEC_SUCCESS;
    }
};

void print_preaction(Output &out, const TRNSV_MRW_OUT_INFO &monitor) {
    if (monitor.sresult == TRANS_RES_STAT_FAIL_NOSET)
        return;
    if (monitor.sresult == TRANS_RES_STAT_SUCCESS)
        out.print("preaction script[Executed(exitcode=%d)], ", monitor.sreturn);
    else
        out.print("preaction script%s, ", find_text(preaction_texts, monitor.sresult, "[Unknown]"));
}

// A peer's name for a terminal: within its width, and without characters that could forge a line.
struct PrintableName {
    explicit PrintableName(const char (&name)[TRNSV_NAME_LEN]) {
        const std::size_t length = strnlen(name, sizeof(name));
        std::memcpy(text, name, length);
        for (char &c : text)
            if (c != '\0' && std::iscntrl(static_cast<unsigned char>(c)) != 0)
                c = '?';
    }
    char text[TRNSV_NAME_LEN + 1] = {};
};

const char *action_text(const TRNSV_MRW_OUT_INFO &monitor) {
    if (monitor.acttype == TRANS_ACTTYPE_OTHER)
        return find_text(action_texts, monitor.action, "Unknown action");
    return find_text(acttype_texts, monitor.acttype, "Unknown action");
}

void print_noticed_monitor(Output &out, const TRNSV_MRW_OUT_INFO &monitor) {
    const PrintableName name(monitor.name);
    REXEC_TRACE(4, "\"%s\" res=%d, sres=%d, atype=%d, act=%d", name.text, monitor.result, monitor.sresult,
                monitor.acttype, monitor.action);
    out.print("  %s\t: ", name.text);
    if (const char *skipped = find_text(skipped_monitor_texts, monitor.result, nullptr); skipped != nullptr) {
        out.print("%s", skipped);
        return;
    }
    print_preaction(out, monitor);
    out.print("%s%s\n", action_text(monitor), find_text(result_texts, monitor.result, "[Unknown]"));
}

// Nodes of a list by their status after connecting or disconnecting.
struct NodeCounts {
    int all = 0, busy = 0, failed = 0;

    void add(int status) {
        ++all;
        if (status == TRANS_RES_STAT_SUCCESS || status == TRANS_RES_STAT_SUCCESS_NOTDATA)
            return;
        ++failed;
        busy += status == TRANS_RES_STAT_FAIL_BUSY ? 1 : 0;
    }
};

void print_unconnected(Output &out, const REXECCL_NODE_INFO &node) {
    if (node.nstatus == TRANS_RES_STAT_FAIL_NOTPERMIT)
        out.print("Connect %s : This server is not permitted to execute zynrexec. \n", node.szhost);
    else if (node.nstatus != TRANS_RES_STAT_SUCCESS && node.nstatus != TRANS_RES_STAT_SUCCESS_NOTDATA &&
             node.nstatus != TRANS_RES_STAT_FAIL_BUSY)
        out.print("Connect %s : Failed \n", node.szhost);
}

const RequestTexts *find_request(const char *reqcode, int line, const char *function) {
    for (const RequestTexts &row : request_texts)
        if (std::strcmp(row.reqcode, reqcode) == 0)
            return &row;
    rexeccllog(1, "src/rexec", line, function, "invalid code(%s)", reqcode);
    return nullptr;
}

} // namespace

const char *rexec_mkstr(const char *reqcode) {
    REXEC_ENTER();
    const RequestTexts *row = find_request(reqcode, __LINE__, __func__);
    REXEC_EXIT(0);
    return row != nullptr ? row->label : "??";
}

const char *rexec_mkstr_ex(const char *reqcode) {
    REXEC_ENTER();
    const RequestTexts *row = find_request(reqcode, __LINE__, __func__);
    REXEC_EXIT(0);
    return row != nullptr ? row->word : "??";
}

void rexec_makestr_rexecclsvstat(int status, char *buffer) {
    REXEC_ENTER();
    std::snprintf(buffer, 16, "%s", find_text(status_texts, status, "Failed."));
    REXEC_EXIT(0);
}

void rexec_print_connfail(const REXECCL_NODE_INFO *nodes) {
    REXEC_ENTER();
    Output out;
    for (const REXECCL_NODE_INFO *node = nodes; node != nullptr; node = node->next)
        out.print("Connect %s: Failed \n", node->szhost);
    REXEC_EXIT(0);
}

int rexec_trnerrcon(const REXECCL_NODE_INFO *nodes) {
    REXEC_ENTER();
    NodeCounts counts;
    int ret = REXEC_SUCCESS;
    {
        Output out;
        for (const REXECCL_NODE_INFO *node = nodes; node != nullptr; node = node->next) {
            REXEC_TRACE(4, "sv%d=%s status=%#x", counts.all, node->szhost, node->nstatus);
            print_unconnected(out, *node);
            counts.add(node->nstatus);
        }
        if (counts.busy >= counts.all) {
            out.print("All server is busy. Check if this command is already run.\n");
            ret = REXEC_FAIL_BUSY;
        } else if (counts.failed >= counts.all) {
            ret = REXEC_FAIL_CONNECT;
        }
    }
    REXEC_EXIT(ret);
    return ret;
}

int rexec_trnerrdiscon(const REXECCL_NODE_INFO *nodes) {
    REXEC_ENTER();
    NodeCounts counts;
    for (const REXECCL_NODE_INFO *node = nodes; node != nullptr; node = node->next)
        counts.add(node->nstatus);
    const int ret = counts.failed >= counts.all ? REXEC_FAIL_DISCONNECT : REXEC_SUCCESS;
    REXEC_EXIT(ret);
    return ret;
}

int rexec_trnerrcmd(const REXEC_INFO *info, const REXECCL_CONNECTION_INFO *connections) {
    REXEC_ENTER();
    const char *label = rexec_mkstr(info->reqcode);
    Counts counts;
    {
        Output out;
        for (const REXECCL_CONNECTION_INFO *at = connections; at != nullptr; at = at->next)
            counts.add(report_connection({out, info, at, counts.all, label}));
    }
    const int ret = counts.result();
    REXEC_EXIT(ret);
    return ret;
}

int rexec_exscript_errcmd(const ZYNEXECSCRIPT_EX_OUT_PARAM *data) {
    REXEC_ENTER();
    int ret = REXEC_SUCCESS;
    if (data != nullptr) {
        REXEC_TRACE(4, "script ret=%d", data->sreturn);
        Output out;
        out.print("  script exitcode=%d\n", data->sreturn);
    } else {
        REXEC_TRACE(4, "not receive out_data");
        ret = REXEC_FAIL_SERVER;
    }
    REXEC_EXIT(ret);
    return ret;
}

int rexec_notice_errcmd(const ZYNEXEC_EXNOTICE_OUT_PARAM *data) {
    REXEC_ENTER();
    int ret = REXEC_SUCCESS;
    if (data != nullptr) {
        REXEC_TRACE(8, "pmrwinfo=%p, monnum=%d", static_cast<const void *>(data->mrwres), data->monnum);
        Output out;
        for (std::int32_t i = 0; i < data->monnum; ++i)
            print_noticed_monitor(out, data->mrwres[i]);
    } else {
        REXEC_TRACE(4, "not receive out_data");
        ret = REXEC_FAIL_SERVER;
    }
    REXEC_EXIT(ret);
    return ret;
}

int rexec_clear_errcmd(const ZYNEXEC_EXNOTICE_OUT_PARAM *data) {
    REXEC_ENTER();
    int ret = REXEC_SUCCESS;
    if (data != nullptr) {
        REXEC_TRACE(8, "pmrwinfo=%p", static_cast<const void *>(data->mrwres));
        Output out;
        for (std::int32_t i = 0; i < data->monnum; ++i) {
            const TRNSV_MRW_OUT_INFO &monitor = data->mrwres[i];
            const PrintableName name(monitor.name);
            REXEC_TRACE(4, "\"%s\" res=%d", name.text, monitor.result);
            out.print("  %s\t: clear%s\n", name.text, find_text(clear_texts, monitor.result, "[Unknown]"));
        }
    } else {
        REXEC_TRACE(4, "not receive out_data");
        ret = REXEC_FAIL_SERVER;
    }
    REXEC_EXIT(ret);
    return ret;
}

int rexec_print_message(int code) {
    REXEC_ENTER();
    Output out;
    out.print("%s", find_text(closing_texts, code,
                              "Internal error. Check if memory or OS resource is sufficient.\n"));
    REXEC_EXIT(0);
    return 0;
}
