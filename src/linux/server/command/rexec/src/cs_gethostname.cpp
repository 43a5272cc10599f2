// The local host name, whole or without its domain.
#include "csub.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace {

std::int32_t read_hostname(char *buffer, std::int32_t length, std::int32_t suffix, void *log_handle) {
    if (buffer == nullptr) {
        CS_TRACE("cs_gethostname", LOG_LEVEL_ERROR, "invalid parameter. (host=%p)",
                 static_cast<void *>(buffer));
        return CSUB_FAIL;
    }
    if (length < 1) {
        CS_TRACE("cs_gethostname", LOG_LEVEL_ERROR, "invalid parameter. (len=%d)", length);
        return CSUB_FAIL;
    }
    if (suffix != 0 && suffix != 1) {
        CS_TRACE("cs_gethostname", LOG_LEVEL_ERROR, "invalid parameter. (nsuffix=%d)", suffix);
        return CSUB_FAIL;
    }
    std::memset(buffer, 0, static_cast<std::size_t>(length));
    if (gethostname(buffer, static_cast<std::size_t>(length)) != 0) {
        CS_TRACE("cs_gethostname", LOG_LEVEL_ERROR, "gethostname failed. (errno=%d)", errno);
        return CSUB_FAIL;
    }
    if (suffix == 1 && buffer[0] != '.')
        buffer[std::strcspn(buffer, ".")] = '\0';
    return CSUB_OK;
}

} // namespace

std::int32_t cs_gethostname(char *buffer, std::int32_t length, std::int32_t suffix, void *log_handle) {
    CS_TRACE("cs_gethostname", LOG_LEVEL_DETAIL, "start - (host=%p len=%d suffix=%d loghdl=%p)",
             static_cast<const void *>(buffer), length, suffix, log_handle);
    const std::int32_t ret = read_hostname(buffer, length, suffix, log_handle);
    CS_TRACE("cs_gethostname", ret == CSUB_OK ? LOG_LEVEL_DETAIL : LOG_LEVEL_ERROR, "end - (ret=%d host=%s)",
             ret, ret == CSUB_OK ? buffer : "");
    return ret;
}
