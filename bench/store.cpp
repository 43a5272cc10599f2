#include "store.h"

#include "xmllib.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <unistd.h>

namespace {

constexpr int sections = 200; // of five elements each
constexpr int middle = sections / 2;

int allocations = 0;

std::string document() {
    std::string text = "<root>";
    for (int i = 1; i <= sections; ++i)
        text += "<section name='s" + std::to_string(i) + "'><before/><group><other/><key>" +
                std::to_string(i) + "</key></group></section>";
    return text + "</root>";
}

// The document in a file, for the store and for libxml2.
class ConfigurationFile {
public:
    ConfigurationFile() {
        const int fd = mkstemp(name_);
        if (fd == -1)
            throw std::runtime_error("no file for the configuration");
        close(fd);
        std::ofstream(name_) << document();
    }
    ~ConfigurationFile() { unlink(name_); }
    ConfigurationFile(const ConfigurationFile &) = delete;
    ConfigurationFile &operator=(const ConfigurationFile &) = delete;
    const char *name() const { return name_; }

private:
    char name_[32] = "/tmp/zynbench-XXXXXX";
};

class Store {
public:
    explicit Store(const char *file) {
        if (xmllib_init("rexec") != XMLLIB_OK || xmllib_load_pathconfig(file, &handle_) != XMLLIB_OK)
            throw std::runtime_error("the store did not start: is there an installation?");
    }
    ~Store() { xmllib_term(); }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // A log that was opened meanwhile has loaded the cluster configuration, which is consulted since.
    void consult() const { xmllib_change_config(handle_); }

private:
    void *handle_ = nullptr;
};

void prepare() {
    static const ConfigurationFile file;
    static const Store store(file.name());
    store.consult();
}

void check(int value, int wanted) {
    if (value != wanted)
        throw std::runtime_error("a look-up found " + std::to_string(value));
}

int read(const std::string &path) {
    int value = 0;
    int size = sizeof(value);
    xmllib_get_value(path.c_str(), XMLLIB_TYPE_INT, &value, &size);
    return value;
}

std::string path_in(int section) {
    return "/root/section@s" + std::to_string(section) + "/group/key";
}

void query_in(benchmark::State &state, int section) {
    prepare();
    const std::string path = path_in(section);
    check(read(path), section);
    for (auto _ : state)
        benchmark::DoNotOptimize(read(path));
}

struct Free {
    void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
    void operator()(xmlXPathContext *context) const { xmlXPathFreeContext(context); }
    void operator()(xmlXPathCompExpr *expression) const { xmlXPathFreeCompExpr(expression); }
    void operator()(xmlXPathObject *object) const { xmlXPathFreeObject(object); }
};

std::unique_ptr<xmlDoc, Free> parse() {
    const std::string text = document();
    return std::unique_ptr<xmlDoc, Free>(
        xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, 0));
}

int to_int(const xmlChar *text) {
    return static_cast<int>(std::strtol(reinterpret_cast<const char *>(text), nullptr, 0));
}

const xmlNode *find(const xmlNode *node, const char *name, const char *attribute) {
    for (; node != nullptr; node = node->next)
        if (std::strcmp(reinterpret_cast<const char *>(node->name), name) == 0 &&
            (attribute == nullptr ||
             std::strcmp(reinterpret_cast<const char *>(node->properties->children->content), attribute) ==
                 0))
            return node;
    throw std::runtime_error("nothing found");
}

} // namespace

extern "C" {
void *__real_malloc(std::size_t size);
void *__wrap_malloc(std::size_t size) {
    ++allocations;
    return __real_malloc(size);
}
void *__real__Znwm(std::size_t size);
void *__wrap__Znwm(std::size_t size) { // operator new
    ++allocations;
    return __real__Znwm(size);
}
void *__real_calloc(std::size_t count, std::size_t size);
void *__wrap_calloc(std::size_t count, std::size_t size) {
    ++allocations;
    return __real_calloc(count, size);
}
}

int query_allocations() {
    prepare();
    const std::string path = path_in(middle);
    allocations = 0;
    check(read(path), middle);
    return allocations;
}

void query_first(benchmark::State &state) {
    query_in(state, 1);
}

void query(benchmark::State &state) {
    query_in(state, middle);
}

void query_last(benchmark::State &state) {
    query_in(state, sections);
}

void query_xpath(benchmark::State &state) {
    const auto doc = parse();
    const std::unique_ptr<xmlXPathContext, Free> context(xmlXPathNewContext(doc.get()));
    const std::string path = "/root/section[@name='s" + std::to_string(middle) + "']/group/key/text()";
    const std::unique_ptr<xmlXPathCompExpr, Free> expression(
        xmlXPathCompile(reinterpret_cast<const xmlChar *>(path.c_str())));
    const auto look_up = [&] {
        const std::unique_ptr<xmlXPathObject, Free> found(
            xmlXPathCompiledEval(expression.get(), context.get()));
        return to_int(found->nodesetval->nodeTab[0]->content);
    };
    check(look_up(), middle);
    for (auto _ : state)
        benchmark::DoNotOptimize(look_up());
}

void query_bare(benchmark::State &state) {
    const auto doc = parse();
    const std::string section = "s" + std::to_string(middle);
    std::mutex mutex;
    const auto look_up = [&] {
        const std::lock_guard lock(mutex);
        const xmlNode *node = find(doc->children, "root", nullptr);
        node = find(node->children, "section", section.c_str());
        node = find(node->children, "group", nullptr);
        return to_int(find(node->children, "key", nullptr)->children->content);
    };
    check(look_up(), middle);
    for (auto _ : state)
        benchmark::DoNotOptimize(look_up());
}
