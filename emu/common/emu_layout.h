// Where the emulated card's pieces lie, found from the directory of the
// running program, so that the same programs run from the build tree and from
// an installed or merely unpacked package.
//
// In the build tree everything sits in bin/, with the libraries in lib/ and
// the platform scripts in share/orv-emu/. Installed, the user programs are in
// bin/ and the private pieces in libexec/orv-emu/ (the daemon the card runs
// and the sub-process stand-in), lib/<arch>/orv-emu/ and share/orv-emu/,
// found relative to bin/ as the build placed them.
#ifndef ORV_EMU_COMMON_EMU_LAYOUT_H
#define ORV_EMU_COMMON_EMU_LAYOUT_H

#include <string>

namespace orv::emu {

struct EmuLayout {
    std::string bin;      // orv-sandbox, orv-card-emu, orv-emu-ctl, orv-host, orv-emu-mkpkg
    std::string libexec;  // orvdaemon, orv-subproc-stub
    std::string lib;      // the emulated libraries
    std::string share;    // the platform scripts
    bool installed = false;
};

// The layout around `binDir`, the directory of orv-sandbox and its peers.
EmuLayout FindEmuLayout(const std::string& binDir);

}  // namespace orv::emu

#endif  // ORV_EMU_COMMON_EMU_LAYOUT_H
