// Running a script of the script directory with a time limit, without holding up anything else.
#pragma once

#include <asio/any_io_executor.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>

#include <sys/types.h>

namespace rehearsal {

// Whether a script's name is a plain file name: not empty, no directory in it.
bool bare_name(std::string_view name);

struct ScriptFile {
    std::int32_t status = 0; // TRANS_RES_STAT_*: success, NOEXISTSCRIPT or NOTAVAILABLE
    std::filesystem::path path{};
};

// The file of the script `name`; a link that leads out of the directory is no script.
ScriptFile locate_script(const std::filesystem::path &directory, std::string_view name);

struct ScriptResult {
    std::int32_t status = 0;   // TRANS_RES_STAT_*
    std::int32_t exitcode = 0; // 128 + signal for a script that a signal ended
};

// One script in a process group of its own. Lives as long as its end is awaited; when it is dropped
// before, or its time is up, the whole group is killed.
class ScriptRun : public std::enable_shared_from_this<ScriptRun> {
public:
    using Done = std::function<void(ScriptResult)>;

    // Starts `file` and calls `done` on the executor once it has ended, could not be started
    // (EXECUTE), or ran for `timeout` seconds (PARAMTIMEOUT; 0 and below: no limit).
    static void start(const asio::any_io_executor &executor, const std::filesystem::path &file,
                      std::int32_t timeout, Done done);

    ~ScriptRun();
    ScriptRun(const ScriptRun &) = delete;
    ScriptRun &operator=(const ScriptRun &) = delete;

private:
    ScriptRun(const asio::any_io_executor &executor, Done done);

    bool spawn(const std::filesystem::path &file);
    void watch(std::int32_t timeout);
    void await_end();
    void on_end();
    void on_timeout();
    void finish(ScriptResult result);
    void kill_group();
    int reap(); // waits; returns the wait status

    asio::posix::stream_descriptor process_; // readable once the script has ended
    asio::steady_timer timer_;
    Done done_;
    pid_t pid_ = -1; // until it is reaped, so that its number stays its own
};

} // namespace rehearsal
