// orv-emu-submit: plays any local process of the card that talks to the
// daemon through the event scheduler. It submits records as itself, through
// the emulated driver, so the scheduler names it as their sender; run it
// inside a sandbox (orv-sandbox --enter). Tests use it to forge reports and
// driver notices as a process that is none of the daemon's children would.
//
//   orv-emu-submit SUBEVENT [--to PID] [--group G] [--length N] [--count N]
//                  [--device D] [--host-pid P] [--vf V] [--proc-type T]
//                  [--event-type E] [--claim-pid S] [--word4 W]
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <driver_hal.h>

#include "orv_version.h"

namespace {

void Usage(FILE* out = stderr) {
    std::fprintf(
        out,
        "Usage: orv-emu-submit SUBEVENT [OPTIONS]\n"
        "Submits a record of event 19 with sub-event SUBEVENT to a process, as this process,\n"
        "through the emulated driver; run it inside a sandbox (orv-sandbox --enter).\n"
        "Options:\n"
        "  --to PID          the receiver (default: the process named orvdaemon)\n"
        "  --group G         the receiver's group (default 0)\n"
        "  --length N        bytes of the record (default 128)\n"
        "  --count N         submit it N times (default 1)\n"
        "  --device D --host-pid P --vf V --proc-type T --event-type E\n"
        "                    the record's words as a sub-process fills them (E defaults to\n"
        "                    SUBEVENT, T to 1)\n"
        "  --claim-pid S     the sender the record names (default: this process)\n"
        "  --word4 W         the second word, where a VF notice carries its VF id\n");
}

bool ParseNumber(const char* text, long* value) {
    char* end = nullptr;
    *value = std::strtol(text, &end, 10);
    return *text != '\0' && end != nullptr && *end == '\0';
}

// The pid of the first process whose name is `name`, or 0.
// The name a process runs under, or "" when it has gone.
std::string CommandName(long pid) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string line;
    return std::getline(comm, line) ? line : std::string();
}

// The parent of a process, or 0.
long ParentOf(long pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    // The name in brackets may hold anything; the fields after it are plain.
    size_t end = text.rfind(')');
    long parent = 0;
    if (end == std::string::npos || std::sscanf(text.c_str() + end + 1, " %*c %ld", &parent) != 1) {
        return 0;
    }
    return parent;
}

// The process named `name` whose parent is not: a program's own children
// carry its name until they execute another (the daemon's sub-processes,
// held before their exec, do), and after pids wrap one may come first.
pid_t FindProcess(const std::string& name) {
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return 0;
    }
    pid_t found = 0;
    while (dirent* entry = readdir(proc)) {
        long pid = 0;
        if (ParseNumber(entry->d_name, &pid) && CommandName(pid) == name &&
            CommandName(ParentOf(pid)) != name) {
            found = static_cast<pid_t>(pid);
            break;
        }
    }
    closedir(proc);
    return found;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 &&
        (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "--version") == 0)) {
        if (std::strcmp(argv[1], "--help") == 0) {
            Usage(stdout);
        } else {
            std::printf("orv-emu-submit %s\n", ORV_VERSION);
        }
        return 0;
    }
    long subevent = 0;
    if (argc < 2 || !ParseNumber(argv[1], &subevent)) {
        Usage();
        return 2;
    }
    std::map<std::string, long> values = {{"--to", 0},
                                          {"--group", 0},
                                          {"--length", 128},
                                          {"--count", 1},
                                          {"--device", 0},
                                          {"--host-pid", 0},
                                          {"--vf", 0},
                                          {"--proc-type", 1},
                                          {"--event-type", subevent},
                                          {"--claim-pid", getpid()},
                                          {"--word4", 0}};
    for (int i = 2; i < argc; i += 2) {
        long value = 0;
        if (values.count(argv[i]) == 0 || i + 1 >= argc || !ParseNumber(argv[i + 1], &value)) {
            Usage();
            return 2;
        }
        values[argv[i]] = value;
    }
    pid_t to = values["--to"] != 0 ? static_cast<pid_t>(values["--to"]) : FindProcess("orvdaemon");
    if (to == 0) {
        std::fprintf(stderr, "orv-emu-submit: no receiver (no orvdaemon here; give --to)\n");
        return 1;
    }
    // The record's leading words as a sub-process fills them; a VF notice
    // reads its VF id from the second word.
    std::vector<uint32_t> words = {static_cast<uint32_t>(values["--device"]),
                                   static_cast<uint32_t>(values["--claim-pid"]),
                                   static_cast<uint32_t>(to),
                                   static_cast<uint32_t>(values["--host-pid"]),
                                   static_cast<uint32_t>(values["--vf"]),
                                   static_cast<uint32_t>(values["--proc-type"]),
                                   static_cast<uint32_t>(values["--event-type"])};
    if (values["--word4"] != 0) {
        words[1] = static_cast<uint32_t>(values["--word4"]);
    }
    std::string record(
        static_cast<size_t>(std::clamp(values["--length"], 0L, long{EVENT_MAX_MSG_LEN})), '\0');
    std::memcpy(record.data(), words.data(),
                std::min(record.size(), words.size() * sizeof(uint32_t)));
    event_summary summary{};
    summary.dst_pid = to;
    summary.grp_id = static_cast<uint32_t>(values["--group"]);
    summary.event_id = EVENT_CCPU_CTRL_MSG;
    summary.subevent_id = static_cast<uint32_t>(subevent);
    summary.msg = record.data();
    summary.msg_len = static_cast<uint32_t>(record.size());
    summary.dst_engine = EVENT_DST_ENGINE_CCPU;
    long sent = 0;
    drvError_t rc = DRV_ERROR_NONE;
    for (long i = 0; i < values["--count"]; ++i) {
        rc = halEschedSubmitEvent(0, &summary);
        if (rc != DRV_ERROR_NONE) {
            break;
        }
        ++sent;
    }
    std::printf("submitted %ld of %ld, last result %d\n", sent, values["--count"], rc);
    return rc == DRV_ERROR_NONE ? 0 : 1;
}
