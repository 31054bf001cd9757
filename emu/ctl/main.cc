// orv-emu-ctl: drives a running card emulator through its control socket.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "emu/ctl/control_client.h"

namespace {

void Usage() {
    std::fprintf(stderr,
                 "usage: orv-emu-ctl (--state DIR | --socket PATH) COMMAND [ARGS]\n"
                 "commands:\n"
                 "  devices                    show the device table\n"
                 "  groups                     list buffer groups, their members and recycled pids\n"
                 "  appmon                     list the app monitor's clients\n"
                 "  processes                  list processes bound to host processes\n"
                 "  faults                     list armed faults\n"
                 "  fail CALL CODE [COUNT]     make the next COUNT (default 1) calls of CALL return CODE;\n"
                 "                             CALL is a driver HAL function (drvGetDevNum, halGrpAttach, ...)\n"
                 "                             or an app-monitor call (appmon_client_register, ...)\n"
                 "  clear-faults               disarm every fault\n");
}

bool ParseNumber(const std::string& text, long* value) {
    char* end = nullptr;
    *value = std::strtol(text.c_str(), &end, 10);
    return !text.empty() && end != nullptr && *end == '\0';
}

}  // namespace

int main(int argc, char** argv) {
    std::string socketPath;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if ((arg == "--state" || arg == "--socket") && i + 1 < argc) {
            socketPath = arg == "--state" ? orv::emu::ControlSocketOfState(argv[++i]) : argv[++i];
        } else if (arg == "--help" || arg == "-h") {
            Usage();
            return 0;
        } else {
            words.push_back(arg);
        }
    }
    if (socketPath.empty() || words.empty()) {
        Usage();
        return 2;
    }

    orv::emu::CardRequest request;
    const std::string& command = words[0];
    if (command == "devices" && words.size() == 1) {
        request.mutable_show_devices();
    } else if (command == "groups" && words.size() == 1) {
        request.mutable_show_groups();
    } else if (command == "appmon" && words.size() == 1) {
        request.mutable_show_appmon();
    } else if (command == "processes" && words.size() == 1) {
        request.mutable_show_processes();
    } else if (command == "faults" && words.size() == 1) {
        request.mutable_list_faults();
    } else if (command == "clear-faults" && words.size() == 1) {
        request.mutable_clear_faults();
    } else if (command == "fail" && (words.size() == 3 || words.size() == 4)) {
        long code = 0;
        long count = 1;
        if (!ParseNumber(words[2], &code) || (words.size() == 4 && (!ParseNumber(words[3], &count) || count < 0))) {
            std::fprintf(stderr, "orv-emu-ctl: CODE and COUNT must be numbers\n");
            return 2;
        }
        auto* fault = request.mutable_inject_fault();
        fault->set_call(words[1]);
        fault->set_code(static_cast<int32_t>(code));
        fault->set_count(static_cast<uint32_t>(count));
    } else {
        Usage();
        return 2;
    }

    orv::emu::CardReply reply;
    std::string error;
    if (!orv::emu::CallControl(socketPath, request, &reply, &error)) {
        std::fprintf(stderr, "orv-emu-ctl: %s\n", error.c_str());
        return 1;
    }
    std::fputs(reply.text().c_str(), stdout);
    if (reply.code() != 0) {
        std::fprintf(stderr, "orv-emu-ctl: refused (code %d)\n", reply.code());
        return 1;
    }
    return 0;
}
