#include "xmlin/parse.h"

#include "cancel.h"
#include "trace.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int parse_attempts = 3;
constexpr unsigned attempt_gap = 1; // seconds

thread_local ElementWatch element_watch = nullptr;

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        const CancelDisabled in_destructor;
        if (fd_ != -1)
            close(fd_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// Only a file of a sane size is read: a FIFO in its place would be waited for without end.
bool is_readable(int fd) {
    struct stat status = {};
    if (fd == -1 || fstat(fd, &status) != 0)
        return false;
    errno = S_ISREG(status.st_mode) ? EFBIG : EINVAL;
    return S_ISREG(status.st_mode) && status.st_size <= XML_FILE_SIZE_MAX;
}

struct FreeContext {
    void operator()(xmlParserCtxt *context) const { xmlFreeParserCtxt(context); }
};
using Context = std::unique_ptr<xmlParserCtxt, FreeContext>;

// Parameter entities have no use in a configuration, and libxml2 may never come back from those that
// contain each other.
void declare_entity(void *parser, const xmlChar *name, int type, const xmlChar *public_id,
                    const xmlChar *system_id, xmlChar *content) {
    if (type != XML_INTERNAL_PARAMETER_ENTITY && type != XML_EXTERNAL_PARAMETER_ENTITY) {
        xmlSAX2EntityDecl(parser, name, type, public_id, system_id, content);
        return;
    }
    auto *context = static_cast<xmlParserCtxt *>(parser);
    err_handler(nullptr, "parameter entity %%%s is refused", reinterpret_cast<const char *>(name));
    context->wellFormed = 0;
    xmlStopParser(context);
}

void start_element(void *parser, const xmlChar *name, const xmlChar *prefix, const xmlChar *uri,
                   int namespaces, const xmlChar **namespace_list, int attributes, int defaulted,
                   const xmlChar **attribute_list) {
    xmlSAX2StartElementNs(parser, name, prefix, uri, namespaces, namespace_list, attributes, defaulted,
                          attribute_list);
    const auto *context = static_cast<const xmlParserCtxt *>(parser);
    if (context->node != nullptr)
        element_watch(context, context->node);
}

// Nothing outside the file is fetched and no entity is expanded beyond what libxml2 allows by itself. A parse
// that broke off for want of memory leaves a tree behind that looks whole, and is none.
Document parse(int fd, const char *file) {
    xmlSetGenericErrorFunc(nullptr, err_handler); // per thread
    const Context context(xmlNewParserCtxt());
    if (context == nullptr)
        return nullptr;
    context->sax->entityDecl = declare_entity;
    if (element_watch != nullptr)
        context->sax->startElementNs = start_element;
    Document doc(xmlCtxtReadFd(context.get(), fd, file, nullptr, XML_PARSE_NONET));
    const bool broke_off = context->errNo == XML_ERR_NO_MEMORY || context->disableSAX != 0;
    return broke_off ? nullptr : std::move(doc);
}

Document parse_once(const char *file) {
    const Descriptor fd(open(file, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!is_readable(fd.get())) {
        err_handler(nullptr, "%s: %s", file, std::strerror(errno));
        return nullptr;
    }
    return parse(fd.get(), file);
}

} // namespace

Document parse_file(const char *file, bool repeat) {
    repeat = repeat && element_watch == nullptr;
    for (int attempt = 0; attempt < (repeat ? parse_attempts : 1); ++attempt) {
        if (Document doc = parse_once(file); doc != nullptr)
            return doc;
        for (unsigned left = repeat ? attempt_gap : 0; left > 0;)
            left = sleep(left);
    }
    XMLIN_TRACE(1, "xmlParseFile(%s) failed.", file);
    return nullptr;
}

void watch_elements(ElementWatch watch) {
    element_watch = watch;
}

void err_handler(void *, const char *format, ...) {
    if (!trace_is_open())
        return;
    XML_ENTER();
    char message[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    XML_TRACE(1, "xmlerr=\"%s\".", message);
    XML_WRITE(trace, 16, "src/xml", __LINE__, __func__, "<= %s() end", __func__);
}
