// Values as the modules take them: the rules of the table's columns.
#include "verdict.h"

#include "text.h"
#include "xmllib.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace config {
namespace {

constexpr std::size_t text_max = 1023; // bytes of any value

std::string describe_standard(const Key &key) {
    if (key.standard == nullptr)
        return "none";
    return key.kind == Kind::text ? quoted(key.standard) : key.standard;
}

bool is_port_of_servers(const Key &key) {
    return key.otherwise == Otherwise::unconnected;
}

// What counts in place of a value that cannot be read.
std::string without_value(const Key &key) {
    if (is_port_of_servers(key))
        return "none: without -p nothing is sent";
    return describe_standard(key);
}

Verdict unreadable(const Key &key, const std::string &note) {
    const std::string taken = without_value(key);
    const bool standard = !is_port_of_servers(key) && key.standard != nullptr;
    return {taken, note + ": taken is " + (standard ? "the built-in default, " : "") + taken,
            Severity::error};
}

std::string describe_number(const Key &key, std::int32_t number) {
    if (key.range.form != Range::Form::modes || number < 0)
        return std::to_string(number);
    std::array<char, 16> octal = {};
    std::snprintf(octal.data(), octal.size(), "%#o", static_cast<unsigned>(number));
    return octal.data();
}

// What becomes of a number outside the range.
std::string correct(const Key &key, std::int32_t number) {
    switch (key.otherwise) {
    case Otherwise::as_is:
    case Otherwise::unconnected:
        return describe_number(key, number);
    case Otherwise::nearer:
        return std::to_string(number < key.range.low ? key.range.low : key.range.high);
    case Otherwise::standard:
        return describe_standard(key);
    case Otherwise::zero:
    case Otherwise::less_is_zero:
        return "0";
    case Otherwise::log_size:
        return "the size in the policy \"log\"";
    }
    return {};
}

bool is_cut(const Reading &reading) {
    errno = 0;
    const long whole = std::strtol(reading.text.c_str(), nullptr, 0);
    return errno == ERANGE || whole != reading.number;
}

// A leading 0 that the writer may not have meant; permission bits are meant so.
bool is_octal_by_accident(const Key &key, const std::string &text) {
    const std::size_t digits = text.find_first_not_of("+-");
    return key.range.form != Range::Form::modes && digits != text.npos && text.size() > digits + 1 &&
           text[digits] == '0' && (text[digits + 1] | 0x20) != 'x';
}

Verdict judge_number(const Key &key, const Reading &reading) {
    const std::string value = quoted(reading.text);
    if (reading.text_code != XMLLIB_OK)
        return unreadable(key, "an element stands in place of the value");
    if (reading.number_code != XMLLIB_OK)
        return unreadable(key, value + " is no integer");
    const bool in_range = is_in_range(key, reading.number);
    const std::string taken = in_range ? describe_number(key, reading.number) : correct(key, reading.number);
    if (is_cut(reading))
        return {taken,
                value + " does not fit 32 bits and becomes " + std::to_string(reading.number) +
                    ": taken is " + taken,
                Severity::error};
    if (!in_range)
        return {taken,
                value + " is out of range (" + describe_range(key) + "): taken is " + taken +
                    (is_port_of_servers(key) ? ", to which nothing connects" : ""),
                is_port_of_servers(key) ? Severity::error : Severity::warning};
    if (reading.text.empty())
        return {taken, "an empty element reads as 0", Severity::warning};
    if (is_octal_by_accident(key, reading.text))
        return {taken, value + " is octal for its leading 0: taken is " + taken, Severity::warning};
    return {taken, "", Severity::none};
}

bool is_share(const std::string &text) {
    char *end = nullptr;
    const double share = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && share >= 0 && share <= 1;
}

Verdict judge_text(const Key &key, const Reading &reading) {
    const Range &range = key.range;
    if (reading.text_code != XMLLIB_OK)
        return unreadable(key, "an element stands in place of the value");
    if (reading.text.size() > static_cast<std::size_t>(range.high))
        return unreadable(key, quoted(reading.text) + " is too long (" + describe_range(key) + ")");
    if (reading.text.size() < static_cast<std::size_t>(range.low))
        return unreadable(key, "the value is empty (" + describe_range(key) + ")");
    if (range.form == Range::Form::share && !is_share(reading.text))
        return unreadable(key, quoted(reading.text) + " is out of range (" + describe_range(key) + ")");
    const std::string taken = quoted(reading.text);
    if (reading.text.find_first_of("\t\n\r") != std::string::npos)
        return {taken, taken + " holds a line end or tab, which is part of the value", Severity::warning};
    if (reading.text.size() == text_max)
        return {taken, "the value may be cut: its first 1023 bytes are taken", Severity::warning};
    return {taken, "", Severity::none};
}

} // namespace

Verdict judge(const Key &key, const Reading &reading) {
    Verdict verdict = key.kind == Kind::integer ? judge_number(key, reading) : judge_text(key, reading);
    if (reading.comment) {
        verdict.note = "a comment in front of the value hides it: taken is " + verdict.taken;
        verdict.severity = Severity::error;
    } else if (reading.in_pieces && verdict.severity == Severity::none) {
        verdict.note = "only the first piece of the value is read: taken is " + verdict.taken;
        verdict.severity = Severity::warning;
    }
    return verdict;
}

Verdict judge_absence(const Key &key, const Answered &answered) {
    if (answered.standalone)
        return {describe_standard(key), "standalone: " + answered.reason, Severity::none};
    const Severity severity = is_port_of_servers(key)   ? Severity::error
                              : key.standard != nullptr ? Severity::info
                                                        : Severity::none;
    return {without_value(key), answered.reason, severity};
}

} // namespace config
