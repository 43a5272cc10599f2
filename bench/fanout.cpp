// fanout WIDTH PORT: the command's script request to so many servers. The limit of addresses is part
// of the record, so this program raises it there.
#include "rexec.h"
#include "rexec/driver.h"
#include "targets.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <malloc.h>
#include <unistd.h>

int main(int argc, char **argv) {
    const int width = argc == 3 ? std::atoi(argv[1]) : 0;
    if (width < 1 || width > static_cast<int>(targets_max))
        return 2;
    alarm(client_limit);
    // As the command's own main does on a host without an installation.
    std::signal(SIGPIPE, SIG_IGN);
    mallopt(M_ARENA_MAX, 1);
    pthread_mutex_init(&mut_toflag, nullptr);
    _rexec_standalone = 1;
    auto *info = static_cast<REXEC_INFO *>(std::calloc(1, rexec_info_size(width)));
    if (info == nullptr)
        return 2;
    std::strcpy(info->reqcode, ZYNEXECSCRIPT_EX_ID);
    std::strcpy(info->script, bench_script);
    info->cmdtimeout = bench_timeout;
    info->portnumber = std::atoi(argv[2]);
    info->maxsrvnum = width;
    info->ipnum = width;
    for (int i = 0; i < width; ++i)
        std::strcpy(info->ipaddr[i], TargetText(static_cast<std::size_t>(i)).text);
    const int result = rexec_main(info);
    std::free(info);
    return result;
}
