// Parsing under watch: places and problems are collected while the store's parser works.
#include "look.h"

#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include <fcntl.h>
#include <libxml/xmlerror.h>
#include <sys/stat.h>
#include <unistd.h>

namespace config {
namespace {

constexpr std::size_t problems_max = 20; // of one file; the first ones tell

std::unordered_map<const xmlNode *, Place> places; // of the documents that live; others are never asked for
std::vector<Problem> problems;                     // of the parse that goes on

// The parser stands behind the tag, which is still in its buffer, and there is no "<" inside a tag.
void note_element(const xmlParserCtxt *parser, const xmlNode *element) {
    const xmlParserInput &input = *parser->input;
    const xmlChar *tag = input.cur;
    while (tag > input.base && *tag != '<')
        --tag;
    const auto lines = static_cast<int>(std::count(tag, input.cur, '\n'));
    int column = input.col - static_cast<int>(input.cur - tag);
    if (lines > 0) // the parser's column is that of another line
        for (column = 1; tag - column >= input.base && tag[-column] != '\n';)
            ++column;
    places[element] = {input.line - lines, std::max(column, 1)};
}

void note_problem(void *, xmlErrorPtr error) {
    if (problems.size() >= problems_max || error->message == nullptr)
        return;
    std::string text = error->message;
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    problems.push_back({{error->line, error->int2}, error->level == XML_ERR_FATAL, printable(text)});
}

// Why the store refuses a file that it does not even begin to parse.
std::string why_refused(const std::string &file) {
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd == -1)
        return std::strerror(errno);
    struct stat status = {};
    const int ret = fstat(fd, &status);
    close(fd);
    if (ret != 0)
        return std::strerror(errno);
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? "is a directory" : "is no regular file";
    if (status.st_size > XML_FILE_SIZE_MAX)
        return "is larger than " + std::to_string(XML_FILE_SIZE_MAX >> 20) + " MiB";
    return "is no XML document";
}

} // namespace

Watch::Watch() {
    watch_elements(note_element);
    xmlSetStructuredErrorFunc(nullptr, note_problem);
}

Watch::~Watch() {
    watch_elements(nullptr);
    xmlSetStructuredErrorFunc(nullptr, nullptr);
}

Look look_at(const std::string &file) {
    problems.clear();
    Look look = {parse_file(file.c_str(), false), {}};
    if (look.document != nullptr && look.document->children == nullptr)
        look.document = nullptr;
    look.problems = std::move(problems);
    const bool told =
        std::any_of(look.problems.begin(), look.problems.end(), [](const Problem &one) { return one.fatal; });
    if (look.document == nullptr && !told)
        look.problems.push_back({{0, 0}, true, why_refused(file)});
    for (Problem &problem : look.problems)
        problem.fatal = look.document == nullptr;
    return look;
}

Place place_of(const xmlNode *element) {
    const auto found = places.find(element);
    return found != places.end() ? found->second : Place{0, 0};
}

std::string describe_place(const std::string &file, Place place) {
    return printable(file, 4096) + ':' + std::to_string(place.line) + ':' + std::to_string(place.column);
}

} // namespace config
