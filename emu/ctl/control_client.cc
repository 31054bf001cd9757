#include "emu/ctl/control_client.h"

#include <errno.h>

#include <cstring>
#include <fstream>

#include "emu/common/socket_io.h"

namespace orv::emu {

bool CallControl(const std::string& socketPath, const CardRequest& request, CardReply* reply,
                 std::string* error) {
    UniqueFd fd = ConnectUnix(socketPath);
    if (!fd.Valid()) {
        *error = "cannot connect to " + socketPath + ": " + std::strerror(errno);
        return false;
    }
    if (!ExchangeMessages(fd.Get(), request, reply)) {
        *error = "no answer from " + socketPath;
        return false;
    }
    return true;
}

std::string ControlSocketOfState(const std::string& stateDir) {
    std::ifstream env(stateDir + "/sandbox.env");
    std::string line;
    const std::string key = "ORV_EMU_CONTROL=";
    while (std::getline(env, line)) {
        if (line.compare(0, key.size(), key) == 0) {
            return line.substr(key.size());
        }
    }
    return stateDir + "/run/orv-card/control.sock";
}

}  // namespace orv::emu
