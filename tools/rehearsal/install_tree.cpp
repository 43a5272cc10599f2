// An installation of the command in a directory of choice.
//
// The command looks for its installation in a built-in directory. A tree that lies elsewhere is put there
// with a bind mount that only the command itself sees.
#include "install_tree.h"

#include <array>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

constexpr std::string_view placeholder = "@INSTALL_DIR@";
constexpr auto directories =
    std::to_array<const char *>({"bin", "etc/policy", "messages", "tmp", "work/ipc"});

// How a file is treated that is there already.
enum class Existing { refresh, keep, keep_if_different };

Existing treatment(std::string_view name) {
    if (name == "zyn.conf")
        return Existing::keep;
    return name == "zyn.conf.sample" ? Existing::refresh : Existing::keep_if_different;
}

// Message catalogues lie beside etc/.
fs::path place_in(const fs::path &tree, std::string_view name) {
    return name.starts_with("messages/") ? tree / name : tree / "etc" / name;
}

std::string escape_xml(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

// As one word of a shell's command line.
std::string quote_shell(std::string_view text) {
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string fill_in(std::string_view text, const std::string &path) {
    std::string filled(text);
    for (std::size_t at = filled.find(placeholder); at != filled.npos;
         at = filled.find(placeholder, at + path.size()))
        filled.replace(at, placeholder.size(), path);
    return filled;
}

std::optional<std::string> read_file(const fs::path &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in)
        return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The name appears only with the whole text.
void write_file(const fs::path &file, const std::string &text) {
    const fs::path fresh = file.string() + ".tmp";
    std::ofstream out(fresh, std::ios::binary);
    out << text;
    if (out.close(); !out)
        throw std::runtime_error("cannot write " + fresh.string());
    fs::rename(fresh, file);
}

// A link to nothing is something to keep, too.
bool is_there(const fs::path &file) {
    return fs::symlink_status(file).type() != fs::file_type::not_found;
}

void place_file(const fs::path &file, const std::string &text, Existing existing, std::ostream &out) {
    const std::string beside = file.string() + ".new";
    if (existing == Existing::refresh || !is_there(file)) {
        write_file(file, text);
        out << "made " << file.string() << '\n';
    } else if (existing == Existing::keep || read_file(file) == text) {
        if (existing == Existing::keep_if_different)
            fs::remove(beside); // it has been taken over
        out << "kept " << file.string() << '\n';
    } else {
        write_file(beside, text);
        out << "kept " << file.string() << ", which differs; the new one is " << beside << '\n';
    }
}

// A running copy cannot be written to, but replaced.
void copy_command(const fs::path &tree, std::ostream &out) {
    const fs::path command = fs::read_symlink("/proc/self/exe").parent_path() / "zynrexec";
    if (!fs::exists(command)) {
        out << "no " << command.string() << " to copy\n";
        return;
    }
    const fs::path copy = tree / "bin/zynrexec";
    const fs::path fresh = copy.string() + ".tmp";
    fs::copy_file(command, fresh, fs::copy_options::overwrite_existing);
    fs::rename(fresh, copy);
    out << "made " << copy.string() << '\n';
}

void explain(const fs::path &tree, std::ostream &out) {
    const std::string word = quote_shell(tree.string());
    out << "\nPut settings into " << (tree / "etc/zyn.conf").string()
        << "; zyn.conf.sample beside it shows how.\n"
           "The command finds the tree in " ZYN_INSTALL_DIR
           ". To let it, and nothing else, see it there (as\n"
           "an ordinary user; root leaves out --user --map-root-user; a library link in /usr/lib64 or\n"
           "/usr/lib would lead the command to another installation):\n\n"
           "  unshare --user --map-root-user --mount sh -c '\n"
           "      mount -t tmpfs none "
        << fs::path(ZYN_INSTALL_DIR).parent_path().parent_path().string()
        << " && mkdir -p " ZYN_INSTALL_DIR " &&\n"
           "      mount --bind \"$0\" " ZYN_INSTALL_DIR " && exec \"$0/bin/zynrexec\" \"$@\"' "
        << word << " --help\n";
}

} // namespace

void rehearsal::lay_out_tree(const fs::path &directory, std::ostream &out) {
    if (directory.empty())
        throw std::invalid_argument("no directory to lay out the tree in");
    fs::path tree = fs::absolute(directory).lexically_normal();
    if (!tree.has_filename() && tree.has_relative_path())
        tree = tree.parent_path(); // without the slash at the end
    const std::string path = escape_xml(tree.string());
    for (const char *name : directories)
        fs::create_directories(tree / name);
    for (const EtcFile &file : etc_files())
        place_file(place_in(tree, file.name), fill_in(file.text, path), treatment(file.name), out);
    copy_command(tree, out);
    explain(tree, out);
}
