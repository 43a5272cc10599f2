// The files of the configuration store.
#include "xmlin/file.h"

#include "trace.h"
#include "xmlin/parse.h"
#include "xmllib.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

// Where an installation is found; set by the build.
#ifndef ZYN_INSTALL_DIR
#define ZYN_INSTALL_DIR "/opt/orvane/velatrix"
#endif
#ifndef ZYN_LIBRARY_LINK
#define ZYN_LIBRARY_LINK "/usr/lib64/libzynxml.so.1.0"
#endif
#ifndef ZYN_LIBRARY_LINK_RETRY
#define ZYN_LIBRARY_LINK_RETRY "/usr/lib/libzynxml.so.1.0"
#endif

char _xml_installpath[XML_PATH_SIZE];
char _xml_confpath[XML_PATH_SIZE];
char _xml_charset[128];
std::array<char[XML_PATH_SIZE], 6> _policypath;

namespace {

char chosen_inspath[XML_PATH_SIZE]; // goes before the library link; empty for none

constexpr int settle_attempts = 3; // to parse a file that does not change meanwhile

constexpr auto policy_directories = std::to_array<const char *>(
    {"", "resource/", "monitor/", "heartbeat/", "networkpartition/", "forcestop/"});
static_assert(policy_directories.size() == std::tuple_size_v<decltype(_policypath)>);

// Whether the directory of the cluster configuration exists: without it there is no file that could be in
// the middle of being rewritten, and a host without an installation must start at once.
bool have_conf_directory() {
    char directory[XML_PATH_SIZE];
    std::snprintf(directory, sizeof(directory), "%s", _xml_confpath);
    if (char *slash = std::strrchr(directory, '/'); slash != nullptr)
        *slash = '\0';
    struct stat status = {};
    return stat(directory, &status) == 0 ? S_ISDIR(status.st_mode) : errno != ENOENT && errno != ENOTDIR;
}

Document parse_conf() {
    return parse_file(_xml_confpath, have_conf_directory());
}

bool read_status(const char *file, struct stat *status) {
    if (stat(file, status) == 0)
        return true;
    XMLIN_TRACE(1, "stat(%s) failed(%d).", file, errno);
    return false;
}

bool unchanged(const struct stat &before, const struct stat &after) {
    return before.st_size == after.st_size && before.st_mtim.tv_sec == after.st_mtim.tv_sec &&
           before.st_mtim.tv_nsec == after.st_mtim.tv_nsec && before.st_ino == after.st_ino;
}

// The cluster configuration as it was parsed: a file replaced in between is parsed once more.
struct Configuration {
    Document doc;
    struct stat status;
    int ret;             // 0, or why there is none
    bool settled = true; // the file was the same before and after
};

Configuration parse_default(const char *label) {
    Configuration result = {nullptr, {}, XMLLIB_OK};
    for (int attempt = 0; attempt < settle_attempts; ++attempt) {
        struct stat before = {};
        const bool known = stat(_xml_confpath, &before) == 0;
        result.doc = parse_conf();
        if (result.doc == nullptr)
            return {nullptr, {}, XMLLIB_ERR_INVALIDPATH};
        if (result.doc->children == nullptr) {
            XMLIN_TRACE(1, "%s is empty document.", label);
            return {nullptr, {}, XMLLIB_ERR_DOCUMENT};
        }
        if (!read_status(_xml_confpath, &result.status))
            return {nullptr, {}, XMLLIB_ERR_INVALIDPATH};
        if (known && unchanged(before, result.status))
            return result;
    }
    result.settled = false;
    return result;
}

void fill_slot(ZYNXML_XMLDOC *slot, const char *name, int type, Document doc) {
    std::snprintf(slot->name, sizeof(slot->name), "%s", name);
    slot->type = type;
    slot->current = 0;
    slot->count = 1;
    slot->doc = doc.release();
}

void free_slot(ZYNXML_XMLDOC *slot) {
    xmlFreeDoc(slot->doc);
    clear_xmldoc(slot);
}

ZYNXML_XMLDOC *take_slot() {
    ZYNXML_XMLDOC *slot = find_nouse();
    if (slot == nullptr)
        XMLIN_TRACE(1, "max loaded.");
    return slot;
}

// What is remembered of a file that never stood still differs from any file: the next reload parses it.
void set_file_status(ZYNXML_XMLDOC *slot, const Configuration &parsed) {
    slot->timestamp = parsed.status.st_mtim.tv_sec;
    slot->filesize = parsed.settled ? parsed.status.st_size : -1;
}

int load_new_policy(const char *type, const char *charset) {
    char file[XML_PATH_SIZE];
    if (get_policyfile(type, file, charset) != 0) {
        XMLIN_TRACE(1, "\"%s\" policy file does not exist.", type);
        return XMLLIB_ERR_NOTEXIST;
    }
    Document doc = parse_file(file, true);
    if (doc == nullptr)
        return XMLLIB_ERR_DOCUMENT;
    if (doc->children == nullptr) {
        XMLIN_TRACE(1, "\"%s\" is empty document.", file);
        return XMLLIB_ERR_DOCUMENT;
    }
    XMLIN_TRACE(8, "\"%s\" policy load success!", type);
    ZYNXML_XMLDOC *slot = take_slot();
    if (slot == nullptr)
        return XMLLIB_ERR_INVALIDARG;
    fill_slot(slot, type, XMLDOC_TYPE_POLICY, std::move(doc));
    return XMLLIB_OK;
}

int count_policy(const char *type, const char *charset) {
    if (type == nullptr) {
        XMLIN_TRACE(1, "invalid armgument.");
        return XMLLIB_ERR_INVALIDARG;
    }
    XMLIN_TRACE(8, "\"%s\" policy loading...", type);
    ZYNXML_XMLDOC *slot = find_policy(type);
    if (slot == nullptr)
        return load_new_policy(type, charset);
    ++slot->count;
    XMLIN_TRACE(8, "\"%s\" policy already loaded. count = %d.", type, slot->count);
    return XMLLIB_OK;
}

int release_policy(const char *type) {
    if (type == nullptr) {
        XMLIN_TRACE(1, "invalid armgument.");
        return XMLLIB_ERR_INVALIDARG;
    }
    ZYNXML_XMLDOC *slot = find_policy(type);
    if (slot == nullptr) {
        XMLIN_TRACE(1, "\"%s\" policy not loaded.", type);
        return XMLLIB_ERR_NOTLOAD;
    }
    --slot->count;
    XMLIN_TRACE(8, "\"%s\" policy count is %d.", type, slot->count);
    if (slot->count == 0) {
        XMLIN_TRACE(8, "unload \"%s\" policy.", type);
        free_slot(slot);
    }
    return XMLLIB_OK;
}

int load_default(ZYNXML_XMLDOC **handle) {
    XMLIN_TRACE(8, "%s config loading...", "default");
    ZYNXML_XMLDOC *slot = default_config();
    if (slot != nullptr) {
        ++slot->count;
        XMLIN_TRACE(8, "default config already loaded. count = %d.", slot->count);
    } else {
        Configuration parsed = parse_default("default");
        if (parsed.ret != XMLLIB_OK)
            return parsed.ret;
        XMLIN_TRACE(8, "default config size=%d timestamp=%d.", static_cast<int>(parsed.status.st_size),
                    static_cast<int>(parsed.status.st_mtim.tv_sec));
        XMLIN_TRACE(8, "%s config load success!", "default");
        slot = take_slot();
        if (slot == nullptr)
            return XMLLIB_ERR_INVALIDARG;
        fill_slot(slot, _xml_confpath, XMLDOC_TYPE_DEFAULT, std::move(parsed.doc));
        set_file_status(slot, parsed);
        set_current(nullptr);
    }
    if (handle != nullptr)
        *handle = slot;
    return XMLLIB_OK;
}

int load_path(const char *path, ZYNXML_XMLDOC **handle) {
    XMLIN_TRACE(8, "\"%s\" config loading...", path);
    Document doc = parse_file(path, true);
    if (doc == nullptr)
        return XMLLIB_ERR_INVALIDPATH;
    if (doc->children == nullptr) {
        XMLIN_TRACE(1, "\"%s\" is empty document.", path);
        return XMLLIB_ERR_DOCUMENT;
    }
    XMLIN_TRACE(8, "\"%s\" config load success!", path);
    ZYNXML_XMLDOC *slot = take_slot();
    if (slot == nullptr)
        return XMLLIB_ERR_INVALIDARG;
    fill_slot(slot, path, XMLDOC_TYPE_PATHCONFIG, std::move(doc));
    set_current(slot);
    if (handle != nullptr)
        *handle = slot;
    return XMLLIB_OK;
}

int release_default() {
    ZYNXML_XMLDOC *slot = default_config();
    if (slot == nullptr) {
        XMLIN_TRACE(1, "default config not loaded.");
        return XMLLIB_ERR_NOTLOAD;
    }
    --slot->count;
    XMLIN_TRACE(8, "default config count is %d.", slot->count);
    if (slot->count == 0) {
        XMLIN_TRACE(8, "unload default config.");
        free_slot(slot);
    }
    return XMLLIB_OK;
}

int release_path(ZYNXML_XMLDOC *slot) {
    if (slot->type == XMLDOC_TYPE_NONE || --slot->count > 0)
        return XMLLIB_OK; // still used, or a handle that has been unloaded already
    XMLIN_TRACE(8, "unload \"%s\" config.", slot->name);
    if (ZYNXML_XMLDOC *fallback = default_config(); fallback != nullptr)
        fallback->current = 1;
    free_slot(slot);
    return XMLLIB_OK;
}

int reload_changed(ZYNXML_XMLDOC *slot) {
    struct stat status = {};
    if (!read_status(_xml_confpath, &status))
        return XMLLIB_ERR_INVALIDPATH;
    XMLIN_TRACE(8, "default config size=%d timestamp=%d.", static_cast<int>(status.st_size),
                static_cast<int>(status.st_mtim.tv_sec));
    if (status.st_size == slot->filesize && status.st_mtim.tv_sec == slot->timestamp) {
        XMLIN_TRACE(8, "default config is not updated. size=%d timestamp=%d.",
                    static_cast<int>(slot->filesize), static_cast<int>(slot->timestamp));
        return XMLLIB_OK;
    }
    Configuration parsed = parse_default("default config");
    if (parsed.ret != XMLLIB_OK)
        return parsed.ret;
    XMLIN_TRACE(8, "default config reload success!");
    xmlFreeDoc(slot->doc);
    slot->doc = parsed.doc.release();
    set_file_status(slot, parsed);
    return XMLLIB_OK;
}

// Joins two texts into a path; one that does not fit is empty, and no file is found by it.
void fill_path(char (&path)[XML_PATH_SIZE], const char *first, const char *second) {
    const int length = std::snprintf(path, sizeof(path), "%s%s", first, second);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof(path))
        path[0] = '\0';
}

// Tries the six directories with the policy directory's name in place of their %s.
bool find_candidate(const char *name, const char *type, char *path) {
    for (const char *directory : _policypath) {
        const std::size_t length_before = std::strlen(_xml_installpath); // which may hold anything
        const char *gap =
            std::strlen(directory) > length_before ? std::strstr(directory + length_before, "%s") : nullptr;
        if (gap == nullptr)
            continue;
        const int length = std::snprintf(path, XML_PATH_SIZE, "%.*s%s%s%s.pol",
                                         static_cast<int>(gap - directory), directory, name, gap + 2, type);
        struct stat status = {};
        XMLIN_TRACE(16, "candidate file is %s.", path);
        if (length < static_cast<int>(XML_PATH_SIZE) && stat(path, &status) == 0) {
            XMLIN_TRACE(16, "exist!");
            return true;
        }
    }
    return false;
}

void read_inspath(char *buffer, std::size_t size) {
    char target[XML_PATH_SIZE] = "";
    const std::size_t room = std::min(size, sizeof(target) - 1);
    ssize_t length = readlink(ZYN_LIBRARY_LINK, target, room);
    if (length == -1)
        length = readlink(ZYN_LIBRARY_LINK_RETRY, target, room);
    char *cut = nullptr;
    if (length == -1)
        XMLIN_TRACE(1, "readlink(retry) failed.(%d)", static_cast<int>(length));
    else if (cut = std::strstr(target, "/lib"); cut == nullptr)
        XMLIN_TRACE(1, "get installpath failed.");
    else
        *cut = '\0';
    std::snprintf(buffer, size, "%s", cut != nullptr ? target : ZYN_INSTALL_DIR);
}

} // namespace

void form_paths() {
    XMLIN_ENTER();
    fill_path(_xml_confpath, _xml_installpath, "/etc/zyn.conf");
    for (std::size_t i = 0; i < _policypath.size(); ++i) {
        char tail[64];
        std::snprintf(tail, sizeof(tail), "/etc/%%s/%s", policy_directories[i]);
        fill_path(_policypath[i], _xml_installpath, tail);
    }
    XMLIN_EXIT();
}

int get_inspath(char *buffer, std::size_t size) {
    XMLIN_ENTER();
    if (chosen_inspath[0] != '\0')
        std::snprintf(buffer, size, "%s", chosen_inspath);
    else
        read_inspath(buffer, size);
    XMLIN_EXIT();
    return 0;
}

void set_inspath(const char *directory) {
    std::snprintf(chosen_inspath, sizeof(chosen_inspath), "%s", directory != nullptr ? directory : "");
}

int get_policyfile(const char *type, char *path, const char *charset) {
    XMLIN_ENTER();
    bool found = false;
    if (type == nullptr || path == nullptr) {
        XMLIN_TRACE(1, "type is null.");
    } else {
        char name[sizeof(_xml_charset) + sizeof("policy.")];
        std::snprintf(name, sizeof(name), "policy.%s", charset != nullptr ? charset : "");
        found = (std::strcmp(name, "policy.ASCII") != 0 && find_candidate(name, type, path)) ||
                find_candidate("policy", type, path);
        if (!found)
            *path = '\0';
    }
    XMLIN_EXIT();
    return found ? 0 : -1;
}

int load_policy(const char *type, const char *charset) {
    XMLIN_ENTER();
    const int ret = count_policy(type, charset);
    XMLIN_EXIT();
    return ret;
}

int unload_policy(const char *type) {
    XMLIN_ENTER();
    const int ret = release_policy(type);
    XMLIN_EXIT();
    return ret;
}

int load_config(const char *path, ZYNXML_XMLDOC **handle) {
    XMLIN_ENTER();
    const int ret = path == nullptr ? load_default(handle) : load_path(path, handle);
    XMLIN_EXIT();
    return ret;
}

int unload_config(ZYNXML_XMLDOC *handle) {
    XMLIN_ENTER();
    const int ret = handle == nullptr ? release_default() : release_path(handle);
    XMLIN_EXIT();
    return ret;
}

int reload_config() {
    XMLIN_ENTER();
    ZYNXML_XMLDOC *slot = default_config();
    const int ret = slot == nullptr ? load_config(nullptr, nullptr) : reload_changed(slot);
    XMLIN_EXIT();
    return ret;
}

int set_current(ZYNXML_XMLDOC *handle) {
    XMLIN_ENTER();
    ZYNXML_XMLDOC *chosen = handle != nullptr ? handle : default_config();
    if (chosen == nullptr) {
        XMLIN_TRACE(1, "default config not loaded.");
    } else {
        if (ZYNXML_XMLDOC *before = current_config(); before != nullptr)
            before->current = 0;
        XMLIN_TRACE(8, "current config file change to %s.", chosen->name);
        chosen->current = 1;
    }
    XMLIN_EXIT();
    return chosen != nullptr ? static_cast<int>(XMLLIB_OK) : static_cast<int>(XMLLIB_ERR_NOTLOAD);
}
