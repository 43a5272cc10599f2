// Life cycle of the transfer client: started once a process, counted, and ended by the last user.
#include "rexeccl.h"

#include "cancel.h"
#include "rexeccl/settings.h"
#include "rexeccl/thread.h"
#include "rexeccl/trace.h"

namespace {

constexpr char revision[] = "$Revision: 1 $";
constexpr char revision_date[] = "$Date: 18/03/07 15:48 $";

pthread_mutex_t init_mutex = PTHREAD_MUTEX_INITIALIZER;
std::int32_t reference_count = 0;            // guarded by init_mutex
pthread_once_t mod_once = PTHREAD_ONCE_INIT; // the set-up is not repeated after an end

std::int32_t initialize_first(const REXEC_INFO *info) {
    _rexeccl_initflag = TRANS_FLAG_ON;
    REXECCL_TRACE(8, "start - ()");
    if (const std::int32_t ret = rexeccl_get_config(info); ret != REXECCL_RET_SUCCESS) {
        _rexeccl_initflag = TRANS_FLAG_OFF;
        REXECCL_TRACE(1, "rexeccl_get_config() failed. (ret=%d)", ret);
        REXECCL_TRACE(8, "end - (ret=%d)", REXECCL_RET_FAIL_UNKOWN);
        return REXECCL_RET_FAIL_UNKOWN;
    }
    REXECCL_TRACE(1, "%s %s", revision, revision_date);
    pthread_once(&mod_once, rexeccl_mod_init);
    ++reference_count;
    REXECCL_TRACE(8, "end - (ret=%d)", REXECCL_RET_SUCCESS);
    return REXECCL_RET_SUCCESS;
}

std::int32_t drop_reference() {
    if (_rexeccl_initflag != TRANS_FLAG_ON) {
        REXECCL_TRACE(1, "not inited. (ref=%d)", reference_count);
        return REXECCL_RET_FAIL_NOTINITIALIZED;
    }
    if (reference_count - 1 < 1) {
        REXECCL_TRACE(4, "no ref, will be term. (ref=%d)", reference_count);
        rexeccl_mod_term();
        _rexeccl_initflag = TRANS_FLAG_OFF;
        reference_count = 0;
        return REXECCL_RET_SUCCESS;
    }
    --reference_count;
    REXECCL_TRACE(4, "ref->%d", reference_count);
    return REXECCL_RET_SUCCESS;
}

} // namespace

std::int32_t rexeccl_initialize(const REXEC_INFO *info) {
    const MutexLock lock(init_mutex);
    if (_rexeccl_initflag == TRANS_FLAG_ON) {
        REXECCL_TRACE(8, "initialized. (ref=%d)", reference_count);
        ++reference_count;
        return REXECCL_RET_SUCCESS;
    }
    return initialize_first(info);
}

std::int32_t rexeccl_terminate() {
    REXECCL_TRACE(8, "start - ()");
    const MutexLock lock(init_mutex);
    const std::int32_t ret = drop_reference();
    REXECCL_TRACE(8, "end - (ret=%d ref=%d)", ret, reference_count);
    return ret;
}
