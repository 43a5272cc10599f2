// Settings of the emitter. A value that is missing or out of its range takes its default, and the log says
// so.
#include "statsd/config.h"

#include "xmllib.h"

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr int default_port = 8125; // registered for StatsD
constexpr std::size_t path_len = 128;
constexpr std::size_t rate_len = 8; // bytes of a rate's text, NUL included

// What each method has in its paths, and its defaults.
struct Method {
    const char *segment;
    const char *name;
    STATSD_METRIC_TYPE type;
    float sample_rate;
    STATSD_BOOL sample_client;
};
constexpr auto methods = std::to_array<Method>({
    {"monitor_response_time", "zyn_monitor_response_time", STATSD_METRIC_TYPE_T, 1.0F, STATSD_TRUE},
});
static_assert(methods.size() == STATSD_METHOD_NUM);

STATSD_RC get_value(const char *key, int type, void *buffer, int size) {
    const int ret = xmllib_get_value(key, type, buffer, &size);
    if (ret == XMLLIB_OK)
        return STATSD_RC_SUCCESS;
    STATSD_LOG(1, "xmllib_get_value(%s) failed.(ret=%d)", key, ret);
    return STATSD_RC_XMLLIB_FAIL;
}

struct Range {
    int lowest;
    int highest;
};

int get_number(const char *key, Range range, int otherwise) {
    int value = otherwise;
    int read = 0;
    if (get_value(key, XMLLIB_TYPE_INT, &read, sizeof(read)) == STATSD_RC_SUCCESS) {
        if (read >= range.lowest && read <= range.highest)
            value = read;
        else
            STATSD_LOG(1, "param(%s) is out-of-range.(val=%d)", key, read);
    }
    STATSD_LOG(8, "param(%s) is set.(val=%d)", key, value);
    return value;
}

// Leaves the field as it is on failure.
template <std::size_t N>
STATSD_RC get_text(const char *key, char (&field)[N]) {
    char text[N] = "";
    if (const STATSD_RC rc = get_value(key, XMLLIB_TYPE_STRING, text, sizeof(text)); rc != STATSD_RC_SUCCESS)
        return rc;
    if (text[0] == '\0') {
        STATSD_LOG(1, "param(%s) is out-of-range.(val=%s)", key, text);
        return STATSD_RC_INVALID_XMLVAL;
    }
    std::memcpy(field, text, sizeof(text));
    return STATSD_RC_SUCCESS;
}

STATSD_RC get_host(STATSD_CONF *conf) {
    constexpr char key[] = "/root/statsd/server/host";
    if (const STATSD_RC rc = get_text(key, conf->host); rc != STATSD_RC_SUCCESS)
        return rc;
    STATSD_LOG(8, "param(%s) is set.(val=%s)", key, conf->host);
    return STATSD_RC_SUCCESS;
}

// Converts a text that is a number from its first character to its last. A module may have set a locale of
// its own, in which numbers look different.
bool statsd_strtof(const char *text, float *value) {
    static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
    char *end = nullptr;
    errno = 0;
    const double number = c_locale != nullptr ? strtod_l(text, &end, c_locale) : std::strtod(text, &end);
    *value = static_cast<float>(number);
    return errno == 0 && end != text && *end == '\0';
}

float get_rate(const char *key, float otherwise) {
    float value = otherwise;
    char text[rate_len];
    if (get_value(key, XMLLIB_TYPE_STRING, text, sizeof(text)) == STATSD_RC_SUCCESS) {
        float read = 0;
        // Written so that what is not a number is out of the range, too.
        if (statsd_strtof(text, &read) && read >= 0.0F && read <= 1.0F)
            value = read;
        else
            STATSD_LOG(1, "param(%s) is out-of-range.(strval=%s,val=%.5f)", key, text, double{read});
    }
    STATSD_LOG(8, "param(%s) is set.(val=%.5f)", key, double{value});
    return value;
}

STATSD_RC get_custom_tag(const char *key, char **custom_tag) {
    int size = 0;
    if (const int ret = xmllib_get_value(key, XMLLIB_TYPE_STRING, nullptr, &size); ret != XMLLIB_ERR_NOSIZE) {
        STATSD_LOG(1, "xmllib_get_value(%s) failed.(ret=%d)", key, ret);
        return STATSD_RC_XMLLIB_FAIL;
    }
    if (size > static_cast<int>(STATSD_CUSTOM_TAG_LEN)) {
        STATSD_LOG(1, "param(%s) is out-of-range.(sz=%d)", key, size);
        return STATSD_RC_INVALID_XMLVAL;
    }
    *custom_tag = static_cast<char *>(std::malloc(static_cast<std::size_t>(size)));
    if (*custom_tag == nullptr) {
        STATSD_LOG(1, "malloc(%d) failed.", size);
        return STATSD_RC_OUTOFMEMORY;
    }
    if (const STATSD_RC rc = get_value(key, XMLLIB_TYPE_STRING, *custom_tag, size); rc != STATSD_RC_SUCCESS)
        return rc;
    STATSD_LOG(8, "param(%s) is set.(val=%s)", key, *custom_tag);
    return STATSD_RC_SUCCESS;
}

// A key of a method, whose place in the path "%s" holds.
struct MetricPath {
    MetricPath(const Method &method, std::string_view path) {
        const std::size_t at = path.find("%s");
        std::snprintf(text, sizeof(text), "%.*s%s%s", static_cast<int>(at), path.data(), method.segment,
                      path.data() + at + 2);
    }
    char text[path_len];
};

void get_name(const char *key, const Method &method, STATSD_METHOD_CONF *conf) {
    if (get_text(key, conf->name) != STATSD_RC_SUCCESS)
        std::string_view(method.name).copy(conf->name, sizeof(conf->name) - 1);
    STATSD_LOG(8, "param(%s) is set.(val=%s)", key, conf->name);
}

STATSD_RC statsd_get_method_config(const Method &method, STATSD_BOOL custom_tag_mode,
                                   STATSD_METHOD_CONF *conf) {
    get_name(MetricPath(method, "/root/statsd/metrics/%s/name").text, method, conf);
    conf->type = static_cast<STATSD_METRIC_TYPE>(
        get_number(MetricPath(method, "/root/statsd/metrics/%s/type").text,
                   {STATSD_METRIC_TYPE_C, STATSD_METRIC_TYPE_S}, method.type));
    conf->sample_rate =
        get_rate(MetricPath(method, "/root/statsd/metrics/%s/sample_rate").text, method.sample_rate);
    conf->sample_client =
        static_cast<STATSD_BOOL>(get_number(MetricPath(method, "/root/statsd/metrics/%s/sample_client").text,
                                            {STATSD_FALSE, STATSD_TRUE}, method.sample_client));
    if (custom_tag_mode == STATSD_FALSE)
        return STATSD_RC_SUCCESS;
    return get_custom_tag(MetricPath(method, "/root/statsd/metrics/%s/custom_tag").text, &conf->custom_tag);
}

} // namespace

void statsd_get_log_config(int *level, int *size) {
    const auto read = [](const char *key, int otherwise) {
        int value = 0;
        return get_value(key, XMLLIB_TYPE_INT, &value, sizeof(value)) == STATSD_RC_SUCCESS ? value
                                                                                           : otherwise;
    };
    *level = read("/root/statsd/log/level", LOG_DEFAULT_LEVEL);
    *size = read("/root/statsd/log/size", LOG_DEFAULT_SIZE);
}

STATSD_RC statsd_get_config(STATSD_CONF *conf) {
    conf->mode = static_cast<STATSD_MODE>(
        get_number("/root/statsd/mode", {STATSD_MODE_DISABLED, STATSD_MODE_CUSTOMTAG}, STATSD_MODE_DISABLED));
    if (conf->mode == STATSD_MODE_DISABLED)
        return STATSD_RC_SUCCESS;
    if (const STATSD_RC rc = get_host(conf); rc != STATSD_RC_SUCCESS)
        return rc;
    conf->port = get_number("/root/statsd/server/port", {1, 65535}, default_port);
    conf->ipv6 = static_cast<STATSD_BOOL>(
        get_number("/root/statsd/server/ipv6", {STATSD_FALSE, STATSD_TRUE}, STATSD_FALSE));
    const STATSD_BOOL custom_tag_mode = conf->mode == STATSD_MODE_CUSTOMTAG ? STATSD_TRUE : STATSD_FALSE;
    for (int method = 0; method < STATSD_METHOD_NUM; ++method) {
        const STATSD_RC rc =
            statsd_get_method_config(methods[method], custom_tag_mode, &conf->method_conf[method]);
        if (rc != STATSD_RC_SUCCESS) {
            STATSD_LOG(1, "statsd_get_method_config(%d,%d) failed.(ret=%d)", method, custom_tag_mode, rc);
            return rc;
        }
    }
    return STATSD_RC_SUCCESS;
}

void statsd_free_config(STATSD_CONF *conf) {
    for (STATSD_METHOD_CONF &method : conf->method_conf) {
        std::free(method.custom_tag);
        method.custom_tag = nullptr;
    }
}
