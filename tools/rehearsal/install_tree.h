// An installation of the command in a directory of choice, to rehearse against.
#pragma once

#include <filesystem>
#include <iosfwd>
#include <span>
#include <string_view>

namespace rehearsal {

// A configuration file that every installation has.
struct EtcFile {
    std::string_view name; // below etc/
    std::string_view text; // "@INSTALL_DIR@" in it stands for the install directory
};

// The files of the build; their texts live as long as the program.
std::span<const EtcFile> etc_files();

// Makes the policies, the message catalogues, a cluster configuration, the empty directories of an
// installation, and a copy of the zynrexec that lies beside this program, if there is one, in `directory`. A
// cluster configuration that is there stays; a policy or catalogue that is there and differs stays too, and
// the new one lies beside it as FILE.new. Tells on `out` what was made and how to use it. Throws
// std::invalid_argument for an empty path and std::runtime_error for what could not be made.
void lay_out_tree(const std::filesystem::path &directory, std::ostream &out);

} // namespace rehearsal
