// Journal lines and packet dumps.
#include "journal.h"

#include "status.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <string_view>

#include <unistd.h>

namespace rehearsal {
namespace {

std::string outcome(const Exchange &exchange) {
    if (!exchange.problem.empty()) {
        return "refused: " + exchange.problem;
    }
    if (exchange.response_bytes.empty()) {
        return "no answer";
    }
    std::string text = "status ";
    if (exchange.response_bytes.size() < header_size) {
        text = "part of an answer";
    } else {
        text += std::to_string(exchange.status) + " (" + std::string(status_name(exchange.status)) + ")";
    }
    return text + ", " + std::to_string(exchange.response_bytes.size()) + " bytes";
}

bool write_all(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

} // namespace

std::string time_of_day() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 32> text{};
    const int length = std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%03d", local.tm_hour,
                                     local.tm_min, local.tm_sec, static_cast<int>(ms));
    return {text.data(), static_cast<std::size_t>(length)};
}

std::string journal_line(const Exchange &exchange) {
    std::string line = time_of_day() + " " + exchange.server + " <- " + exchange.client + " " +
                       std::to_string(exchange.client_port) + ": ";
    if (exchange.problem.empty()) {
        line += describe(exchange.request) + " -> ";
    }
    line += outcome(exchange);
    return exchange.note.empty() ? line : line + ", " + exchange.note;
}

Journal::Journal(int descriptor, std::filesystem::path dumps)
    : descriptor_(descriptor), dumps_(std::move(dumps)) {
    if (!dumps_.empty()) {
        std::filesystem::create_directories(dumps_);
    }
}

void Journal::line(const std::string &text) {
    const std::lock_guard lock(mutex_);
    if (descriptor_ >= 0 && !write_all(descriptor_, text + "\n")) {
        descriptor_ = -1;
    }
}

void Journal::exchange(const Exchange &exchange) {
    line(journal_line(exchange));
    if (!dumps_.empty()) {
        dump(exchange);
    }
}

void Journal::dump(const Exchange &exchange) {
    std::array<char, 16> number{};
    {
        const std::lock_guard lock(mutex_);
        std::snprintf(number.data(), number.size(), "%05u", ++number_);
    }
    std::string server = exchange.server;
    std::ranges::replace(server, ':', '_');
    const auto save = [&](const char *ending, const Bytes &bytes) {
        if (bytes.empty()) {
            return;
        }
        std::ofstream file(dumps_ / (number.data() + ("-" + server) + ending), std::ios::binary);
        file.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        if (!file.flush()) {
            line("cannot write into " + dumps_.string());
        }
    };
    save("-in.bin", exchange.request_bytes);
    save("-out.bin", exchange.response_bytes);
}

} // namespace rehearsal
