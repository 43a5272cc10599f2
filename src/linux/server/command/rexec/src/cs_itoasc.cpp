// A signed number as decimal text in a buffer of the caller's.
#include "csub.h"

#include <cstring>

namespace {

std::int32_t count_digits(std::uint32_t value) {
    std::int32_t digits = 1;
    while (value >= 10) {
        value /= 10;
        ++digits;
    }
    return digits;
}

std::int32_t convert(std::int32_t value, std::int32_t length, char *buffer, void *log_handle) {
    if (length > 0)
        std::memset(buffer, 0, static_cast<std::size_t>(length));
    const bool negative = value < 0;
    // Unsigned, so that the smallest number has a magnitude too.
    std::uint32_t rest =
        negative ? 0U - static_cast<std::uint32_t>(value) : static_cast<std::uint32_t>(value);
    const std::int32_t sign = negative ? 1 : 0;
    const std::int32_t figure = count_digits(rest);
    if (figure > length - sign - 1) {
        CS_TRACE("cs_itoasc", LOG_LEVEL_ERROR, "small buffer. (figure=%d wrpos=%d len=%d)", figure, sign,
                 length);
        return CSUB_FAIL;
    }
    if (negative)
        buffer[0] = '-';
    for (std::int32_t at = sign + figure - 1; at >= sign; --at, rest /= 10)
        buffer[at] = static_cast<char>('0' + rest % 10);
    if (rest != 0) {
        CS_TRACE("cs_itoasc", LOG_LEVEL_ERROR, "convert failed.");
        return CSUB_FAIL;
    }
    return CSUB_OK;
}

} // namespace

std::int32_t cs_itoasc(std::int32_t value, std::int32_t length, char *buffer, void *log_handle) {
    CS_TRACE("cs_itoasc", LOG_LEVEL_DETAIL, "start - (src=%d len=%d dest=%p loghdl=%p)", value, length,
             static_cast<void *>(buffer), log_handle);
    const std::int32_t ret = convert(value, length, buffer, log_handle);
    CS_TRACE("cs_itoasc", ret == CSUB_OK ? LOG_LEVEL_DETAIL : LOG_LEVEL_ERROR, "end - (dest=%s)",
             length > 0 ? buffer : "");
    return ret;
}
