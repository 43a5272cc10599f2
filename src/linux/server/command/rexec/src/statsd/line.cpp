// Lines of the emitter, as StatsD collectors read them.
#include "statsd/line.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

// By STATSD_METRIC_TYPE.
struct MetricType {
    const char *text;
    bool sampled;
};
constexpr auto metric_types =
    std::to_array<MetricType>({{"c", true}, {"g", false}, {"ms", true}, {"h", true}, {"s", false}});
static_assert(metric_types.size() == STATSD_METRIC_TYPE_S + 1);

constexpr double random_range = 2147483648.0; // random(3) gives 0 to 2^31 - 1

// A text under construction, cut at the size of its buffer.
class Text {
public:
    Text(char *buffer, std::size_t size) : at_(buffer), end_(buffer + size - 1) { *at_ = '\0'; }
    std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
    // A collector takes what stands behind a line end for another value.
    void add(std::string_view text) {
        cut_ = cut_ || text.size() > left();
        char *const begin = at_;
        at_ += text.copy(at_, left());
        std::replace_if(
            begin, at_, [](char c) { return c == '\n' || c == '\r'; }, ' ');
        *at_ = '\0';
    }
    // Independent of the locale, in which a module may write a comma.
    template <typename... Format>
    void add_number(Format... format) {
        char digits[32];
        add({digits, std::to_chars(digits, std::end(digits), format...).ptr});
    }
    STATSD_RC result() const { return cut_ ? STATSD_RC_DATA_TOO_LONG : STATSD_RC_SUCCESS; }

private:
    char *at_;
    char *const end_; // of the NUL at the latest
    bool cut_ = false;
};

template <std::size_t N>
std::string_view view(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

} // namespace

bool statsd_should_use_sample_rate(STATSD_METRIC_TYPE type) {
    return metric_types[type].sampled;
}

bool statsd_should_send(float rate) {
    return rate >= 1.0F || rate > static_cast<double>(random()) / random_range;
}

STATSD_RC statsd_generate_base_tags(const STATSD_TAG *tags, int tag_num, char *text) {
    Text built(text, STATSD_TAG_TEXT_LEN);
    STATSD_RC rc = STATSD_RC_SUCCESS;
    std::string_view separator;
    for (const STATSD_TAG *tag = tags; tag != tags + tag_num; ++tag) {
        const std::string_view key = view(tag->key);
        const std::string_view value = view(tag->value);
        if (separator.size() + key.size() + 1 + value.size() > built.left()) {
            rc = STATSD_RC_DATA_TOO_LONG;
            continue;
        }
        for (const std::string_view part : {separator, key, std::string_view(":"), value})
            built.add(part);
        separator = ",";
    }
    return rc;
}

STATSD_RC statsd_generate_custom_tags(const char *custom_tag, const STATSD_TAG *tags, int tag_num,
                                      char *text) {
    Text built(text, STATSD_TAG_TEXT_LEN);
    built.add(custom_tag);
    const auto *named = std::find_if(tags, tags + tag_num,
                                     [](const STATSD_TAG &tag) { return view(tag.key) == "MonitorName"; });
    if (named != tags + tag_num) {
        if (*custom_tag != '\0')
            built.add(",");
        for (const std::string_view part : {view(named->key), std::string_view(":"), view(named->value)})
            built.add(part);
    }
    return built.result();
}

STATSD_RC statsd_prepare_sending_data(const STATSD_METHOD_CONF *conf, int value, float rate, const char *tags,
                                      char *data) {
    Text line(data, STATSD_DATA_LEN);
    line.add(view(conf->name));
    line.add(":");
    line.add_number(value);
    line.add("|");
    line.add(metric_types[conf->type].text);
    if (rate != 1.0F) {
        line.add("|@");
        line.add_number(rate, std::chars_format::fixed, 2);
    }
    if (*tags != '\0') {
        line.add("|#");
        line.add(tags);
    }
    return line.result();
}
