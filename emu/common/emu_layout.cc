#include "emu/common/emu_layout.h"

#include <sys/stat.h>

namespace orv::emu {

namespace {

bool IsDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string Parent(const std::string& dir) {
    size_t slash = dir.find_last_of('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : dir.substr(0, slash);
}

}  // namespace

EmuLayout FindEmuLayout(const std::string& binDir) {
    EmuLayout layout;
    layout.bin = binDir;
    // Only an installed tree has the private program directory; a build tree
    // never makes one.
    std::string libexec = binDir + "/" + ORV_EMU_LIBEXEC_FROM_BIN;
    if (IsDirectory(libexec)) {
        layout.installed = true;
        layout.libexec = libexec;
        layout.lib = binDir + "/" + ORV_EMU_LIB_FROM_BIN;
        layout.share = binDir + "/" + ORV_EMU_DATA_FROM_BIN;
    } else {
        layout.libexec = binDir;
        layout.lib = Parent(binDir) + "/lib";
        layout.share = Parent(binDir) + "/share/orv-emu";
    }
    return layout;
}

}  // namespace orv::emu
