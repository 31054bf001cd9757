// The sub-process stand-in: one program installed under the names of the four
// sub-process programs. It records how it was started (argv, environment, CPU
// affinity, buffer groups) and what it receives in /run/orv-stub/<pid>.txt,
// reports to its parent (the daemon) through the event scheduler, and behaves
// as the card emulator says for its kind (orv-emu-ctl standin ...).
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <driver_hal.h>

#include "emu/common/emu_paths.h"
#include "emu/driver/card_client.h"
#include "event/orv_event_interface.h"

extern char** environ;

namespace {

using orv::OrvCustStartEventInfo;
using orv::OrvSubEventInfo;

constexpr char kRecordDir[] = "/run/orv-stub";
constexpr uint32_t kEventDevice = 0;
// Where this process receives control events from the daemon, and tasks.
constexpr uint32_t kControlGroup = 30;
constexpr uint32_t kTaskGroup = 0;
constexpr uint64_t kTaskMask = 1ULL << EVENT_CPU_TASK_MSG;
constexpr int32_t kWaitMs = 1000;
constexpr uint32_t kProfilingCompute = 4;
constexpr uint32_t kProfilingCustom = 12;
constexpr uint32_t kLoadSo = 11;
constexpr uint32_t kKindZarn = 0;
constexpr uint32_t kKindCompute = 1;
constexpr uint32_t kKindCustom = 2;
constexpr uint32_t kKindQueue = 3;

struct Options {
    uint32_t kind = 1;
    uint32_t deviceId = 0;
    int32_t vfId = 0;
    uint32_t hostPid = 0;
    // Its command line names buffer groups (the compute's list, the queue's
    // group): the daemon has granted them before it could run.
    bool inGroups = false;
};

// The record, open for appending once it is written: each note is one write.
std::atomic<int> g_recordFd{-1};
std::atomic<bool> g_customStarted{false};

std::string RecordPath() {
    return std::string(kRecordDir) + "/" + std::to_string(getpid()) + ".txt";
}

std::string OneLine(const std::string& text) {
    std::string s = text;
    for (char& c : s) {
        if (c == '\n') {
            c = ' ';
        }
    }
    return s;
}

// Appends one line to the record, in one write.
void Note(const std::string& line) {
    std::string text = OneLine(line) + "\n";
    int fd = g_recordFd.load();
    if (fd >= 0) {
        (void)!write(fd, text.data(), text.size());
    }
}

std::string Argument(int argc, char** argv, const std::string& flag) {
    const std::string prefix = "--" + flag + "=";
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], prefix.c_str(), prefix.size()) == 0) {
            return argv[i] + prefix.size();
        }
    }
    return std::string();
}

uint32_t KindOf(const char* argv0) {
    std::string name = argv0;
    name = name.substr(name.find_last_of('/') + 1);
    if (name == "zarn_service.bin") {
        return kKindZarn;
    }
    if (name.compare(0, 19, "aicpu_custom_runner") == 0) {
        return kKindCustom;
    }
    if (name == "queue_runner") {
        return kKindQueue;
    }
    return kKindCompute;
}

// This process's buffer groups, as "NAME PERMISSIONS".
std::vector<std::string> OwnGroups() {
    std::vector<std::string> groups;
    int32_t self = getpid();
    GroupQueryEntry entries[64];
    uint32_t length = sizeof(entries);
    if (halGrpQuery(GRP_QUERY_GROUPS_OF_PROCESS, &self, sizeof(self), entries, &length) == DRV_ERROR_NONE) {
        for (uint32_t i = 0; i < length / sizeof(GroupQueryEntry); ++i) {
            groups.push_back(std::string(entries[i].name, strnlen(entries[i].name, sizeof(entries[i].name))) + " " +
                             std::to_string(entries[i].permissions));
        }
    }
    return groups;
}

// The descriptors beyond the standard three that this process was started
// with, as "N -> what": a launch should pass on none.
std::vector<std::string> InheritedDescriptors() {
    std::vector<std::string> inherited;
    DIR* fds = opendir("/proc/self/fd");
    if (fds == nullptr) {
        return inherited;
    }
    while (dirent* entry = readdir(fds)) {
        int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd <= 2 || fd == dirfd(fds)) {
            continue;
        }
        char target[4096] = {0};
        std::string link = std::string("/proc/self/fd/") + entry->d_name;
        (void)!readlink(link.c_str(), target, sizeof(target) - 1);
        inherited.push_back(std::string(entry->d_name) + " -> " + target);
    }
    closedir(fds);
    return inherited;
}

void WriteStartRecord(int argc, char** argv, const Options& options, const std::vector<std::string>& inherited) {
    std::string record = "pid " + std::to_string(getpid()) + "\nppid " + std::to_string(getppid()) + "\nkind " +
                         std::to_string(options.kind) + "\n";
    char exe[4096] = {0};
    if (readlink("/proc/self/exe", exe, sizeof(exe) - 1) > 0) {
        record += std::string("exe ") + exe + "\n";
    }
    for (int i = 0; i < argc; ++i) {
        record += "argv " + OneLine(argv[i]) + "\n";
    }
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        record += "env " + OneLine(*e) + "\n";
    }
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    if (sched_getaffinity(0, sizeof(cpus), &cpus) == 0) {
        for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &cpus)) {
                record += "affinity " + std::to_string(cpu) + "\n";
            }
        }
    }
    // The daemon grants a process its groups before letting it exec: they are
    // all there from the start. A process named none has none to look for.
    for (const std::string& group : options.inGroups ? OwnGroups() : std::vector<std::string>()) {
        record += "group " + group + "\n";
    }
    for (const std::string& descriptor : inherited) {
        record += "inherited " + descriptor + "\n";
    }
    // Written under another name and renamed, so that a reader sees it whole.
    std::string path = RecordPath();
    std::string tmp = path + ".tmp";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return;
    }
    if (write(fd, record.data(), record.size()) == static_cast<ssize_t>(record.size()) &&
        rename(tmp.c_str(), path.c_str()) == 0) {
        g_recordFd = fd;
    } else {
        close(fd);
    }
}

// This kind's behaviour, from the table the card publishes beside its driver
// socket; "normal" when there is none.
void ReadBehaviour(uint32_t kind, std::string* behaviour, uint32_t* delayMs) {
    std::ifstream board(orv::emu::StandinBoardOfDriverSocket(
        orv::emu::EnvOr(orv::emu::kCardSocketEnv, orv::emu::kDefaultCardSocket)));
    uint32_t tableKind = 0;
    std::string tableBehaviour;
    uint32_t tableDelay = 0;
    while (board >> tableKind >> tableBehaviour >> tableDelay) {
        if (tableKind == kind) {
            *behaviour = tableBehaviour;
            *delayMs = tableDelay;
            return;
        }
    }
}

// Submits a record to the parent (the daemon) on the group of this device.
drvError_t SubmitToParent(const Options& options, uint32_t subEvent, const void* record, size_t length) {
    event_summary summary{};
    summary.dst_pid = static_cast<int32_t>(getppid());
    summary.grp_id = options.deviceId;
    summary.event_id = EVENT_CCPU_CTRL_MSG;
    summary.subevent_id = subEvent;
    summary.msg = static_cast<const char*>(record);
    summary.msg_len = static_cast<uint32_t>(length);
    summary.dst_engine = EVENT_DST_ENGINE_CCPU;
    return halEschedSubmitEvent(kEventDevice, &summary);
}

// Submits one report. The sub-event is the record's kind, except for a kernel
// time-out, which rides the report channel (sub-event 0): the daemon routes
// sub-events 0, 1, 2 and 6 and reads the kind from the record.
drvError_t Submit(const Options& options, uint32_t eventType, uint32_t procTypeWord, uint32_t payloadWord = 0) {
    OrvSubEventInfo record;
    std::memset(&record, 0, sizeof(record));
    record.deviceId = options.deviceId;
    record.srcPid = static_cast<uint32_t>(getpid());
    record.dstPid = static_cast<uint32_t>(getppid());
    record.hostPid = options.hostPid;
    record.vfId = options.vfId;
    record.procType = procTypeWord;
    record.eventType = eventType;
    record.payloadWord = payloadWord;
    uint32_t subEvent = eventType == orv::ORV_SUB_EVENT_ABNORMAL ? orv::ORV_SUB_EVENT_START : eventType;
    return SubmitToParent(options, subEvent, &record, sizeof(record));
}

// Submits one report and notes how it went.
void Report(const Options& options, uint32_t eventType, uint32_t procTypeWord, uint32_t payloadWord = 0) {
    drvError_t rc = Submit(options, eventType, procTypeWord, payloadWord);
    Note("sent " + std::to_string(eventType) + " rc " + std::to_string(rc));
}

void AskForCustom(const Options& options) {
    OrvCustStartEventInfo request;
    std::memset(&request, 0, sizeof(request));
    request.deviceId = options.deviceId;
    request.srcPid = static_cast<uint32_t>(getpid());
    request.dstPid = static_cast<uint32_t>(getppid());
    request.hostPid = options.hostPid;
    request.vfId = options.vfId;
    request.procType = options.kind;
    request.eventType = orv::ORV_SUB_EVENT_CUST_START;
    request.groupNum = 0;
    drvError_t rc = SubmitToParent(options, orv::ORV_SUB_EVENT_CUST_START, &request, sizeof(request));
    Note("asked for custom rc " + std::to_string(rc));
}

// Control events from the daemon: close requests and custom-start replies.
void ControlLoop(const Options& options, const std::string& behaviour) {
    for (;;) {
        event_info event;
        drvError_t rc = halEschedWaitEvent(kEventDevice, kControlGroup, 0, kWaitMs, &event);
        if (rc == DRV_ERROR_WAIT_TIMEOUT) {
            continue;
        }
        if (rc != DRV_ERROR_NONE) {
            Note("control wait ended rc " + std::to_string(rc));
            return;
        }
        if (event.msg_len < sizeof(OrvSubEventInfo)) {
            continue;
        }
        OrvSubEventInfo record;
        std::memcpy(&record, event.msg, sizeof(record));
        if (event.subevent_id == orv::ORV_SUB_EVENT_CLOSE_REQ) {
            Note("close_request");
            if (behaviour == "ignore-close") {
                continue;
            }
            Report(options, orv::ORV_SUB_EVENT_CLOSE, options.kind);
            if (behaviour != "stay-after-close") {
                _exit(0);
            }
        } else if (event.subevent_id == orv::ORV_SUB_EVENT_CUST_STARTED) {
            g_customStarted = true;
            Note("custom_started " + std::to_string(record.payloadWord));
            // Have the custom process load a shared object, as a compute process would.
            OrvSubEventInfo load;
            std::memset(&load, 0, sizeof(load));
            std::snprintf(load.payload, sizeof(load.payload), "libcust_op.so");
            event_summary summary{};
            load.deviceId = options.deviceId;
            load.srcPid = static_cast<uint32_t>(getpid());
            load.dstPid = static_cast<uint32_t>(getppid());
            load.hostPid = options.hostPid;
            load.vfId = options.vfId;
            load.procType = options.kind;
            load.eventType = orv::ORV_SUB_EVENT_LOAD_SO;
            summary.dst_pid = static_cast<int32_t>(getppid());
            summary.grp_id = options.deviceId;
            summary.event_id = EVENT_CCPU_CTRL_MSG;
            summary.subevent_id = orv::ORV_SUB_EVENT_LOAD_SO;
            summary.msg = reinterpret_cast<const char*>(&load);
            summary.msg_len = sizeof(load);
            summary.dst_engine = EVENT_DST_ENGINE_CCPU;
            Note("sent load_so rc " + std::to_string(halEschedSubmitEvent(kEventDevice, &summary)));
        } else {
            Note("control event " + std::to_string(event.subevent_id));
        }
    }
}

// Tasks for compute processes: profiling updates and shared-object loads.
void TaskLoop() {
    for (;;) {
        event_info event;
        drvError_t rc = halEschedWaitEvent(kEventDevice, kTaskGroup, 0, kWaitMs, &event);
        if (rc == DRV_ERROR_WAIT_TIMEOUT) {
            continue;
        }
        if (rc != DRV_ERROR_NONE) {
            return;
        }
        if (event.subevent_id == kProfilingCompute || event.subevent_id == kProfilingCustom) {
            uint32_t words[4] = {0, 0, 0, 0};
            std::memcpy(words, event.msg, std::min<size_t>(event.msg_len, sizeof(words)));
            Note("profiling " + std::to_string(words[3]) + " host_pid " + std::to_string(words[2]) + " sub " +
                 std::to_string(event.subevent_id));
        } else if (event.subevent_id == kLoadSo) {
            Note("load_so " + std::string(event.msg, strnlen(event.msg, event.msg_len)) + " len " +
                 std::to_string(event.msg_len));
        } else {
            Note("task event " + std::to_string(event.subevent_id));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    // First, before this process opens anything of its own.
    const std::vector<std::string> inherited = InheritedDescriptors();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);

    orv::emu::CardClient::Instance().ExemptFromFaults();
    Options options;
    options.kind = KindOf(argv[0]);
    options.deviceId = static_cast<uint32_t>(std::strtoul(Argument(argc, argv, "deviceId").c_str(), nullptr, 10));
    options.vfId = static_cast<int32_t>(std::strtol(Argument(argc, argv, "vfId").c_str(), nullptr, 10));
    options.hostPid = static_cast<uint32_t>(std::strtoul(Argument(argc, argv, "pid").c_str(), nullptr, 10));
    options.inGroups = !Argument(argc, argv, "groupNameList").empty() || !Argument(argc, argv, "qsInitGroupName").empty();
    WriteStartRecord(argc, argv, options, inherited);

    std::string behaviour = "normal";
    uint32_t delayMs = 0;
    ReadBehaviour(options.kind, &behaviour, &delayMs);
    Note("behaviour " + behaviour + " delay_ms " + std::to_string(delayMs));

    if (halEschedAttachDevice(kEventDevice) != DRV_ERROR_NONE ||
        halEschedCreateGrp(kEventDevice, kControlGroup, GRP_TYPE_BIND_CP_CPU) != DRV_ERROR_NONE ||
        halEschedCreateGrp(kEventDevice, kTaskGroup, GRP_TYPE_BIND_CP_CPU) != DRV_ERROR_NONE ||
        halEschedSubscribeEvent(kEventDevice, kControlGroup, 0, 1ULL << EVENT_CCPU_CTRL_MSG) != DRV_ERROR_NONE ||
        halEschedSubscribeEvent(kEventDevice, kTaskGroup, 0, kTaskMask) != DRV_ERROR_NONE) {
        Note("event scheduler set-up failed");
        return 1;
    }
    // Events for this process wait in its groups from the subscriptions on:
    // the control loop may start after the report; the main thread takes the
    // tasks at the end.
    auto listen = [&] {
        std::thread control([&] { ControlLoop(options, behaviour); });
        control.detach();
    };
    auto sleepDelay = [delayMs] { std::this_thread::sleep_for(std::chrono::milliseconds(delayMs)); };
    if (behaviour == "no-start") {
        listen();
        Note("not reporting start");
    } else {
        if (behaviour == "delay-start") {
            sleepDelay();
        }
        Report(options, orv::ORV_SUB_EVENT_START, options.kind);
        listen();
        if (behaviour == "crash") {
            sleepDelay();
            Note("crashing");
            // Death by a signal, as a crash ends a process. SIGABRT rather
            // than SIGSEGV: a sanitized build of the stand-in would report a
            // SIGSEGV as a fault of its own.
            raise(SIGABRT);
        } else if (behaviour == "kernel-timeout") {
            sleepDelay();
            Report(options, orv::ORV_SUB_EVENT_ABNORMAL, options.kind);
        } else if (behaviour == "flood") {
            // A sub-process gone wrong: the same report, over and over.
            for (uint32_t i = 0; i < delayMs; ++i) {
                Submit(options, orv::ORV_SUB_EVENT_START, options.kind);
            }
            Note("flooded " + std::to_string(delayMs));
        } else if (behaviour == "ask-custom" && options.kind == kKindCompute) {
            sleepDelay();
            AskForCustom(options);
            // A second request once the custom process runs must change nothing.
            while (!g_customStarted) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            AskForCustom(options);
        }
    }
    TaskLoop();
    for (;;) {
        pause();
    }
}
