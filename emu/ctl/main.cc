// orv-emu-ctl: drives a running card emulator through its control socket, and
// shows the card's state (status).
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "emu/ctl/card_status.h"
#include "emu/ctl/control_client.h"
#include "emu/ctl/status_render.h"
#include "orv_version.h"

namespace {

void Usage(FILE* out = stderr) {
    std::fprintf(
        out,
        "Usage: orv-emu-ctl (--state DIR | --socket PATH) COMMAND [ARGS]\n"
        "Commands:\n"
        "  status [--json] [--watch [--interval MS]]\n"
        "                             (with --state) the card as a tree: devices and their\n"
        "                             control CPUs; per device the VFs (package watcher, "
        "installed\n"
        "                             package and its check code, memory limit and usage); per VF\n"
        "                             the host processes with a session (host pid, HDC sessions,\n"
        "                             what runs, since when) and their sub-processes (kind, pid,\n"
        "                             state). --json prints the same for scripts; --watch redraws\n"
        "                             it every MS (default 1000) until interrupted\n"
        "  devices                    show the device table\n"
        "  groups                     list buffer groups, their members and recycled pids\n"
        "  appmon                     list the app monitor's clients\n"
        "  processes                  list processes bound to host processes\n"
        "  faults                     list armed faults and delays\n"
        "  fail CALL CODE [COUNT]     make the next COUNT (default 1) calls of CALL return CODE;\n"
        "                             CALL is a driver HAL function (drvGetDevNum, halGrpAttach,\n"
        "                             halVerifyImg, ...)\n"
        "                             or an app-monitor call (appmon_client_register, ...); the\n"
        "                             emulator's stand-ins never take a fault, real programs do\n"
        "  slow CALL MS [COUNT]       make the next COUNT (default 1) calls of the driver HAL "
        "function\n"
        "                             CALL answer MS milliseconds late (the call's work is done "
        "at\n"
        "                             once; only its caller waits), to widen a race on purpose\n"
        "  clear-faults               disarm every fault and delay\n"
        "  vf create|destroy ID [--length N] [--timeout MS]\n"
        "                             the driver tells the daemon that VF ID was created or "
        "destroyed\n"
        "                             (a notice of N bytes; 16 by default) and prints the "
        "daemon's\n"
        "                             acknowledgement, 0 or -1, alone on the last line\n"
        "  vf-script-faults [create] [destroy]\n"
        "                             make those VF scripts fail; with neither, both work again\n"
        "  standin KIND BEHAVIOUR [DELAY_MS]\n"
        "                             how stand-ins of KIND (zarn, compute, custom, queue) behave "
        "from\n"
        "                             their next start: normal, no-start, delay-start, crash,\n"
        "                             stay-after-close, ignore-close, kernel-timeout, ask-custom,\n"
        "                             flood (DELAY_MS more start reports)\n"
        "  standins                   the stand-ins' behaviours\n"
        "  events                     the most recent event traffic\n"
        "  group create NAME [--device D --vf N]\n"
        "                             a buffer group of the card, shared by every tenant, or\n"
        "                             one that belongs to device D's VF N\n"
        "  group add NAME PID         grant process PID (a host process, say) access to group "
        "NAME\n"
        "  inject-event SUBEVENT [--length N] [--group G] [--host-pid P] [--device D] [--vf V]\n"
        "               [--proc-type T] [--event-type E] [--src-pid S]\n"
        "                             put a record of N bytes (default 128) into the daemon's "
        "queue of\n"
        "                             group G, as a sub-process would send it\n");
}

bool ParseNumber(const std::string& text, long* value) {
    char* end = nullptr;
    *value = std::strtol(text.c_str(), &end, 10);
    return !text.empty() && end != nullptr && *end == '\0';
}

volatile sig_atomic_t g_stop = 0;

void OnStop(int) {
    g_stop = 1;
}

// The status view, once or (--watch) redrawn in place until interrupted.
int Status(const std::string& stateDir, const std::vector<std::string>& options) {
    bool json = false;
    bool watch = false;
    long intervalMs = 1000;
    for (size_t i = 0; i < options.size(); ++i) {
        if (options[i] == "--json") {
            json = true;
        } else if (options[i] == "--watch") {
            watch = true;
        } else if (options[i] == "--interval" && i + 1 < options.size() &&
                   ParseNumber(options[i + 1], &intervalMs) && intervalMs > 0) {
            ++i;
        } else {
            Usage();
            return 2;
        }
    }
    if (stateDir.empty()) {
        std::fprintf(stderr,
                     "orv-emu-ctl: status reads the sandbox's files too: give --state DIR\n");
        return 2;
    }
    auto render = [&] {
        orv::emu::CardView view = orv::emu::ReadCardView(stateDir);
        return std::make_pair(view.error.empty(), json ? orv::emu::RenderStatusJson(view)
                                                       : orv::emu::RenderStatusTree(view));
    };
    if (!watch) {
        auto [ok, text] = render();
        std::fputs(text.c_str(), stdout);
        return ok ? 0 : 1;
    }
    struct sigaction stop {};
    stop.sa_handler = OnStop;
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);
    bool terminal = ::isatty(STDOUT_FILENO) == 1;
    while (g_stop == 0) {
        std::string text = render().second;
        // Home and clear below, as top does; JSON and pipes get one document a round.
        if (terminal && !json) {
            text = "\033[H\033[2J" + text;
        }
        std::fputs(text.c_str(), stdout);
        std::fflush(stdout);
        for (long waited = 0; waited < intervalMs && g_stop == 0; waited += 50) {
            ::usleep(static_cast<useconds_t>(std::min(50L, intervalMs - waited) * 1000));
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string socketPath;
    std::string stateDir;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if ((arg == "--state" || arg == "--socket") && i + 1 < argc) {
            if (arg == "--state") {
                stateDir = argv[i + 1];
            }
            socketPath = arg == "--state" ? orv::emu::ControlSocketOfState(argv[++i]) : argv[++i];
        } else if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            return 0;
        } else if (arg == "--version") {
            std::printf("orv-emu-ctl %s\n", ORV_VERSION);
            return 0;
        } else {
            words.push_back(arg);
        }
    }
    if (socketPath.empty() || words.empty()) {
        Usage();
        return 2;
    }

    if (words[0] == "status") {
        return Status(stateDir, std::vector<std::string>(words.begin() + 1, words.end()));
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
    } else if (command == "group" && words.size() >= 3 &&
               (words[1] == "create" || words[1] == "add")) {
        auto* setup = request.mutable_group_setup();
        setup->set_name(words[2]);
        long pid = 0;
        long device = 0;
        long vf = 0;
        if (words[1] == "create" && words.size() == 3) {
            setup->set_create(true);
        } else if (words[1] == "create" && words.size() == 7 && words[3] == "--device" &&
                   words[5] == "--vf" && ParseNumber(words[4], &device) &&
                   ParseNumber(words[6], &vf)) {
            setup->set_create(true);
            setup->set_tenant(true);
            setup->set_device_id(static_cast<uint32_t>(device));
            setup->set_vf_id(static_cast<uint32_t>(vf));
        } else if (words[1] == "add" && words.size() == 4 && ParseNumber(words[3], &pid)) {
            setup->set_add_pid(static_cast<int32_t>(pid));
        } else {
            Usage();
            return 2;
        }
    } else if (command == "inject-event" && words.size() >= 2) {
        long subevent = 0;
        if (!ParseNumber(words[1], &subevent)) {
            Usage();
            return 2;
        }
        std::map<std::string, long> values = {
            {"--length", 128}, {"--group", 0},     {"--host-pid", 0},          {"--device", 0},
            {"--vf", 0},       {"--proc-type", 1}, {"--event-type", subevent}, {"--src-pid", 0}};
        for (size_t i = 2; i < words.size(); i += 2) {
            long value = 0;
            if (values.count(words[i]) == 0 || i + 1 >= words.size() ||
                !ParseNumber(words[i + 1], &value)) {
                Usage();
                return 2;
            }
            values[words[i]] = value;
        }
        // The record's leading words as a sub-process fills them.
        std::vector<uint32_t> record = {static_cast<uint32_t>(values["--device"]),
                                        static_cast<uint32_t>(values["--src-pid"]),
                                        0,
                                        static_cast<uint32_t>(values["--host-pid"]),
                                        static_cast<uint32_t>(values["--vf"]),
                                        static_cast<uint32_t>(values["--proc-type"]),
                                        static_cast<uint32_t>(values["--event-type"])};
        std::string msg(static_cast<size_t>(std::max(0L, values["--length"])), '\0');
        std::memcpy(msg.data(), record.data(),
                    std::min(msg.size(), record.size() * sizeof(uint32_t)));
        auto* event = request.mutable_inject_event();
        event->set_grp_id(static_cast<uint32_t>(values["--group"]));
        event->set_subevent_id(static_cast<uint32_t>(subevent));
        event->set_msg(msg);
        event->set_src_pid(static_cast<int32_t>(values["--src-pid"]));
    } else if (command == "events" && words.size() == 1) {
        request.mutable_show_events();
    } else if (command == "standins" && words.size() == 1) {
        request.mutable_show_standins();
    } else if (command == "standin" && (words.size() == 3 || words.size() == 4)) {
        static const char* const kKinds[] = {"zarn", "compute", "custom", "queue"};
        long kind = -1;
        for (long k = 0; k < 4; ++k) {
            if (words[1] == kKinds[k]) {
                kind = k;
            }
        }
        long delay = 0;
        if (kind < 0 || (words.size() == 4 && (!ParseNumber(words[3], &delay) || delay < 0))) {
            std::fprintf(
                stderr, "orv-emu-ctl: KIND is zarn, compute, custom or queue; DELAY_MS a number\n");
            return 2;
        }
        auto* set = request.mutable_set_standin();
        set->set_kind(static_cast<uint32_t>(kind));
        set->set_behaviour(words[2]);
        set->set_delay_ms(static_cast<uint32_t>(delay));
    } else if (command == "vf-script-faults" && words.size() <= 3) {
        auto* faults = request.mutable_vf_script_faults();
        for (size_t i = 1; i < words.size(); ++i) {
            if (words[i] == "create") {
                faults->set_fail_create(true);
            } else if (words[i] == "destroy") {
                faults->set_fail_destroy(true);
            } else {
                Usage();
                return 2;
            }
        }
    } else if (command == "vf" && words.size() >= 3 &&
               (words[1] == "create" || words[1] == "destroy")) {
        auto* change = request.mutable_vf_change();
        change->set_create(words[1] == "create");
        long id = 0;
        if (!ParseNumber(words[2], &id)) {
            std::fprintf(stderr, "orv-emu-ctl: ID must be a number\n");
            return 2;
        }
        change->set_vf_id(id);
        for (size_t i = 3; i + 1 < words.size() || i < words.size(); i += 2) {
            long value = 0;
            if (i + 1 >= words.size() || !ParseNumber(words[i + 1], &value) || value < 0) {
                Usage();
                return 2;
            }
            if (words[i] == "--length") {
                change->set_msg_len(static_cast<uint32_t>(value));
            } else if (words[i] == "--timeout") {
                change->set_timeout_ms(static_cast<uint32_t>(value));
            } else {
                Usage();
                return 2;
            }
        }
    } else if (command == "fail" && (words.size() == 3 || words.size() == 4)) {
        long code = 0;
        long count = 1;
        if (!ParseNumber(words[2], &code) ||
            (words.size() == 4 && (!ParseNumber(words[3], &count) || count < 0))) {
            std::fprintf(stderr, "orv-emu-ctl: CODE and COUNT must be numbers\n");
            return 2;
        }
        auto* fault = request.mutable_inject_fault();
        fault->set_call(words[1]);
        fault->set_code(static_cast<int32_t>(code));
        fault->set_count(static_cast<uint32_t>(count));
    } else if (command == "slow" && (words.size() == 3 || words.size() == 4)) {
        long delayMs = 0;
        long count = 1;
        if (!ParseNumber(words[2], &delayMs) || delayMs < 0 ||
            (words.size() == 4 && (!ParseNumber(words[3], &count) || count < 0))) {
            std::fprintf(stderr, "orv-emu-ctl: MS and COUNT must be numbers\n");
            return 2;
        }
        auto* delay = request.mutable_inject_delay();
        delay->set_call(words[1]);
        delay->set_delay_ms(static_cast<uint32_t>(delayMs));
        delay->set_count(static_cast<uint32_t>(count));
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
