// The public face of the configuration store: reference-counted start and end, the locked operations, and
// the corrected clock.
//
// Locks are taken in the order loglibmutex, xmlmutex, xmlldmutex. The first belongs to the log library: the
// start and the end of the store open and close its trace there, and a log handle reads its settings from
// the store while it is opened, so both begin with the same lock.
#include "xmllib.h"

#include "cancel.h"
#include "log.h"
#include "trace.h"
#include "xmlin/file.h"
#include "xmlin/parse.h"
#include "xmlin/query.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <string_view>

#include <libxml/parser.h>

namespace {

constexpr char charset_key[] = "/root/all/charset";
constexpr char trace_key[] = "/root/cluster/log/xml/init";

// Module types that open no trace: the event daemon writes the trace, and the log library carries it.
constexpr auto _xml_nologtype = std::to_array<std::string_view>({"event", "log"});

std::mutex xmlmutex;              // start and end
std::mutex xmlldmutex;            // every load, unload, change and query
std::atomic<int> _xml_initxml{0}; // calls of xmllib_init that xmllib_term has not matched

// One locked operation, with its entry and exit in the trace. A cancelled thread ends only behind it: a
// half-done operation would leave the table in pieces.
class Operation {
public:
    Operation(const char *name, int line) : name_(name), line_(line), lock_(xmlldmutex) {
        XML_WRITE(trace, 8, "src/xml", line_, name_, "=> %s() start", name_);
    }
    ~Operation() { XML_WRITE(trace, 8, "src/xml", line_, name_, "<= %s() end", name_); }
    Operation(const Operation &) = delete;
    Operation &operator=(const Operation &) = delete;

    bool initialized() const {
        if (_xml_initxml > 0)
            return true;
        XML_WRITE(trace2, 1, "src/xml", line_, name_, "not initialized.");
        return false;
    }

private:
    const CancelDisabled whole_{};
    const char *name_;
    int line_;
    const std::lock_guard<std::mutex> lock_;
};

#define XML_OPERATION() const Operation operation(__func__, __LINE__)

unsigned hex(int ret) {
    return static_cast<unsigned>(ret);
}

bool is_path(const char *path) {
    if (path == nullptr)
        XML_TRACE(1, "path is null.");
    else if (*path == '\0')
        XML_TRACE(1, "path is empty.");
    else if (!std::string_view(path).starts_with("/root"))
        XML_TRACE(1, "\"%s\" don't started by \"/root\".", path);
    else if (std::string_view(path).ends_with('/'))
        XML_TRACE(1, "\"%s\" ended by \"/\".", path);
    else
        return true;
    return false;
}

bool check_path(const char *path) {
    XML_ENTER();
    const bool valid = is_path(path);
    XML_EXIT();
    if (!valid)
        XML_TRACE(8, "check_path() failed.");
    return valid;
}

// A number from the environment; what is not one, or is too large for one, leaves the default.
int read_environment(const char *name, int otherwise) {
    const char *text = std::getenv(name);
    if (text == nullptr)
        return otherwise;
    char *end = nullptr;
    const long value = std::strtol(text, &end, 0);
    return *end == '\0' && value >= INT_MIN && value <= INT_MAX ? static_cast<int>(value) : otherwise;
}

void open_trace() {
    static const int level = read_environment("ZYNXML_ENV_LOGLEVEL", LOG_DEFAULT_LEVEL);
    static const int size = read_environment("ZYNXML_ENV_LOGSIZE", LOG_DEFAULT_SIZE);
    traceopen("xml", level, size, nullptr);
}

void force_unload() {
    for (ZYNXML_XMLDOC &slot : _xmldocs) {
        if (slot.type == XMLDOC_TYPE_NONE)
            continue;
        XML_TRACE(2, "force unload \"%s\".", slot.name);
        xmlFreeDoc(slot.doc);
        clear_xmldoc(&slot);
    }
}

// From here on the other operations work. Frees what another thread loaded while the store was being ended.
void prepare_table() {
    const std::lock_guard lock(xmlldmutex);
    ++_xml_initxml;
    std::memset(_xml_installpath, 0, sizeof(_xml_installpath));
    get_inspath(_xml_installpath, sizeof(_xml_installpath));
    form_paths();
    force_unload();
    internal_init();
    xmlSetGenericErrorFunc(nullptr, err_handler);
}

void read_charset() {
    char charset[sizeof(_xml_charset)] = "";
    int size = sizeof(charset);
    if (xmllib_get_value(charset_key, XMLLIB_TYPE_STRING, charset, &size) != XMLLIB_OK) {
        XML_TRACE(1, "xmllib_get_value(charset) failed.");
        charset[0] = '\0';
    }
    const std::lock_guard lock(xmlldmutex);
    std::memcpy(_xml_charset, charset, sizeof(charset));
}

bool trace_wanted() {
    int wanted = 0;
    int size = sizeof(wanted);
    if (xmllib_get_value(trace_key, XMLLIB_TYPE_INT, &wanted, &size) == XMLLIB_OK)
        return wanted != 0;
    XML_TRACE(1, "xmllib_get_value(xmllog) failed.");
    return false;
}

// Loads a policy of the start-up; a failure unloads `loaded` and the configuration again.
int load_base(const char *type, std::initializer_list<const char *> loaded) {
    const int ret = xmllib_load_policy(type);
    if (ret == XMLLIB_OK)
        return ret;
    XML_TRACE(2, "xmllib_load_policy failed.");
    for (const char *before : loaded)
        xmllib_unload_policy(before);
    xmllib_unload_config();
    return ret;
}

// Loads what the store itself needs, and keeps the policies "all" and "cluster". Returns 0, or why a policy
// could not be loaded.
int load_bases(const char *modtype) {
    if (xmllib_load_config() != XMLLIB_OK)
        XML_TRACE(2, "xmllib_load_config failed.");
    if (const int ret = load_base("log", {}); ret != XMLLIB_OK)
        return ret;
    if (const int ret = load_base("all", {}); ret != XMLLIB_OK)
        return ret;
    read_charset();
    xmllib_unload_policy("all"); // and again, from the directory of the charset
    if (const int ret = load_base("all", {"log"}); ret != XMLLIB_OK)
        return ret;
    if (const int ret = load_base("cluster", {"log", "all"}); ret != XMLLIB_OK)
        return ret;
    const bool wanted = trace_wanted();
    xmllib_unload_policy("log");
    xmllib_unload_config();
    if (!wanted)
        return XMLLIB_OK;
    if (std::find(_xml_nologtype.begin(), _xml_nologtype.end(), modtype) == _xml_nologtype.end())
        open_trace();
    XML_WRITE(trace, 8, "src/xml", __LINE__, "xmllib_init", "=> %s() start", "xmllib_init");
    XML_WRITE(trace2, 4, "src/xml", __LINE__, "xmllib_init", "init(%s)", modtype);
    return XMLLIB_OK;
}

int start(const char *modtype) {
    const std::lock_guard library(loglibmutex);
    const std::lock_guard lock(xmlmutex);
    if (_xml_initxml > 0) {
        ++_xml_initxml;
        return XMLLIB_OK;
    }
    XML_TRACE(8, "first init!");
    prepare_table();
    return load_bases(modtype);
}

} // namespace

int xmllib_init(const char *modtype) {
    if (modtype == nullptr)
        return XMLLIB_ERR_INVALIDARG;
    const CancelDisabled whole;
    if (const int ret = start(modtype); ret != XMLLIB_OK)
        return ret;
    XML_TRACE(4, "unum(%d)", _xml_initxml.load());
    XML_EXIT();
    return XMLLIB_OK;
}

int xmllib_term() {
    const CancelDisabled whole;
    const std::lock_guard library(loglibmutex);
    const std::lock_guard lock(xmlmutex);
    {
        const std::lock_guard load_lock(xmlldmutex);
        XML_ENTER();
        if (_xml_initxml == 0) {
            XML_TRACE(1, "not initialized.");
            return XMLLIB_ERR_NOTINIT;
        }
        XML_TRACE(4, "unum(%d)", _xml_initxml - 1);
        if (_xml_initxml > 1) {
            --_xml_initxml;
            XML_EXIT();
            return XMLLIB_OK;
        }
        XML_TRACE(8, "last term!");
        force_unload();
        XML_EXIT();
        traceclose();
    }
    xmllib_unload_policy("cluster");
    xmllib_unload_policy("all");
    --_xml_initxml;
    return XMLLIB_OK;
}

int xmllib_setlog(...) {
    return XMLLIB_OK;
}

int xmllib_load_policy(const char *type) {
    XML_OPERATION();
    if (type == nullptr) {
        XML_TRACE(1, "type is null.");
        return XMLLIB_ERR_INVALIDARG;
    }
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    const int ret = load_policy(type, _xml_charset);
    if (ret != XMLLIB_OK)
        XML_TRACE(1, "load_policy(%s) failed(%#x).", type, hex(ret));
    return ret;
}

int xmllib_unload_policy(const char *type) {
    XML_OPERATION();
    if (type == nullptr) {
        XML_TRACE(1, "type is null.");
        return XMLLIB_ERR_INVALIDARG;
    }
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    const int ret = unload_policy(type);
    if (ret != XMLLIB_OK)
        XML_TRACE(1, "load_policy(%s) failed(%#x).", type, hex(ret)); // the text has always been this one
    return ret;
}

int xmllib_load_config() {
    XML_OPERATION();
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    const int ret = load_config(nullptr, nullptr);
    if (ret != XMLLIB_OK)
        XML_TRACE(1, "load_config(NULL NULL) failed(%#x).", hex(ret));
    return ret;
}

int xmllib_unload_config() {
    XML_OPERATION();
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    const int ret = unload_config(nullptr);
    if (ret != XMLLIB_OK)
        XML_TRACE(1, "unload_config(NULL) failed(%#x).", hex(ret));
    return ret;
}

int xmllib_reload_config() {
    XML_OPERATION();
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    const int ret = reload_config();
    if (ret != XMLLIB_OK)
        XML_TRACE(1, "reload_config() failed(%#x).", hex(ret));
    return ret;
}

int xmllib_load_pathconfig(const char *path, void **handle) {
    XML_OPERATION();
    if (path == nullptr) {
        XML_TRACE(1, "path is null.");
        return XMLLIB_ERR_INVALIDPATH;
    }
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    ZYNXML_XMLDOC *slot = nullptr;
    const int ret = load_config(path, &slot);
    if (ret != XMLLIB_OK)
        XML_TRACE(1, "load_config(%s #%x) failed(%#x).", path, log_low32(handle), hex(ret));
    else if (handle != nullptr)
        *handle = slot;
    return ret;
}

int xmllib_unload_pathconfig(void *handle) {
    XML_OPERATION();
    if (handle == nullptr) {
        XML_TRACE(1, "handle is null.");
        return XMLLIB_ERR_NOHANDLE;
    }
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    const int ret = unload_config(static_cast<ZYNXML_XMLDOC *>(handle));
    if (ret != XMLLIB_OK)
        XML_TRACE(1, "unload_config(%#x) failed(%#x).", log_low32(handle), hex(ret));
    return ret;
}

int xmllib_change_config(void *handle) {
    XML_OPERATION();
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    const int ret = set_current(static_cast<ZYNXML_XMLDOC *>(handle));
    if (ret != XMLLIB_OK)
        XML_TRACE(1, "set_current(%#x) failed(%#x).", log_low32(handle), hex(ret));
    return ret;
}

int xmllib_enum_value(const char *path, char *buffer, int *size) {
    XML_OPERATION();
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    if (!check_path(path))
        return XMLLIB_ERR_INVALIDPATH;
    const int ret = enum_value(path, buffer, size);
    if (ret == XMLLIB_ERR_NOSIZE)
        XML_TRACE(8, "not enough size.");
    else if (ret != XMLLIB_OK)
        XML_TRACE(8, "enum_value(%s %#x %#x) failed(%#x).", path, log_low32(buffer), log_low32(size),
                  hex(ret));
    return ret;
}

int xmllib_get_value(const char *path, int type, void *buffer, int *size) {
    XML_OPERATION();
    if (!operation.initialized())
        return XMLLIB_ERR_NOTINIT;
    if (!check_path(path))
        return XMLLIB_ERR_INVALIDPATH;
    const int ret = get_value(path, type, buffer, size);
    if (ret == XMLLIB_ERR_NOSIZE)
        XML_TRACE(8, "not enough size.");
    else if (ret != XMLLIB_OK)
        XML_TRACE(8, "get_value(%s %d %#x %#x) failed(%#x).", path, type, log_low32(buffer), log_low32(size),
                  hex(ret));
    return ret;
}

namespace {

constexpr std::size_t path_size = 1024;

// Puts the element of a server in front of the "parameters" of a path. False when there are none.
bool form_server_path(const char *server, const char *path, char (&result)[path_size]) {
    const char *parameters = std::strstr(path, "parameters");
    if (parameters == nullptr)
        return false;
    const std::string_view before(path, static_cast<std::size_t>(parameters - path));
    const std::size_t slash = before.rfind('/');
    const int length =
        std::snprintf(result, sizeof(result), "%.*s/server@%s/%s",
                      static_cast<int>(slash == before.npos ? 0 : slash), path, server, parameters);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof(result))
        result[0] = '\0'; // too long for any key: refused as a path, and the general one answers
    return true;
}

int get_server_value(const char *server, const char *path, int type, void *buffer, int *size) {
    if (server == nullptr || *server == '\0' || path == nullptr)
        return xmllib_get_value(path, type, buffer, size);
    char server_path[path_size];
    if (!form_server_path(server, path, server_path)) {
        XML_TRACE(8, "It is not path srvsep can do.");
        return XMLLIB_ERR_INVALIDARG;
    }
    const int ret = xmllib_get_value(server_path, type, buffer, size);
    if (ret != XMLLIB_ERR_NOTEXIST && ret != XMLLIB_ERR_INVALIDPATH)
        return ret;
    return xmllib_get_value(path, type, buffer, size);
}

} // namespace

int xmllib_get_srvsep_value(const char *server, const char *path, int type, void *buffer, int *size) {
    XML_ENTER();
    const int ret = get_server_value(server, path, type, buffer, size);
    XML_EXIT();
    return ret;
}

int xmllib_get_installpath(char *buffer, int size) {
    XML_ENTER();
    if (buffer != nullptr && size > 0) {
        char path[XML_PATH_SIZE] = "";
        get_inspath(path, sizeof(path));
        std::memset(buffer, 0, static_cast<std::size_t>(size));
        std::string_view(path).copy(buffer, static_cast<std::size_t>(size) - 1);
    }
    XML_EXIT();
    return XMLLIB_OK;
}

namespace {

constexpr clock_t clock_failed = static_cast<clock_t>(-1);

std::mutex mending_mutex; // only ever tried: the clock must not wait for another thread
bool mending = false;     // guarded by mending_mutex: the counter is inside the range taken for errors

// Whether the clock has entered or left the range since it was read last.
bool has_changed(bool failed) {
    const std::unique_lock lock(mending_mutex, std::try_to_lock);
    if (!lock.owns_lock() || mending == failed)
        return false;
    mending = failed;
    return true;
}

// One line in a log of its own, opened for the line only: the clock is read by every module.
#define WRITE_CLOCK_LOG(level, ...)                                                                          \
    do {                                                                                                     \
        void *handle = nullptr;                                                                              \
        if (log_init("times", &handle, LOG_DEFAULT_LEVEL, 100000, nullptr) == LOG_OK) {                      \
            log_write(handle, (level), 0, "src/xml", __LINE__, "xmllib_times", __VA_ARGS__);                 \
            log_term(handle);                                                                                \
        }                                                                                                    \
    } while (false)

} // namespace

clock_t xmllib_times(struct tms *) {
    errno = 0;
    clock_t ticks = times(nullptr);
    const int error = errno;
    const bool failed = ticks == clock_failed;
    if (failed)
        ticks = -static_cast<clock_t>(error);
    if (has_changed(failed)) {
        if (failed)
            WRITE_CLOCK_LOG(LOG_LEVEL_WARNING, "starting to change return value of times().(errno=%d)",
                            error);
        else
            WRITE_CLOCK_LOG(LOG_LEVEL_INFO, "stopping to change return value of times().");
    }
    if (ticks == clock_failed) {
        WRITE_CLOCK_LOG(LOG_LEVEL_WARNING, "invalid return value(-1). errno=%d", error);
        return 0;
    }
    return ticks;
}
