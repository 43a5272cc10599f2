// The metrics emitter: handles, and the way of a value from its arguments to its datagram.
#include "statsd.h"

#include "cancel.h"
#include "statsd/config.h"
#include "statsd/line.h"
#include "statsd/network.h"
#include "statsd_internal.h"
#include "xmllib.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

namespace {

constexpr char module_type[] = "statsd";

// Held while a handle is opened or closed, before all locks of the store and of the log library.
std::mutex g_mutex;
int g_refcount = 0; // live handles; guarded by g_mutex

// The store with the emitter's policy and the cluster configuration, for the length of a scope.
class Store {
public:
    Store() {
        started_ = xmllib_init(module_type);
        if (started_ != XMLLIB_OK)
            STATSD_LOG(1, "xmllib_init() failed.(ret=%d)", started_);
        else if (policy_ = xmllib_load_policy(module_type); policy_ != XMLLIB_OK)
            STATSD_LOG(1, "xmllib_load_policy() failed.(ret=%d)", policy_);
        else if (config_ = xmllib_load_config(); config_ != XMLLIB_OK)
            STATSD_LOG(1, "xmllib_load_config() failed.(ret=%d)", config_);
    }
    ~Store() {
        if (const int ret = config_ == XMLLIB_OK ? xmllib_unload_config() : XMLLIB_OK; ret != XMLLIB_OK)
            STATSD_LOG(2, "xmllib_unload_config() failed.(ret=%d)", ret);
        if (const int ret = policy_ == XMLLIB_OK ? xmllib_unload_policy(module_type) : XMLLIB_OK;
            ret != XMLLIB_OK)
            STATSD_LOG(2, "xmllib_unload_policy() failed.(ret=%d)", ret);
        if (const int ret = xmllib_term(); ret != XMLLIB_OK) // a failed start counts, too
            STATSD_LOG(2, "xmllib_term() failed.(ret=%d)", ret);
    }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;
    bool loaded() const { return config_ == XMLLIB_OK; }

private:
    int started_ = XMLLIB_ERR_NOTINIT;
    int policy_ = XMLLIB_ERR_NOTLOAD;
    int config_ = XMLLIB_ERR_NOTLOAD;
};

void close_log() {
    log_term(std::exchange(g_loghandle, nullptr));
}

// Opens the emitter's log with the first handle, and closes it again if that handle does not come to be.
class FirstLog {
public:
    FirstLog() = default;
    ~FirstLog() {
        if (opened_)
            close_log();
    }
    FirstLog(const FirstLog &) = delete;
    FirstLog &operator=(const FirstLog &) = delete;

    STATSD_RC open() {
        int level = 0;
        int size = 0;
        statsd_get_log_config(&level, &size);
        if (g_loghandle != nullptr || g_refcount > 0)
            return STATSD_RC_SUCCESS;
        if (log_init(module_type, &g_loghandle, level, size, nullptr) != LOG_OK)
            return STATSD_RC_LOGLIB_FAIL;
        opened_ = g_loghandle != nullptr;
        STATSD_LOG(4, "logging start.(lv=%d,sz=%d)", level, size);
        return STATSD_RC_SUCCESS;
    }
    void keep() { opened_ = false; }

private:
    bool opened_ = false;
};

struct FreeImpl {
    void operator()(STATSD_IMPL *himpl) const {
        statsd_free_config(&himpl->conf);
        std::free(himpl);
    }
};
using Impl = std::unique_ptr<STATSD_IMPL, FreeImpl>;

STATSD_RC set_up(STATSD_IMPL *himpl) {
    if (const STATSD_RC rc = statsd_get_config(&himpl->conf); rc != STATSD_RC_SUCCESS) {
        STATSD_LOG(1, "statsd_get_config() failed.(ret=%d)", rc);
        return rc;
    }
    const STATSD_CONF &conf = himpl->conf;
    if (conf.mode == STATSD_MODE_DISABLED)
        return STATSD_RC_SUCCESS;
    if (const STATSD_RC rc = statsd_network_init(conf.host, conf.port, conf.ipv6, &himpl->inet);
        rc != STATSD_RC_SUCCESS) {
        STATSD_LOG(1, "statsd_network_init(%s,%d,%d) failed.(ret=%d)", conf.host, conf.port, conf.ipv6, rc);
        return rc;
    }
    srandom(static_cast<unsigned>(std::time(nullptr)));
    return STATSD_RC_SUCCESS;
}

STATSD_RC create_handle(STATSD_HANDLE *handle) {
    // What is given up is given up in the reverse order.
    const Store store;
    if (!store.loaded())
        return STATSD_RC_XMLLIB_FAIL;
    FirstLog log;
    if (const STATSD_RC rc = log.open(); rc != STATSD_RC_SUCCESS)
        return rc;
    Impl himpl(static_cast<STATSD_IMPL *>(std::calloc(1, sizeof(STATSD_IMPL))));
    if (himpl == nullptr) {
        STATSD_LOG(1, "calloc(%lu) failed.(errno=%d)", sizeof(STATSD_IMPL), errno);
        return STATSD_RC_OUTOFMEMORY;
    }
    if (const STATSD_RC rc = set_up(himpl.get()); rc != STATSD_RC_SUCCESS)
        return rc;
    log.keep();
    *handle = himpl.release();
    ++g_refcount;
    STATSD_LOG(4, "himpl=%p,sz=%lu,g_refcount=%d", static_cast<void *>(*handle), sizeof(STATSD_IMPL),
               g_refcount);
    return STATSD_RC_SUCCESS;
}

// Without a handle the log may be opened or closed by another thread meanwhile. That may take as long as a
// resolver does, and a refusal does not wait for it: then the line is left out.
STATSD_RC refuse_null_handle(const char *function) {
    const std::unique_lock lock(g_mutex, std::try_to_lock);
    if (lock.owns_lock() && g_loghandle != nullptr)
        log_write(g_loghandle, 1, 0, "src/statsd", __LINE__, function, "handle is invalid.(null)");
    return STATSD_RC_INVALID_ARG;
}

STATSD_RC check_arguments(STATSD_HANDLE handle, STATSD_METHOD method, int tag_num) {
    if (handle == nullptr)
        return refuse_null_handle("statsd_send");
    if (method < 0 || method >= STATSD_METHOD_NUM) {
        STATSD_LOG(1, "[%p]method(%d) is unsupported.", static_cast<void *>(handle), method);
        return STATSD_RC_INVALID_ARG;
    }
    if (tag_num > STATSD_TAG_MAX) {
        STATSD_LOG(1, "[%p]tag_num(%d) exceeds the upper limit(%d).", static_cast<void *>(handle), tag_num,
                   STATSD_TAG_MAX);
        return STATSD_RC_INVALID_ARG;
    }
    return STATSD_RC_SUCCESS;
}

// Writes the tags into `text`, cut where they do not fit.
void generate_tags(const STATSD_IMPL *himpl, const STATSD_METHOD_CONF &metric, const STATSD_TAG *tags,
                   int tag_num, char *text) {
    const void *handle = himpl;
    // A line above the level costs a look into the level table: the first tag's answers for all of them.
    for (int i = 0; i < tag_num && g_loghandle != nullptr; ++i)
        if (log_write(g_loghandle, 16, 0, "src/statsd", __LINE__, __func__,
                      "[%p]tags[%d]: key=<%.*s>, value=<%.*s>", handle, i, STATSD_TAG_KEY_LEN, tags[i].key,
                      STATSD_TAG_VALUE_LEN, tags[i].value) == LOG_ERR_LEVEL)
            break;
    if (himpl->conf.mode == STATSD_MODE_BASETAG) {
        const STATSD_RC rc = statsd_generate_base_tags(tags, tag_num, text);
        if (rc != STATSD_RC_SUCCESS)
            STATSD_LOG(2, "[%p]statsd_generate_base_tags() failed.(ret=%d)", handle, rc);
    } else {
        const STATSD_RC rc = statsd_generate_custom_tags(metric.custom_tag, tags, tag_num, text);
        if (rc != STATSD_RC_SUCCESS)
            STATSD_LOG(2, "[%p]statsd_generate_custom_tags(%d) failed.(ret=%d)", handle, tag_num, rc);
    }
}

STATSD_RC send_value(const STATSD_IMPL *himpl, const STATSD_METHOD_CONF &metric, int value, float rate,
                     const STATSD_TAG *tags, int tag_num) {
    const void *handle = himpl;
    char tag_text[STATSD_TAG_TEXT_LEN];
    tag_text[0] = '\0';
    if (tags != nullptr && tag_num > 0)
        generate_tags(himpl, metric, tags, tag_num, tag_text);
    STATSD_LOG(16, "[%p]generated tag=<%s>", handle, tag_text);
    char data[STATSD_DATA_LEN];
    const STATSD_RC rc = statsd_prepare_sending_data(&metric, value, rate, tag_text, data);
    if (rc != STATSD_RC_SUCCESS)
        STATSD_LOG(2, "[%p]statsd_prepare_sending_data() failed.(ret=%d)", handle, rc);
    return statsd_network_send(&himpl->inet, data);
}

} // namespace

STATSD_RC statsd_init(STATSD_HANDLE *handle) {
    const CancelDisabled whole;
    if (handle == nullptr)
        return refuse_null_handle(__func__);
    const std::lock_guard lock(g_mutex);
    *handle = nullptr;
    return create_handle(handle);
}

STATSD_RC statsd_send(STATSD_HANDLE handle, STATSD_METHOD method, int value, const STATSD_TAG *tags,
                      int tag_num) {
    const CancelDisabled whole;
    if (const STATSD_RC rc = check_arguments(handle, method, tag_num); rc != STATSD_RC_SUCCESS)
        return rc;
    const STATSD_CONF &conf = handle->conf;
    if (conf.mode == STATSD_MODE_DISABLED) {
        STATSD_LOG(8, "[%p]statsd mode is disabled, immediately exit.(val=%d)", static_cast<void *>(handle),
                   value);
        return STATSD_RC_SUCCESS;
    }
    const STATSD_METHOD_CONF &metric = conf.method_conf[method];
    const float rate = statsd_should_use_sample_rate(metric.type) ? metric.sample_rate : 1.0F;
    if (metric.sample_client == STATSD_TRUE && !statsd_should_send(rate)) {
        STATSD_LOG(8, "[%p]sample_client suppress sending.(rate=%.5f,val=%d)", static_cast<void *>(handle),
                   double{rate}, value);
        return STATSD_RC_SUCCESS;
    }
    return send_value(handle, metric, value, rate, tags, tag_num);
}

STATSD_RC statsd_term(STATSD_HANDLE handle) {
    const CancelDisabled whole;
    if (handle == nullptr)
        return refuse_null_handle(__func__);
    const std::lock_guard lock(g_mutex);
    const Impl ended(handle);
    if (ended->conf.mode != STATSD_MODE_DISABLED)
        statsd_network_term(&ended->inet);
    --g_refcount;
    STATSD_LOG(4, "himpl=%p,g_refcount=%d", static_cast<void *>(handle), g_refcount);
    if (g_refcount == 0 && g_loghandle != nullptr) {
        STATSD_LOG(4, "logging stop.");
        close_log();
    }
    return STATSD_RC_SUCCESS;
}
