// Names of the protocol's response statuses, for the journal.
#include "status.h"

#include "trans.h"

#include <algorithm>
#include <array>

namespace rehearsal {
namespace {

struct StatusRow {
    std::int32_t status;
    std::string_view name;
};

constexpr std::array<StatusRow, 42> statuses{{
    {TRANS_RES_STAT_SUCCESS, "success"},
    {TRANS_RES_STAT_SUCCESS_NOTDATA, "success without data"},
    {TRANS_RES_STAT_FAIL_INSTRUCTMSG, "no such request id"},
    {TRANS_RES_STAT_FAIL_UNKOWN_REQUEST, "unknown request"},
    {TRANS_RES_STAT_FAIL_NOTINITIALIZED, "not initialized"},
    {TRANS_RES_STAT_FAIL_INITIALIZED, "already initialized"},
    {TRANS_RES_STAT_FAIL_INVALIDCONF, "invalid configuration"},
    {TRANS_RES_STAT_FAIL_COMUNICATION, "communication failed"},
    {TRANS_RES_STAT_FAIL_CMDTIMEOUT, "command time-out"},
    {TRANS_RES_STAT_FAIL_BUSY, "busy"},
    {TRANS_RES_STAT_FAIL_MEMALLOC, "out of memory"},
    {TRANS_RES_STAT_FAIL_IO, "input or output failed"},
    {TRANS_RES_STAT_FAIL_FCTRL, "file control failed"},
    {TRANS_RES_STAT_FAIL_NOEXISTCMD, "no such command"},
    {TRANS_RES_STAT_FAIL_NODATA, "no data"},
    {TRANS_RES_STAT_FAIL_NOTEXISTFILE, "no such file"},
    {TRANS_RES_STAT_FAIL_NOFREESPACE, "no free space"},
    {TRANS_RES_STAT_FAIL_ARCHIVE, "archive failed"},
    {TRANS_RES_STAT_FAIL_UNKOWN, "unknown failure"},
    {TRANS_RES_STAT_FAIL_SHMATTACH, "shared memory not attached"},
    {TRANS_RES_STAT_FAIL_SHMGET, "shared memory not found"},
    {TRANS_RES_STAT_FAIL_NOACTCIALERT, "alert service not active"},
    {TRANS_RES_STAT_FAIL_NOACTGRP, "group is offline"},
    {TRANS_RES_STAT_FAIL_NOEXISTSRV, "no such server"},
    {TRANS_RES_STAT_FAIL_NOEXISTRSC, "no such resource"},
    {TRANS_RES_STAT_FAIL_NOEXISTSCRIPT, "no such script"},
    {TRANS_RES_STAT_FAIL_NOTAVAILABLE, "script is not executable"},
    {TRANS_RES_STAT_FAIL_PARAMTIMEOUT, "time limit passed"},
    {TRANS_RES_STAT_FAIL_NOTPERMIT, "client is not permitted"},
    {TRANS_RES_STAT_FAIL_EXECUTE, "execution failed"},
    {TRANS_RES_STAT_FAIL_INTERNAL, "internal failure"},
    {TRANS_RES_STAT_FAIL_NOEXISTGRP, "no such group"},
    {TRANS_RES_STAT_FAIL_SOMEEXECUTE, "execution failed on some servers"},
    {TRANS_RES_STAT_FAIL_LATEEXECUTE, "execution still going on"},
    {TRANS_RES_STAT_FAIL_SHMSET, "shared memory not set"},
    {TRANS_RES_STAT_FAIL_NOTACTMON, "monitor is not active"},
    {TRANS_RES_STAT_FAIL_ERRMON, "monitor is in error already"},
    {TRANS_RES_STAT_FAIL_SCRIPTTIMEOUT, "script time-out"},
    {TRANS_RES_STAT_FAIL_NOSET, "not set"},
    {TRANS_RES_STAT_FAIL_INVALIDMONSTAT, "monitor is not in error"},
    {TRANS_RES_STAT_FAIL_INVALIDPARAM, "invalid parameter"},
    {TRANS_RES_STAT_NORECOVERY, "recovery is disabled"},
}};

} // namespace

std::optional<std::string_view> find_status_name(std::int32_t status) {
    const auto *row = std::find_if(statuses.begin(), statuses.end(),
                                   [status](const StatusRow &one) { return one.status == status; });
    return row == statuses.end() ? std::nullopt : std::optional(row->name);
}

std::string_view status_name(std::int32_t status) {
    return find_status_name(status).value_or("not a known status");
}

} // namespace rehearsal
