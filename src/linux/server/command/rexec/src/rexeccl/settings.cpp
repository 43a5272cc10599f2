// The client's settings. What is loaded from the store is unloaded again before the first packet is
// sent: only the copied values stay.
#include "rexeccl/settings.h"

#include "cancel.h"
#include "rexeccl.h"
#include "rexeccl/trace.h"
#include "xmllib.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int _rexec_standalone = 0;
REXECCL_POLICY_INFO _rexeccl_policy;
REXECCL_ALLPOL_INFO _rexeccl_allpol;
REXECCL_CONFIG_INFO _rexeccl_config;
std::atomic<std::int32_t> _rexeccl_initflag{TRANS_FLAG_OFF};

namespace {

constexpr char port_key[] = "/root/cluster/trns/port";
constexpr std::size_t instpath_size = 1024;

// A policy that is loaded, in the order of loading.
struct REXECCL_LDPOL_INFO {
    char type[32];
    REXECCL_LDPOL_INFO *next;
};

pthread_mutex_t ldpol_mutex = PTHREAD_MUTEX_INITIALIZER;
REXECCL_LDPOL_INFO *ldpol_head = nullptr; // guarded by ldpol_mutex

struct TextKey {
    const char *key;
    char *field;
    int size; // bytes of field
    const char *otherwise;
};

struct NumberKey {
    const char *key;
    std::int32_t *field;
    std::int32_t otherwise;
};

constexpr auto policy_texts = std::to_array<TextKey>({
    {"/root/rexec/type", _rexeccl_policy.type, sizeof(_rexeccl_policy.type), "rexec"},
    {"/root/rexec/version", _rexeccl_policy.version, sizeof(_rexeccl_policy.version), ""},
});

constexpr auto allpol_texts = std::to_array<TextKey>({
    {"/root/all/path", _rexeccl_allpol.instpath, instpath_size, ""},
    {"/root/all/edition", _rexeccl_allpol.clsinfo.edition, sizeof(_rexeccl_allpol.clsinfo.edition), ""},
    {"/root/all/version", _rexeccl_allpol.clsinfo.version, sizeof(_rexeccl_allpol.clsinfo.version), ""},
});

constexpr auto policy_numbers = std::to_array<NumberKey>({
    {"/root/rexec/log/level", &_rexeccl_policy.loglevel, 4},
    {"/root/rexec/log/size", &_rexeccl_policy.logsize, 1000000},
    {"/root/rexec/packet/recv", &_rexeccl_policy.recv_packet_size, 8192},
    {"/root/rexec/packet/send", &_rexeccl_policy.send_packet_size, 1024},
    {"/root/rexec/packet/max", &_rexeccl_policy.max_packet_size, 16384},
    {"/root/rexec/communication/connect/retry", &_rexeccl_policy.connretry, 0},
    {"/root/rexec/communication/connect/timeout", &_rexeccl_policy.conntimeout, 5},
    {"/root/rexec/communication/response/retry", &_rexeccl_policy.resretry, 0},
    {"/root/rexec/communication/response/timeout", &_rexeccl_policy.restimeout, 10},
    {"/root/rexec/usedns", &_rexeccl_policy.usedns, 1},
});

constexpr std::array<const char *, 3> policy_types = {"all", "trnsv", "rexec"};

// Nothing is read in standalone mode; says so.
bool standalone(std::int32_t line, const char *function) {
    if (_rexec_standalone == 0)
        return false;
    rexeccllog(8, "src/rexeccl", line, function, "Cannot exec func on standalone mode.");
    return true;
}

void set_text(const TextKey &row) {
    std::memset(row.field, 0, static_cast<std::size_t>(row.size));
    std::memcpy(row.field, row.otherwise, std::strlen(row.otherwise));
}

void read_text(const TextKey &row, std::int32_t line, const char *function) {
    int size = row.size;
    std::memset(row.field, 0, static_cast<std::size_t>(row.size));
    const int ret = xmllib_get_value(row.key, XMLLIB_TYPE_STRING, row.field, &size);
    if (ret == XMLLIB_OK)
        return;
    rexeccllog(2, "src/rexeccl", line, function, "xmllib_get_value() failed. (ret=%#x key=%s size=%d)", ret,
               row.key, size);
    set_text(row);
}

void set_number(const NumberKey &row) {
    *row.field = row.otherwise;
}

void read_number(const NumberKey &row, std::int32_t line, const char *function) {
    int size = sizeof(*row.field);
    const int ret = xmllib_get_value(row.key, XMLLIB_TYPE_INT, row.field, &size);
    if (ret == XMLLIB_OK)
        return;
    rexeccllog(2, "src/rexeccl", line, function, "xmllib_get_value() failed. (ret=%#x key=%s size=%d)", ret,
               row.key, size);
    *row.field = row.otherwise;
}

std::int32_t unload_from_store(const char *type, std::int32_t line, const char *function) {
    const int ret = xmllib_unload_policy(type);
    if (ret == XMLLIB_OK)
        return REXECCL_RET_SUCCESS;
    rexeccllog(1, "src/rexeccl", line, function, "xmllib_unload_policy() failed. (ret=%#x type=%s)", ret,
               type);
    return REXECCL_RET_FAIL_UNKOWN;
}

// Loads a policy into the store and remembers it at `tail`, the end of the list.
std::int32_t load_and_remember(const char *type, REXECCL_LDPOL_INFO **tail) {
    if (const int ret = xmllib_load_policy(type); ret != XMLLIB_OK) {
        REXECCL_TRACE(1, "xmllib_load_policy() failed. (ret=%#x type=%s)", ret, type);
        return REXECCL_RET_FAIL_UNKOWN;
    }
    auto *added = static_cast<REXECCL_LDPOL_INFO *>(std::calloc(1, sizeof(REXECCL_LDPOL_INFO)));
    if (added == nullptr) {
        REXECCL_TRACE(1, "calloc() failed. (type=%s errno=%d)", type, errno);
        unload_from_store(type, __LINE__, __func__);
        return REXECCL_RET_FAIL_MALLOC;
    }
    std::snprintf(added->type, sizeof(added->type), "%s", type);
    *tail = added;
    return REXECCL_RET_SUCCESS;
}

// What a load left behind, for the trace.
struct Loaded {
    std::int32_t ret;
    int count;         // records in the list
    const void *added; // the new one, null when there is none
};

Loaded load_policy(const char *type) {
    const MutexLock lock(ldpol_mutex);
    int count = 0;
    REXECCL_LDPOL_INFO **tail = &ldpol_head;
    bool again = false;
    for (; *tail != nullptr; tail = &(*tail)->next, ++count)
        if (std::strcmp((*tail)->type, type) == 0) {
            REXECCL_TRACE(2, "already loaded. (type=%s ldtype=%s)", type, (*tail)->type);
            again = true;
        }
    const std::int32_t ret = again ? REXECCL_RET_SUCCESS : load_and_remember(type, tail);
    return {ret, *tail != nullptr ? count + 1 : count, *tail};
}

std::int32_t unload_policies(const char *type) {
    const MutexLock lock(ldpol_mutex);
    std::int32_t ret = REXECCL_RET_SUCCESS;
    for (REXECCL_LDPOL_INFO **at = &ldpol_head; *at != nullptr;) {
        REXECCL_LDPOL_INFO *loaded = *at;
        const bool wanted = type == nullptr || std::strcmp(loaded->type, type) == 0;
        if (wanted && unload_from_store(loaded->type, __LINE__, __func__) == REXECCL_RET_SUCCESS) {
            *at = loaded->next;
            std::free(loaded);
            continue;
        }
        if (wanted) {
            ret = REXECCL_RET_FAIL_UNKOWN;
            if (type != nullptr)
                break;
        }
        at = &loaded->next;
    }
    return ret;
}

std::int32_t load_config(const char *path, void **handle) {
    const int loaded = path != nullptr ? xmllib_load_pathconfig(path, handle) : xmllib_load_config();
    if (path != nullptr)
        REXECCL_TRACE(4, "loading config path -> %s (hdl=%p)", path, static_cast<void *>(handle));
    if (loaded == XMLLIB_OK)
        return REXECCL_RET_SUCCESS;
    REXECCL_TRACE(1, "xmllib_load_config() failed. (ret=%#x path=%p)", loaded,
                  static_cast<const void *>(path));
    return REXECCL_RET_FAIL_UNKOWN;
}

std::int32_t unload_config(void *handle) {
    const int unloaded = handle != nullptr ? xmllib_unload_pathconfig(handle) : xmllib_unload_config();
    if (unloaded == XMLLIB_OK)
        return REXECCL_RET_SUCCESS;
    REXECCL_TRACE(1, "xmllib_unload_config() failed. (ret=%#x hdl=%p)", unloaded, handle);
    return REXECCL_RET_FAIL_UNKOWN;
}

std::int32_t settle_port(const REXEC_INFO *info) {
    if (info->portnumber != 0) {
        _rexeccl_config.port = info->portnumber;
        return REXECCL_RET_SUCCESS;
    }
    if (standalone(__LINE__, __func__)) {
        _rexeccl_config.port = REXECCL_PORT_DEFAULT;
        return REXECCL_RET_SUCCESS;
    }
    int size = sizeof(_rexeccl_config.port);
    const int ret = xmllib_get_value(port_key, XMLLIB_TYPE_INT, &_rexeccl_config.port, &size);
    if (ret == XMLLIB_OK)
        return REXECCL_RET_SUCCESS;
    REXECCL_TRACE(1, "xmllib_get_value() failed. (ret=%#x key=%s size=%d)", ret, port_key, size);
    return REXECCL_RET_FAIL_UNKOWN;
}

void trace_settings() {
    REXECCL_TRACE(4, "port:%d, usedns:%d", _rexeccl_config.port, _rexeccl_policy.usedns);
    REXECCL_TRACE(4, "recv size:%d, send size:%d", _rexeccl_policy.recv_packet_size,
                  _rexeccl_policy.send_packet_size);
    REXECCL_TRACE(4, "max packet size:%d", _rexeccl_policy.max_packet_size);
    REXECCL_TRACE(4, "connect retry:%d, timeout:%d", _rexeccl_policy.connretry, _rexeccl_policy.conntimeout);
    REXECCL_TRACE(4, "response retry:%d, timeout:%d", _rexeccl_policy.resretry, _rexeccl_policy.restimeout);
}

std::int32_t load_policies() {
    for (const char *type : policy_types)
        if (const std::int32_t ret = rexeccl_xml_loadpolicy(type); ret != REXECCL_RET_SUCCESS) {
            REXECCL_TRACE(1, "rexeccl_xml_loadpolicy() failed. (ret=%d type=%s)", ret, type);
            return REXECCL_RET_FAIL_UNKOWN;
        }
    return REXECCL_RET_SUCCESS;
}

std::int32_t read_settings(const REXEC_INFO *info) {
    if (const std::int32_t ret = rexeccl_xml_get_allpolicy(); ret != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_xml_get_allpolicy() failed. (ret=%d)", ret);
        return REXECCL_RET_FAIL_UNKOWN;
    }
    if (const std::int32_t ret = rexeccl_xml_get_mypolicy(info); ret != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_xml_get_mypolicy() failed. (ret=%d)", ret);
        return REXECCL_RET_FAIL_UNKOWN;
    }
    if (const std::int32_t ret = settle_port(info); ret != REXECCL_RET_SUCCESS)
        return ret;
    trace_settings();
    return REXECCL_RET_SUCCESS;
}

void release_policies() {
    if (const std::int32_t ret = rexeccl_xml_unloadpolicy(nullptr); ret != REXECCL_RET_SUCCESS)
        REXECCL_TRACE(1, "rexeccl_xml_unloadpolicy() failed. (ret=%d)", ret);
    if (const std::int32_t ret = rexeccl_xml_term(); ret != REXECCL_RET_SUCCESS)
        REXECCL_TRACE(1, "rexeccl_xml_term() failed. (ret=%d)", ret);
}

} // namespace

std::int32_t rexeccl_xml_init(const char *module) {
    REXECCL_TRACE(8, "start - (mod=%s)", module);
    REXECCL_TRACE(8, "end - (ret=%d)", REXECCL_RET_SUCCESS);
    return REXECCL_RET_SUCCESS;
}

std::int32_t rexeccl_xml_term() {
    REXECCL_TRACE(8, "start - ()");
    REXECCL_TRACE(8, "end - (ret=%d)", REXECCL_RET_SUCCESS);
    return REXECCL_RET_SUCCESS;
}

std::int32_t rexeccl_xml_loadpolicy(const char *type) {
    REXECCL_TRACE(8, "start - (type=%s)", type);
    const Loaded done =
        standalone(__LINE__, __func__) ? Loaded{REXECCL_RET_SUCCESS, 0, nullptr} : load_policy(type);
    REXECCL_TRACE(8, "end - (ret=%d ldnum=%d addpol=%p)", done.ret, done.count, done.added);
    return done.ret;
}

std::int32_t rexeccl_xml_unloadpolicy(const char *type) {
    REXECCL_TRACE(8, "start - (type=%s)", type != nullptr ? type : "");
    const std::int32_t ret = standalone(__LINE__, __func__) ? REXECCL_RET_SUCCESS : unload_policies(type);
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_xml_loadconfig(const char *path, void **handle) {
    REXECCL_TRACE(8, "start - (path=%p hdl=%p)", static_cast<const void *>(path),
                  static_cast<void *>(handle));
    const std::int32_t ret = standalone(__LINE__, __func__) ? REXECCL_RET_SUCCESS : load_config(path, handle);
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_xml_unloadconfig(void *handle) {
    REXECCL_TRACE(8, "start - (hdl=%p)", handle);
    const std::int32_t ret = standalone(__LINE__, __func__) ? REXECCL_RET_SUCCESS : unload_config(handle);
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}

std::int32_t rexeccl_xml_get_allpolicy() {
    REXECCL_TRACE(8, "start - ()");
    const bool defaults = standalone(__LINE__, __func__);
    for (const TextKey &row : allpol_texts)
        defaults ? set_text(row) : read_text(row, __LINE__, __func__);
    if (!defaults)
        std::strcat(_rexeccl_allpol.instpath, "/");
    REXECCL_TRACE(8, "end - (ret=%d)", REXECCL_RET_SUCCESS);
    return REXECCL_RET_SUCCESS;
}

std::int32_t rexeccl_xml_get_mypolicy(const REXEC_INFO *info) {
    REXECCL_TRACE(8, "start - (info=%p)", static_cast<const void *>(info));
    const bool defaults = standalone(__LINE__, __func__);
    for (const TextKey &row : policy_texts)
        defaults ? set_text(row) : read_text(row, __LINE__, __func__);
    for (const NumberKey &row : policy_numbers)
        defaults ? set_number(row) : read_number(row, __LINE__, __func__);
    REXECCL_TRACE(8, "end - (ret=%d)", REXECCL_RET_SUCCESS);
    return REXECCL_RET_SUCCESS;
}

std::int32_t rexeccl_get_config(const REXEC_INFO *info) {
    REXECCL_TRACE(8, "start - (info=%p)", static_cast<const void *>(info));
    std::int32_t ret = rexeccl_xml_init("rexec");
    if (ret != REXECCL_RET_SUCCESS) {
        REXECCL_TRACE(1, "rexeccl_xml_init() failed. (ret=%d)", ret);
        ret = REXECCL_RET_FAIL_UNKOWN;
    } else if (ret = load_policies(); ret == REXECCL_RET_SUCCESS) {
        const std::int32_t config = rexeccl_xml_loadconfig(nullptr, nullptr);
        if (config != REXECCL_RET_SUCCESS)
            REXECCL_TRACE(1, "rexeccl_xml_loadconfig() failed. (ret=%d)", config);
        ret = read_settings(info);
        if (const std::int32_t unloaded = rexeccl_xml_unloadconfig(nullptr); unloaded != REXECCL_RET_SUCCESS)
            REXECCL_TRACE(1, "rexeccl_xml_unloadconfig() failed. (ret=%d)", unloaded);
    }
    release_policies();
    REXECCL_TRACE(8, "end - (ret=%d)", ret);
    return ret;
}
