#include "emu/stub/standin.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "emu/common/emu_paths.h"
#include "emu/driver/card_client.h"
#include "event/orv_event_interface.h"

extern char** environ;

namespace orv::emu {

namespace {

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
        return kStandinZarn;
    }
    if (name.compare(0, 19, "aicpu_custom_runner") == 0) {
        return kStandinCustom;
    }
    if (name == "queue_runner") {
        return kStandinQueue;
    }
    return kStandinCompute;
}

// This process's buffer groups, as "NAME PERMISSIONS".
std::vector<std::string> OwnGroups() {
    std::vector<std::string> groups;
    int32_t self = getpid();
    GroupQueryEntry entries[64];
    uint32_t length = sizeof(entries);
    if (halGrpQuery(GRP_QUERY_GROUPS_OF_PROCESS, &self, sizeof(self), entries, &length) ==
        DRV_ERROR_NONE) {
        for (uint32_t i = 0; i < length / sizeof(GroupQueryEntry); ++i) {
            groups.push_back(
                std::string(entries[i].name, strnlen(entries[i].name, sizeof(entries[i].name))) +
                " " + std::to_string(entries[i].permissions));
        }
    }
    return groups;
}

}  // namespace

// The card's control socket accepts the same names (StandinTable::kBehaviours).
const Standin::Behaviour Standin::kBehaviours[] = {
    // The first row is the one a name the table lacks gets.
    {"normal", StartReport::kAtOnce, nullptr, CloseAnswer::kReportAndExit},
    {"no-start", StartReport::kNone, nullptr, CloseAnswer::kReportAndExit},
    {"delay-start", StartReport::kAfterDelay, nullptr, CloseAnswer::kReportAndExit},
    {"crash", StartReport::kAtOnce, &Standin::Crash, CloseAnswer::kReportAndExit},
    {"stay-after-close", StartReport::kAtOnce, nullptr, CloseAnswer::kReportAndStay},
    {"ignore-close", StartReport::kAtOnce, nullptr, CloseAnswer::kIgnore},
    {"kernel-timeout", StartReport::kAtOnce, &Standin::KernelTimeout, CloseAnswer::kReportAndExit},
    {"ask-custom", StartReport::kAtOnce, &Standin::AskCustomTwice, CloseAnswer::kReportAndExit},
    {"flood", StartReport::kAtOnce, &Standin::Flood, CloseAnswer::kReportAndExit},
};

StandinOptions ParseStandinOptions(int argc, char** argv) {
    StandinOptions options;
    options.kind = KindOf(argv[0]);
    options.deviceId =
        static_cast<uint32_t>(std::strtoul(Argument(argc, argv, "deviceId").c_str(), nullptr, 10));
    options.vfId =
        static_cast<int32_t>(std::strtol(Argument(argc, argv, "vfId").c_str(), nullptr, 10));
    options.hostPid =
        static_cast<uint32_t>(std::strtoul(Argument(argc, argv, "pid").c_str(), nullptr, 10));
    options.inGroups = !Argument(argc, argv, "groupNameList").empty() ||
                       !Argument(argc, argv, "qsInitGroupName").empty();
    return options;
}

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

Standin::Standin(const StandinOptions& options) : options_(options), behaviour_(&kBehaviours[0]) {}

void Standin::Note(const std::string& line) {
    std::string text = OneLine(line) + "\n";
    int fd = recordFd_.load();
    if (fd >= 0) {
        (void)!write(fd, text.data(), text.size());
    }
}

void Standin::WriteStartRecord(int argc, char** argv, const std::vector<std::string>& inherited) {
    std::string record = "pid " + std::to_string(getpid()) + "\nppid " + std::to_string(getppid()) +
                         "\nkind " + std::to_string(options_.kind) + "\n";
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
    for (const std::string& group : options_.inGroups ? OwnGroups() : std::vector<std::string>()) {
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
        recordFd_ = fd;
    } else {
        close(fd);
    }
}

void Standin::ChooseBehaviour() {
    std::ifstream board(StandinBoardOfDriverSocket(EnvOr(kCardSocketEnv, kDefaultCardSocket)));
    uint32_t tableKind = 0;
    std::string tableBehaviour;
    uint32_t tableDelay = 0;
    while (board >> tableKind >> tableBehaviour >> tableDelay) {
        if (tableKind == options_.kind) {
            behaviourName_ = tableBehaviour;
            delayMs_ = tableDelay;
            break;
        }
    }
    for (const Behaviour& behaviour : kBehaviours) {
        if (behaviourName_ == behaviour.name) {
            behaviour_ = &behaviour;
        }
    }
    Note("behaviour " + behaviourName_ + " delay_ms " + std::to_string(delayMs_));
}

bool Standin::SetUpEvents() {
    if (halEschedAttachDevice(kEventDevice) != DRV_ERROR_NONE ||
        halEschedCreateGrp(kEventDevice, kControlGroup, GRP_TYPE_BIND_CP_CPU) != DRV_ERROR_NONE ||
        halEschedCreateGrp(kEventDevice, kTaskGroup, GRP_TYPE_BIND_CP_CPU) != DRV_ERROR_NONE ||
        halEschedSubscribeEvent(kEventDevice, kControlGroup, 0, 1ULL << EVENT_CCPU_CTRL_MSG) !=
            DRV_ERROR_NONE ||
        halEschedSubscribeEvent(kEventDevice, kTaskGroup, 0, kTaskMask) != DRV_ERROR_NONE) {
        Note("event scheduler set-up failed");
        return false;
    }
    // The scheduler queues events for this process from here on; it refused
    // them until now.
    Note("listening");
    return true;
}

void Standin::Run() {
    // The control loop listens before the start is reported, as a process
    // ready to serve would: a close request right after the start finds it
    // waiting, rather than setting itself up. A close that comes sooner is
    // answered once the start is reported, never before. The calling thread
    // takes the tasks at the end.
    std::thread([this] { ControlLoop(); }).detach();
    if (behaviour_->start == StartReport::kNone) {
        Note("not reporting start");
        StartSettled();
    } else {
        if (behaviour_->start == StartReport::kAfterDelay) {
            SleepDelay();
        }
        Report(ORV_SUB_EVENT_START, options_.kind);
        StartSettled();
        if (behaviour_->afterStart != nullptr) {
            (this->*behaviour_->afterStart)();
        }
    }
    TaskLoop();
}

drvError_t Standin::SubmitToParent(uint32_t subEvent, const void* record, size_t length) {
    event_summary summary{};
    summary.dst_pid = static_cast<int32_t>(getppid());
    summary.grp_id = options_.deviceId;
    summary.event_id = EVENT_CCPU_CTRL_MSG;
    summary.subevent_id = subEvent;
    summary.msg = static_cast<const char*>(record);
    summary.msg_len = static_cast<uint32_t>(length);
    summary.dst_engine = EVENT_DST_ENGINE_CCPU;
    return halEschedSubmitEvent(kEventDevice, &summary);
}

// The sub-event is the record's kind, except for a kernel time-out, which
// rides the report channel (sub-event 0): the daemon routes sub-events 0, 1,
// 2 and 6 and reads the kind from the record.
drvError_t Standin::Submit(uint32_t eventType, uint32_t procTypeWord) {
    OrvSubEventInfo record;
    std::memset(&record, 0, sizeof(record));
    record.deviceId = options_.deviceId;
    record.srcPid = static_cast<uint32_t>(getpid());
    record.dstPid = static_cast<uint32_t>(getppid());
    record.hostPid = options_.hostPid;
    record.vfId = options_.vfId;
    record.procType = procTypeWord;
    record.eventType = eventType;
    uint32_t subEvent = eventType == ORV_SUB_EVENT_ABNORMAL ? ORV_SUB_EVENT_START : eventType;
    return SubmitToParent(subEvent, &record, sizeof(record));
}

void Standin::Report(uint32_t eventType, uint32_t procTypeWord) {
    drvError_t rc = Submit(eventType, procTypeWord);
    Note("sent " + std::to_string(eventType) + " rc " + std::to_string(rc));
}

void Standin::AskForCustom() {
    OrvCustStartEventInfo request;
    std::memset(&request, 0, sizeof(request));
    request.deviceId = options_.deviceId;
    request.srcPid = static_cast<uint32_t>(getpid());
    request.dstPid = static_cast<uint32_t>(getppid());
    request.hostPid = options_.hostPid;
    request.vfId = options_.vfId;
    request.procType = options_.kind;
    request.eventType = ORV_SUB_EVENT_CUST_START;
    request.groupNum = 0;
    drvError_t rc = SubmitToParent(ORV_SUB_EVENT_CUST_START, &request, sizeof(request));
    Note("asked for custom rc " + std::to_string(rc));
}

void Standin::SleepDelay() const {
    std::this_thread::sleep_for(std::chrono::milliseconds(delayMs_));
}

void Standin::Crash() {
    SleepDelay();
    Note("crashing");
    // Death by a signal, as a crash ends a process. SIGABRT rather than
    // SIGSEGV: a sanitized build of the stand-in would report a SIGSEGV as a
    // fault of its own.
    raise(SIGABRT);
}

void Standin::KernelTimeout() {
    SleepDelay();
    Report(ORV_SUB_EVENT_ABNORMAL, options_.kind);
}

// A sub-process gone wrong: the same report, over and over, as many times as
// the delay says.
void Standin::Flood() {
    uint32_t accepted = 0;
    for (uint32_t i = 0; i < delayMs_; ++i) {
        accepted += Submit(ORV_SUB_EVENT_START, options_.kind) == DRV_ERROR_NONE ? 1 : 0;
    }
    // The card queues only so many reports from one sender at once.
    Note("flooded " + std::to_string(delayMs_) + " accepted " + std::to_string(accepted));
}

// Only a compute process asks for the custom one.
void Standin::AskCustomTwice() {
    if (options_.kind != kStandinCompute) {
        return;
    }
    SleepDelay();
    AskForCustom();
    // A second request once the custom process runs must change nothing.
    while (!customStarted_) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    AskForCustom();
}

void Standin::StartSettled() {
    MutexLock lock(&startMutex_);
    startSettled_ = true;
    startSettledCond_.SignalAll();
}

void Standin::WaitStartSettled() {
    MutexLock lock(&startMutex_);
    while (!startSettled_) {
        startSettledCond_.Wait();
    }
}

void Standin::ControlLoop() {
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
        if (event.subevent_id == ORV_SUB_EVENT_CLOSE_REQ) {
            WaitStartSettled();
            Note("close_request");
            if (behaviour_->close == CloseAnswer::kIgnore) {
                continue;
            }
            Report(ORV_SUB_EVENT_CLOSE, options_.kind);
            if (behaviour_->close != CloseAnswer::kReportAndStay) {
                _exit(0);
            }
        } else if (event.subevent_id == ORV_SUB_EVENT_CUST_STARTED) {
            customStarted_ = true;
            Note("custom_started " + std::to_string(record.payloadWord));
            // Have the custom process load a shared object, as a compute process would.
            OrvSubEventInfo load;
            std::memset(&load, 0, sizeof(load));
            std::snprintf(load.payload, sizeof(load.payload), "libcust_op.so");
            load.deviceId = options_.deviceId;
            load.srcPid = static_cast<uint32_t>(getpid());
            load.dstPid = static_cast<uint32_t>(getppid());
            load.hostPid = options_.hostPid;
            load.vfId = options_.vfId;
            load.procType = options_.kind;
            load.eventType = ORV_SUB_EVENT_LOAD_SO;
            Note("sent load_so rc " +
                 std::to_string(SubmitToParent(ORV_SUB_EVENT_LOAD_SO, &load, sizeof(load))));
        } else {
            Note("control event " + std::to_string(event.subevent_id));
        }
    }
}

void Standin::TaskLoop() {
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
            Note("profiling " + std::to_string(words[3]) + " host_pid " + std::to_string(words[2]) +
                 " sub " + std::to_string(event.subevent_id));
        } else if (event.subevent_id == kLoadSo) {
            Note("load_so " + std::string(event.msg, strnlen(event.msg, event.msg_len)) + " len " +
                 std::to_string(event.msg_len));
        } else {
            Note("task event " + std::to_string(event.subevent_id));
        }
    }
}

}  // namespace orv::emu
