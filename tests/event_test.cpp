// Events on their way to a daemon that is the test: what becomes of them, by data/event_catalogue.txt and
// data/event_destinations.txt, and that threads do not mix them up.
#include "log_local.h"
#include "support/log_tree.h"
#include "support/rows.h"
#include "xmllib.h"

#include <algorithm>
#include <iterator>
#include <regex>
#include <set>
#include <thread>

namespace {

using std::regex, std::regex_replace;

std::string number(std::int32_t field) {
    return std::to_string(from_network(field));
}

// A field whose bytes behind its text are zero, whatever the destination before has left there.
template <std::size_t N>
std::string text_in(const char (&field)[N]) {
    const std::size_t length = strnlen(field, N - 1);
    EXPECT_TRUE(std::all_of(field + length, field + N, [](char c) { return c == '\0'; })) << field;
    return field;
}

// What a receiver makes of a record, as the rows tell it.
std::string read_record(const EVENTC_LOG_INFO &record) {
    static const regex date("^[0-9]{4}(/[0-9]{2}){2} ([0-9]{2}:){2}[0-9]{2}\\.[0-9]{3}");
    const std::string told = number(record.dest) + " ";
    if (told == "3 ") {
        std::string line = regex_replace(record.destinfo.local.msg, date, "DATE");
        line = regex_replace(line, regex("\\[0*" + std::to_string(getpid()) + ":"), "[PID:");
        line = regex_replace(line, regex("PID:0*" + number(record.tid) + "\\]"), "PID:TID]");
        line = regex_replace(line, regex(" {20,}"), "..."); // how many depends on the process
        std::replace(line.begin(), line.end(), '\n', '$');
        return told + record.type + " " + number(record.destinfo.local.loglevel) + " " + line;
    }
    const EVENTC_LOG_ALERT &alert = record.destinfo.alert;
    char host[256] = "";
    gethostname(host, sizeof(host) - 1);
    EXPECT_EQ(text_in(alert.srcsv), std::string(host, std::strcspn(host, ".")));
    EXPECT_TRUE(std::regex_match(alert.date, date)) << alert.date;
    EXPECT_STREQ(record.type, "mod");
    EXPECT_TRUE(number(record.pid) == std::to_string(getpid()) || record.pid == getpid());
    const std::string cmdtype = text_in(alert.cmdtype);
    return told + (cmdtype.empty() ? "-" : cmdtype) + " " + number(alert.eventid) + "/" +
           number(alert.loglevel) + " " + text_in(alert.msg);
}

class Event : public LogTree {
protected:
    Event() {
        std::string catalogue;
        for (const Row &row : read_rows("event_catalogue.txt", 1))
            catalogue += (catalogue.empty() ? "" : "\n") + row[0];
        std::replace(catalogue.begin(), catalogue.end(), '~', '\0');
        folder.write("messages/mod.msg.us", catalogue);
        EXPECT_EQ(mkfifo("messages/mod.msg.fifo", 0666), 0);
        std::filesystem::create_directory("messages/mod.msg.dir");
    }
    void *open(const std::string &configuration) const {
        configure(configuration);
        void *handle = nullptr;
        EXPECT_EQ(log_init("mod", &handle, 0, 0, nullptr), LOG_OK);
        EXPECT_EQ(daemon.take_all().size(), 2U);
        return handle;
    }
    static std::int32_t write(void *handle, int eid, const char *name) {
        return log_write(handle, LOG_LEVEL_EVENT, eid, nullptr, 0, nullptr, "%s%d", name, 91);
    }
    std::string receive() const {
        std::string received;
        for (const EVENTC_LOG_INFO &record : daemon.take_all())
            received += (received.empty() ? "" : "; ") + read_record(record);
        return received;
    }
    const Receiver daemon{"tmp/sockevent"};
};

TEST_F(Event, GoesToItsDestinations) {
    for (const Row &row : read_rows("event_destinations.txt", 5)) {
        void *handle = open(row[0]);
        testing::internal::CaptureStdout();
        dbgprint = 1;
        EXPECT_EQ(std::to_string(write(handle, std::stoi(row[1]), "sda")), row[2]) << row[0] << row[1];
        dbgprint = 0;
        EXPECT_NE(testing::internal::GetCapturedStdout().find(row[4]), std::string::npos) << row[4];
        EXPECT_EQ(receive(), row[3]) << row[0] << row[1];
        EXPECT_EQ(log_term(handle), LOG_OK);
        daemon.take();
    }
}

TEST_F(Event, TellsWhatHasChangedSinceTheLogWasOpened) {
    const std::string settings = "<cluster><messages><use>1</use></messages></cluster>";
    void *handle = open(settings);
    EXPECT_EQ(xmllib_init("user") + xmllib_load_config(), XMLLIB_OK);
    configure(settings + "<messages><mod n='1'><trap>1</trap></mod></messages>");
    EXPECT_EQ(write(handle, 1, "sda"), LOG_OK);
    EXPECT_EQ(receive(), "5 trap 1/6 disk sda at 91 %") << "settings as they are now";
    EXPECT_EQ(xmllib_unload_config() + xmllib_term(), XMLLIB_OK);
    std::filesystem::remove("tmp/sockevent");
    EXPECT_EQ(write(handle, 5, "sda"), LOG_ERR_DAEMON);
    std::filesystem::remove("etc/policy/event.pol");
    EXPECT_EQ(write(handle, 1, "sda"), LOG_ERR_POLICY);
    EXPECT_EQ(log_term(handle), LOG_ERR_DAEMON);
}

TEST_F(Event, ThreadsWriteThroughOneHandle) {
    constexpr int events = 25; // of each thread
    void *handle = open("");
    std::multiset<std::string> wanted, received;
    std::vector<std::jthread> writers;
    for (const std::string name : {"sda", "a longer name", "sdb", ""}) {
        const std::string uptime = "3 uptime 4 DATE[PID:TID] [W] <type: mod><event: 3> three " + name + "$";
        for (int i = 0; i < events; ++i)
            for (const std::string &record :
                 {uptime, uptime, "8 - 3/6 three " + name, "4 - 3/6 [W] <type: mod><event: 3> three " + name})
                wanted.insert(record);
        writers.emplace_back([handle, name] {
            for (int i = 0; i < events; ++i)
                EXPECT_EQ(write(handle, 3, name.c_str()), LOG_OK);
        });
    }
    std::vector<EVENTC_LOG_INFO> records(wanted.size());
    for (EVENTC_LOG_INFO &record : records)
        record = daemon.take(10000); // read later: the writers wait for the receiver
    std::transform(records.begin(), records.end(), std::inserter(received, received.end()), read_record);
    EXPECT_EQ(received, wanted);
    writers.clear();
    EXPECT_EQ(log_term(handle), LOG_OK);
}

} // namespace
