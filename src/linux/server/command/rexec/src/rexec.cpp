// The zynrexec command: brings up the configuration store and the log library, reads its settings and
// the command line, runs the request, and takes everything down again.
#include "rexec.h"

#include "log.h"
#include "rexec/driver.h"
#include "rexec/option.h"
#include "rexec/report.h"
#include "rexeccl/trace.h"
#include "xmllib.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char revision[] = "$Revision: 1 $";
constexpr char revision_date[] = "$Date: 18/03/07 15:48 $";

constexpr char maxconnum_key[] = "/root/rexec/maxconnum";
constexpr char log_level_key[] = "/root/rexec/log/level";
constexpr char log_size_key[] = "/root/rexec/log/size";
constexpr char cmdto_key[] = "/root/rexec/cmdto";
constexpr char path_key[] = "/root/all/path";
constexpr char path_key_traced[] = "/root/rexec/path"; // the messages have always named this key
constexpr char core_key[] = "/root/all/core";

// How far the configuration store has been brought up.
enum : int {
    XML_DOWN = 0,
    XML_INITIALIZED = 1,
    XML_LOADED = 2,
};
int _rexec_xmliniflag = XML_DOWN;

int read_number(const char *key, int otherwise) {
    int value = 0;
    int size = sizeof(value);
    return xmllib_get_value(key, XMLLIB_TYPE_INT, &value, &size) == XMLLIB_OK ? value : otherwise;
}

// The same, but a failure is traced at `level`.
int read_number_traced(const char *key, int otherwise, int level) {
    int value = 0;
    int size = sizeof(value);
    const int ret = xmllib_get_value(key, XMLLIB_TYPE_INT, &value, &size);
    if (ret == XMLLIB_OK)
        return value;
    REXEC_TRACE(level, "xmllib_get_value(%s) failed(ret:%d)", key, ret);
    return otherwise;
}

// A socket that took the number of a closed standard stream would receive what is printed.
void fill_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF && open("/dev/null", O_RDWR) == -1)
            open("/", O_PATH); // a root without devices: the number is taken all the same
}

int bring_up_xml() {
    if (xmllib_init("rexec") != XMLLIB_OK) {
        REXEC_TRACE(1, "xmllib_init() failed.");
        return REXEC_FAIL_XML;
    }
    _rexec_xmliniflag = XML_INITIALIZED;
    if (xmllib_load_config() != XMLLIB_OK) {
        REXEC_TRACE(1, "xmllib_load_config() failed.");
        return REXEC_FAIL_XML;
    }
    _rexec_xmliniflag = XML_LOADED;
    return REXEC_SUCCESS;
}

int rexec_xml_init() {
    REXEC_ENTER();
    const int ret = bring_up_xml();
    REXEC_EXIT(ret);
    return ret;
}

int rexec_xml_term() {
    REXEC_ENTER();
    if (_rexec_xmliniflag < XML_LOADED) {
        REXEC_TRACE(8, "Not executed xmllib_unload_config()");
    } else if (const int ret = xmllib_unload_config(); ret != XMLLIB_OK) {
        REXEC_TRACE(2, "xmllib_unload_config() failed. (ret=%d)", ret);
    } else {
        REXEC_TRACE(8, "xmllib_unload_config() succeeded.");
        --_rexec_xmliniflag;
    }
    if (_rexec_xmliniflag < XML_INITIALIZED) {
        REXEC_TRACE(8, "Not executed xmllib_init()");
    } else if (const int ret = xmllib_term(); ret != XMLLIB_OK) {
        REXEC_TRACE(2, "xmllib_term() failed. (ret=%d)", ret);
    } else {
        REXEC_TRACE(8, "xmllib_term() succeeded.");
        _rexec_xmliniflag = XML_DOWN;
    }
    REXEC_EXIT(0);
    return REXEC_SUCCESS;
}

void open_log() {
    int level = LOG_DEFAULT_LEVEL;
    int size = LOG_DEFAULT_SIZE;
    if (xmllib_load_policy("rexec") == XMLLIB_OK) {
        level = read_number(log_level_key, LOG_DEFAULT_LEVEL);
        size = read_number(log_size_key, LOG_DEFAULT_SIZE);
        xmllib_unload_policy("rexec");
    }
    log_init("rexec", &_rexec_ploghandle, level, size, nullptr);
}

int rexec_log_init() {
    REXEC_ENTER();
    if (_rexec_standalone == 0)
        open_log();
    REXEC_EXIT(0);
    return REXEC_SUCCESS;
}

int rexec_log_term() {
    REXEC_ENTER();
    if (_rexec_ploghandle != nullptr)
        log_term(_rexec_ploghandle);
    _rexec_ploghandle = nullptr;
    REXEC_EXIT(0);
    return REXEC_SUCCESS;
}

void enter_bin_directory(const char *install_path) {
    char bin[1024 + sizeof("/bin")];
    std::snprintf(bin, sizeof(bin), "%s/%s", install_path, "bin");
    if (const int ret = chdir(bin); ret != 0)
        REXEC_TRACE(1, "chdir(%s), ret=%d, errno=%d", bin, ret, errno);
    else
        REXEC_TRACE(8, "chdir(%s), ret=%d", bin, ret);
}

void settle_core_limit() {
    if (read_number_traced(core_key, 1, 1) != 1) {
        REXEC_TRACE(4, "not set RLIM_INFINITY");
        return;
    }
    REXEC_TRACE(4, "set RLIM_INFINITY");
    const struct rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_CORE, &unlimited);
}

// Works under the loaded policy "all".
int apply_all_policy() {
    char install_path[1024] = "";
    int size = sizeof(install_path);
    if (const int ret = xmllib_get_value(path_key, XMLLIB_TYPE_STRING, install_path, &size);
        ret != XMLLIB_OK) {
        REXEC_TRACE(1, "xmllib_get_value(%s) failed(ret:%d)", path_key_traced, ret);
        return REXEC_FAIL_XML;
    }
    enter_bin_directory(install_path);
    settle_core_limit();
    REXEC_TRACE(8, "Install path : %s", install_path);
    return REXEC_SUCCESS;
}

int load_info() {
    if (_rexec_standalone != 0)
        return REXEC_SUCCESS;
    if (const int ret = xmllib_load_policy("all"); ret != XMLLIB_OK) {
        REXEC_TRACE(1, "xmllib_load_policy(all) failed(ret=%d)", ret);
        return REXEC_FAIL_XML;
    }
    const int ret = apply_all_policy();
    xmllib_unload_policy("all");
    return ret;
}

int rexec_loadinfo() {
    REXEC_ENTER();
    const int ret = load_info();
    REXEC_EXIT(ret);
    return ret;
}

int read_maxsrvnum() {
    if (_rexec_standalone != 0)
        return REXEC_MAXSRVNUM_DEFAULT;
    if (const int ret = xmllib_load_policy("rexec"); ret != XMLLIB_OK) {
        REXEC_TRACE(2, "xmllib_load_policy() failed. (ret=%d)", ret);
        _rexec_standalone = 1;
        return REXEC_MAXSRVNUM_DEFAULT;
    }
    const int maxsrvnum = read_number_traced(maxconnum_key, REXEC_MAXSRVNUM_DEFAULT, 1);
    xmllib_unload_policy("rexec");
    return maxsrvnum;
}

// The configured command time-out; *ret receives the result of the last call of the store.
int read_cmdtimeout(int *ret) {
    *ret = xmllib_load_policy("rexec");
    if (*ret != XMLLIB_OK) {
        REXEC_TRACE(2, "xmllib_load_policy() failed. (ret=%d)", *ret);
        return REXEC_CMDTO_DEFAULT;
    }
    int cmdtimeout = read_number_traced(cmdto_key, REXEC_CMDTO_DEFAULT, 2);
    if (cmdtimeout < REXEC_CMDTO_MIN) {
        REXEC_TRACE(2, "CmdTO is smaller than limit value.(%d)", cmdtimeout);
        cmdtimeout = REXEC_CMDTO_MIN;
    } else if (cmdtimeout > REXEC_CMDTO_MAX) {
        REXEC_TRACE(2, "CmdTO is bigger than limit value.(%d)", cmdtimeout);
        cmdtimeout = REXEC_CMDTO_MAX;
    }
    *ret = xmllib_unload_policy("rexec");
    return cmdtimeout;
}

int settle_cmdtimeout(REXEC_INFO *info) {
    int ret = 0;
    if (info->cmdtimeout > REXEC_CMDTO_MAX) {
        REXEC_TRACE(2, "CmdTO is already inputed, but bigger.(%d)", info->cmdtimeout);
        info->cmdtimeout = REXEC_CMDTO_MAX;
    } else if (info->cmdtimeout >= REXEC_CMDTO_MIN) {
        REXEC_TRACE(4, "CmdTO is already inputed.(%d)", info->cmdtimeout);
    } else if (info->cmdtimeout > 0) {
        REXEC_TRACE(2, "CmdTO is already inputed, but smaller.(%d)", info->cmdtimeout);
        info->cmdtimeout = REXEC_CMDTO_MIN;
    } else {
        info->cmdtimeout = _rexec_standalone != 0 ? REXEC_CMDTO_DEFAULT : read_cmdtimeout(&ret);
    }
    return ret;
}

int rexec_getmypolicy(REXEC_INFO *info) {
    REXEC_ENTER();
    const int ret = settle_cmdtimeout(info);
    REXEC_EXIT(ret);
    return ret;
}

void rexec_end(int code) {
    REXEC_ENTER();
    rexec_print_message(code);
    rexec_xml_term();
    rexec_log_term();
    REXEC_EXIT(code);
}

// Opened like fopen's mode "w", but never waiting: a FIFO that nobody reads must not hold up the
// request, and a terminal does not become the command's own.
void open_user_log() {
    const int fd = open(_rexec_logpath,
                        O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666);
    if (fd == -1)
        return;
    _rexec_pusrlogfd = fdopen(fd, "w");
    if (_rexec_pusrlogfd == nullptr) {
        close(fd);
        return;
    }
    // A line leaves while its locks are held, so that the lines of two runs on one file stay whole. What
    // is not a file takes each line at once or loses it: half a buffer would tear one.
    struct stat status = {};
    const bool is_file = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    std::setvbuf(_rexec_pusrlogfd, nullptr, is_file ? _IOLBF : _IONBF, is_file ? BUFSIZ : 0);
}

void close_user_log() {
    if (_rexec_pusrlogfd == nullptr)
        return;
    std::FILE *closed = _rexec_pusrlogfd;
    _rexec_pusrlogfd = nullptr;
    std::fclose(closed);
}

REXEC_INFO *allocate_record(int maxsrvnum) {
    const std::size_t size = rexec_info_size(maxsrvnum);
    auto *info = static_cast<REXEC_INFO *>(std::calloc(1, size));
    if (info == nullptr)
        REXEC_TRACE(1, "malloc(%d:prexecinfo) failed(err:%d).",
                    static_cast<int>(std::min<std::size_t>(size, INT_MAX)), errno);
    else
        info->maxsrvnum = maxsrvnum;
    return info;
}

int run_request(REXEC_INFO *info) {
    if (_rexec_logpath[0] != '\0')
        open_user_log();
    REXEC_TRACE(1, "%s %s", revision, revision_date);
    REXEC_TRACE(1, "MAKE: %s %s", __DATE__, __TIME__);
    rexec_getmypolicy(info);
    const int result = rexec_main(info);
    if (result != REXEC_SUCCESS)
        REXEC_TRACE(1, "rexec_main failed. (ret=%d)", result);
    close_user_log();
    return result;
}

// Reads the command line, runs the request, and ends with the closing message.
int run(int argc, char **argv) {
    REXEC_INFO *info = allocate_record(read_maxsrvnum());
    if (info == nullptr) {
        rexec_end(REXEC_FAIL_MALLOC);
        return REXEC_FAIL_MALLOC;
    }
    int result = rexec_ckopt(argc, argv, info);
    if (result == REXEC_SUCCESS) {
        result = run_request(info);
        rexec_end(result);
    } else {
        result = result == REXEC_HELP ? REXEC_SUCCESS : result;
        rexec_end(result);
        rexec_usage();
    }
    std::free(info);
    return result;
}

} // namespace

int main(int argc, char **argv) {
    pthread_mutex_init(&mut_toflag, nullptr);
    // Neither a reader or peer that goes away nor a limit on the size of files ends the run.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    fill_standard_descriptors();
    // The threads allocate a few records each; a heap of its own for each of them would cost more.
    mallopt(M_ARENA_MAX, 1);
    REXEC_ENTER();
    if (rexec_xml_init() != REXEC_SUCCESS) {
        REXEC_TRACE(4, "rexec_xml_init failed. execute standalone mode.");
        _rexec_standalone = 1;
    }
    rexec_log_init();
    if (const int ret = rexec_loadinfo(); ret != REXEC_SUCCESS)
        REXEC_TRACE(1, "rexec_loadinfo() failed(ret=%d)", ret);
    const int result = run(argc, argv);
    REXEC_EXIT(result);
    pthread_mutex_destroy(&mut_toflag);
    return result;
}
