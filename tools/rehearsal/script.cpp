// Starts a script, waits for its end through a process descriptor, and kills its group in time.
#include "script.h"

#include "trans.h"

#include <cerrno>
#include <csignal>
#include <string>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace rehearsal {
namespace {

namespace fs = std::filesystem;

// How the child starts: no input or output, none of the server's sockets, a group of its own, and
// the signals that the server ignores back at their defaults.
class SpawnSettings {
public:
    explicit SpawnSettings(const std::string &directory) {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addopen(&actions_, 0, "/dev/null", O_RDWR, 0);
        posix_spawn_file_actions_adddup2(&actions_, 0, 1);
        posix_spawn_file_actions_adddup2(&actions_, 0, 2);
        posix_spawn_file_actions_addclosefrom_np(&actions_, 3);
        posix_spawn_file_actions_addchdir_np(&actions_, directory.c_str());
        posix_spawnattr_init(&attributes_);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes_, &signals);
        for (const int one : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) {
            sigaddset(&signals, one);
        }
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_,
                                 POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnSettings(const SpawnSettings &) = delete;
    SpawnSettings &operator=(const SpawnSettings &) = delete;

    // The child's id, -1 when it could not be started.
    pid_t spawn(std::string file) {
        char *arguments[] = {file.data(), nullptr};
        pid_t pid = -1;
        return posix_spawn(&pid, file.c_str(), &actions_, &attributes_, arguments, environ) == 0 ? pid : -1;
    }

private:
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

} // namespace

bool bare_name(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == name.npos;
}

ScriptFile locate_script(const fs::path &directory, std::string_view name) {
    std::error_code error;
    const fs::path home = fs::canonical(directory, error);
    if (error || !bare_name(name)) {
        return {.status = TRANS_RES_STAT_FAIL_NOEXISTSCRIPT};
    }
    const fs::path file = fs::canonical(home / name, error);
    if (error || file.parent_path() != home) {
        return {.status = TRANS_RES_STAT_FAIL_NOEXISTSCRIPT};
    }
    if (!fs::is_regular_file(file, error) || access(file.c_str(), X_OK) != 0) {
        return {.status = TRANS_RES_STAT_FAIL_NOTAVAILABLE};
    }
    return {.path = file};
}

ScriptRun::ScriptRun(const asio::any_io_executor &executor, Done done)
    : process_(executor), timer_(executor), done_(std::move(done)) {}

ScriptRun::~ScriptRun() {
    if (pid_ > 0) {
        kill_group();
    }
}

void ScriptRun::start(const asio::any_io_executor &executor, const fs::path &file, std::int32_t timeout,
                      Done done) {
    const std::shared_ptr<ScriptRun> run(new ScriptRun(executor, std::move(done)));
    if (run->spawn(file)) {
        run->watch(timeout);
    } else {
        run->finish({.status = TRANS_RES_STAT_FAIL_EXECUTE});
    }
}

bool ScriptRun::spawn(const fs::path &file) {
    pid_ = SpawnSettings(file.parent_path()).spawn(file);
    if (pid_ < 0) {
        return false;
    }
    const long descriptor = syscall(SYS_pidfd_open, pid_, 0);
    if (descriptor < 0) {
        return false;
    }
    asio::error_code error;
    process_.assign(static_cast<int>(descriptor), error);
    if (error) {
        ::close(static_cast<int>(descriptor));
    }
    return !error;
}

void ScriptRun::await_end() {
    process_.async_wait(asio::posix::stream_descriptor::wait_read,
                        [self = shared_from_this()](const asio::error_code &) { self->on_end(); });
}

void ScriptRun::watch(std::int32_t timeout) {
    await_end();
    if (timeout > 0) {
        timer_.expires_after(std::chrono::seconds{timeout});
        timer_.async_wait([self = shared_from_this()](const asio::error_code &error) {
            if (!error) {
                self->on_timeout();
            }
        });
    }
}

void ScriptRun::on_end() {
    if (pid_ < 0) {
        return; // its time was up
    }
    // An event of a descriptor that was closed in another thread may be taken for this one's.
    siginfo_t info = {};
    if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0) {
        await_end();
        return;
    }
    const int state = reap();
    const int exitcode = WIFSIGNALED(state) ? 128 + WTERMSIG(state) : WEXITSTATUS(state);
    finish({.status = TRANS_RES_STAT_SUCCESS, .exitcode = exitcode});
}

void ScriptRun::on_timeout() {
    if (pid_ < 0) {
        return; // it ended at the same moment
    }
    kill_group();
    finish({.status = TRANS_RES_STAT_FAIL_PARAMTIMEOUT});
}

void ScriptRun::finish(ScriptResult result) {
    timer_.cancel();
    asio::error_code ignored;
    process_.close(ignored);
    if (Done done = std::exchange(done_, nullptr)) {
        done(result);
    }
}

// The script itself is named too: it may have moved into another group.
void ScriptRun::kill_group() {
    ::kill(-pid_, SIGKILL);
    ::kill(pid_, SIGKILL);
    reap();
}

int ScriptRun::reap() {
    int state = 0;
    while (waitpid(pid_, &state, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return state;
}

} // namespace rehearsal
