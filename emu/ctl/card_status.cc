#include "emu/ctl/card_status.h"

#include <dirent.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "card.pb.h"
#include "emu/ctl/control_client.h"
#include "emu/sandbox/sandbox_client.h"
#include "platform/orv_limits.h"

namespace orv::emu {

namespace {

// Where the sandbox keeps what the status view reads, below its state
// directory (the inside path with the state directory in front).
constexpr char kSessionBoard[] = "/run/orv-hdc/sessions";
constexpr char kTrustedRoot[] = "/home/hdc-trusted";
constexpr char kKernelsRoot[] =
    "/lib64/upper/aicpu_kernels";  // the overlay's upper half of /usr/lib64
constexpr char kVersionInfo[] = "/aicpu_kernels_device/version.info";
constexpr char kMemoryCgroups[] = "/cgroup/memory/usermemory";
constexpr char kStagingDir[] = "/home/QelvarUser/aicpu_kernels/";
constexpr int32_t kMaxVfId = 16;

}  // namespace

std::string ReadStatusFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string text;
    char chunk[4096];
    while (text.size() < limits::kMaxStatusFileBytes) {
        size_t want = std::min(sizeof(chunk), limits::kMaxStatusFileBytes - text.size());
        in.read(chunk, static_cast<std::streamsize>(want));
        if (in.gcount() <= 0) {
            break;
        }
        text.append(chunk, static_cast<size_t>(in.gcount()));
    }
    return text;
}

namespace {

bool ParseInt(const std::string& text, long long* value) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    *value = std::strtoll(text.c_str(), &end, 10);
    return errno == 0 && end != nullptr && (*end == '\0' || *end == '\n');
}

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

int64_t MtimeMs(const struct stat& st) {
    return static_cast<int64_t>(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
}

std::map<std::string, std::string> ReadEnvFile(const std::string& path) {
    std::map<std::string, std::string> env;
    std::istringstream lines(ReadStatusFile(path));
    for (std::string line; std::getline(lines, line);) {
        size_t eq = line.find('=');
        if (eq != std::string::npos) {
            env[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    return env;
}

std::vector<std::string> DirectoryEntries(const std::string& dir) {
    std::vector<std::string> names;
    DIR* handle = ::opendir(dir.c_str());
    while (dirent* entry = handle != nullptr ? ::readdir(handle) : nullptr) {
        if (entry->d_name[0] != '.') {
            names.push_back(entry->d_name);
        }
    }
    if (handle != nullptr) {
        ::closedir(handle);
    }
    return names;
}

// ---- Processes ------------------------------------------------------------------

struct ProcessInfo {
    pid_t outer = 0;
    pid_t inner = 0;
    pid_t innerParent = 0;
    char state = '?';
    int64_t sinceMs = 0;
    std::vector<std::string> argv;
};

int64_t BootTimeMs() {
    std::istringstream lines(ReadStatusFile("/proc/stat"));
    for (std::string line; std::getline(lines, line);) {
        long long seconds = 0;
        if (line.compare(0, 6, "btime ") == 0 && ParseInt(line.substr(6), &seconds)) {
            return seconds * 1000;
        }
    }
    return 0;
}

// One process of the sandbox, or nothing when it ended while being read.
std::optional<ProcessInfo> ReadProcess(pid_t outer, int64_t bootMs) {
    std::string dir = "/proc/" + std::to_string(outer);
    ProcessInfo info;
    info.outer = outer;
    std::string stat = ReadStatusFile(dir + "/stat");
    // The name in parentheses may hold anything; the fields follow its last ')'.
    size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(stat.substr(close + 1));
    std::vector<std::string> rest;
    for (std::string field; fields >> field;) {
        rest.push_back(field);
    }
    // rest[0] is field 3 (state); field 22 (start time in clock ticks) is rest[19].
    if (rest.size() < 20) {
        return std::nullopt;
    }
    info.state = rest[0][0];
    long long ticks = 0;
    if (ParseInt(rest[19], &ticks)) {
        info.sinceMs = bootMs + ticks * 1000 / ::sysconf(_SC_CLK_TCK);
    }
    // Pids as the sandbox sees them: the last of each NSpid line.
    std::istringstream status(ReadStatusFile(dir + "/status"));
    std::string outerParent;
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "NSpid:") == 0) {
            std::istringstream ids(line.substr(6));
            for (pid_t id; ids >> id;) {
                info.inner = id;
            }
        } else if (line.compare(0, 5, "PPid:") == 0) {
            outerParent = line.substr(5);
        }
    }
    // The parent's inner pid comes from the parent's own NSpid.
    long long parent = 0;
    size_t digits = outerParent.find_first_not_of(" \t");
    if (digits != std::string::npos && ParseInt(outerParent.substr(digits), &parent) &&
        parent > 0) {
        std::istringstream parentStatus(
            ReadStatusFile("/proc/" + std::to_string(parent) + "/status"));
        for (std::string line; std::getline(parentStatus, line);) {
            if (line.compare(0, 6, "NSpid:") == 0) {
                std::istringstream ids(line.substr(6));
                for (pid_t id; ids >> id;) {
                    info.innerParent = id;
                }
            }
        }
    }
    std::string cmdline = ReadStatusFile(dir + "/cmdline");
    for (size_t start = 0; start < cmdline.size();) {
        size_t end = cmdline.find('\0', start);
        end = end == std::string::npos ? cmdline.size() : end;
        info.argv.push_back(cmdline.substr(start, end - start));
        start = end + 1;
    }
    if (info.inner == 0) {
        return std::nullopt;
    }
    return info;
}

std::string Argument(const std::vector<std::string>& argv, const std::string& flag) {
    const std::string prefix = "--" + flag + "=";
    for (const std::string& arg : argv) {
        if (arg.compare(0, prefix.size(), prefix) == 0) {
            return arg.substr(prefix.size());
        }
    }
    return std::string();
}

// ---- The session board ------------------------------------------------------------

struct BoardEntry {
    uint32_t session = 0;
    uint32_t device = 0;
    int32_t vf = 0;
    uint32_t hostPid = 0;
    int64_t sinceMs = 0;
};

std::vector<BoardEntry> ReadBoard(const std::string& path) {
    std::vector<BoardEntry> entries;
    std::istringstream lines(ReadStatusFile(path));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::map<std::string, long long> values;
        std::string key;
        long long value = 0;
        while (words >> key >> value) {
            values[key] = value;
        }
        if (values.count("session") == 0 || values.count("device") == 0) {
            continue;
        }
        BoardEntry entry;
        entry.session = static_cast<uint32_t>(values["session"]);
        entry.device = static_cast<uint32_t>(values["device"]);
        entry.vf = static_cast<int32_t>(values["vf"]);
        entry.hostPid = static_cast<uint32_t>(values["host_pid"]);
        entry.sinceMs = values["since_ms"];
        entries.push_back(entry);
    }
    return entries;
}

// ---- Files ------------------------------------------------------------------------

std::string WatchKey(const struct stat& st) {
    return std::to_string(major(st.st_dev)) + ":" + std::to_string(minor(st.st_dev)) + ":" +
           std::to_string(st.st_ino);
}

std::set<std::string> DaemonWatches(pid_t daemonOuter) {
    std::set<std::string> watches;
    if (daemonOuter <= 0) {
        return watches;
    }
    std::string fdDir = "/proc/" + std::to_string(daemonOuter) + "/fdinfo";
    for (const std::string& fd : DirectoryEntries(fdDir)) {
        for (const std::string& key : InotifyWatches(ReadStatusFile(fdDir + "/" + fd))) {
            watches.insert(key);
        }
    }
    return watches;
}

// The archive part of a package's name, as the daemon takes it.
std::string ArchiveName(const std::string& name) {
    static const std::regex kArchiveName("Velkan[0-9]{3}.*\\.tar\\.gz");
    std::smatch match;
    return std::regex_search(name, match, kArchiveName) ? match.str() : std::string();
}

std::optional<PackageView> InstalledPackage(const std::string& stateDir, int32_t vf,
                                            const CardStatus& card) {
    std::string dir = stateDir + kKernelsRoot + "/" + std::to_string(vf);
    std::istringstream lines(ReadStatusFile(dir + kVersionInfo));
    PackageView package;
    for (std::string line; std::getline(lines, line);) {
        if (line.find('=') != std::string::npos && line.find("Name") != std::string::npos) {
            package.name = line.substr(line.find('=') + 1);
            break;
        }
    }
    struct stat st {};
    if (package.name.empty() || ::stat(dir.c_str(), &st) != 0) {
        return std::nullopt;
    }
    package.installedMs = MtimeMs(st);
    // The daemon verifies a package, then unpacks it: the newest verification
    // before the install. One by a path in the staging directory names its
    // VF and package; one of a private copy (a descriptor of the daemon's)
    // names neither, and is taken by its time alone.
    const std::string staged = std::string(kStagingDir) + "vf" + std::to_string(vf) + "_";
    const std::string privateCopy = "/proc/self/fd/";
    for (const CardStatus::VerifiedPackage& verified : card.verified()) {
        const std::string& path = verified.path();
        bool ours = path.compare(0, staged.size(), staged) == 0
                        ? ArchiveName(path.substr(staged.size())) == package.name
                        : path.compare(0, privateCopy.size(), privateCopy) == 0;
        if (ours && verified.time_ms() <= package.installedMs) {
            package.checkCode = static_cast<uint32_t>(verified.size());
        }
    }
    return package;
}

std::optional<MemoryView> VfMemory(const std::string& stateDir, int32_t vf) {
    std::string dir = stateDir + kMemoryCgroups + "/vf" + std::to_string(vf);
    long long limit = 0;
    long long usage = 0;
    if (!ParseInt(ReadStatusFile(dir + "/memory.limit_in_bytes"), &limit) ||
        !ParseInt(ReadStatusFile(dir + "/memory.usage_in_bytes"), &usage)) {
        return std::nullopt;
    }
    return MemoryView{static_cast<uint64_t>(limit), static_cast<uint64_t>(usage)};
}

}  // namespace

std::vector<std::string> HostView::Runs() const {
    std::vector<std::string> kinds;
    for (const char* kind : {"zarn", "compute", "custom", "queue"}) {
        for (const SubProcessView& sub : subProcesses) {
            if (sub.kind == kind) {
                kinds.push_back(kind);
                break;
            }
        }
    }
    return kinds;
}

std::string SubProcessKind(const std::string& program) {
    std::string name = program.substr(program.find_last_of('/') + 1);
    if (name == "zarn_service.bin") {
        return "zarn";
    }
    if (name == "aicpu_runner") {
        return "compute";
    }
    if (name.compare(0, 19, "aicpu_custom_runner") == 0) {
        return "custom";
    }
    if (name == "queue_runner") {
        return "queue";
    }
    return std::string();
}

std::vector<std::string> InotifyWatches(const std::string& fdinfo) {
    // "inotify wd:1 ino:2a4 sdev:800001 mask:8 ...": hexadecimal inode and the
    // kernel's device number (major << 20 | minor).
    std::vector<std::string> keys;
    std::istringstream lines(fdinfo);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 8, "inotify ") != 0) {
            continue;
        }
        size_t ino = line.find(" ino:");
        size_t sdev = line.find(" sdev:");
        if (ino == std::string::npos || sdev == std::string::npos) {
            continue;
        }
        unsigned long long inode = std::strtoull(line.c_str() + ino + 5, nullptr, 16);
        unsigned long long device = std::strtoull(line.c_str() + sdev + 6, nullptr, 16);
        keys.push_back(std::to_string(device >> 20) + ":" + std::to_string(device & 0xfffff) + ":" +
                       std::to_string(inode));
    }
    return keys;
}

CardView ReadCardView(const std::string& stateDir) {
    CardView view;
    view.stateDir = stateDir;
    view.timeMs = NowMs();
    std::map<std::string, std::string> env = ReadEnvFile(stateDir + "/sandbox.env");
    long long number = 0;
    if (!ParseInt(env["ORV_SANDBOX_PID"], &number)) {
        view.error = "no sandbox runs on " + stateDir;
        return view;
    }
    view.sandboxPid = static_cast<pid_t>(number);
    if (ParseInt(env["ORV_DAEMON_PID"], &number)) {
        view.daemonOuterPid = static_cast<pid_t>(number);
    }

    CardRequest request;
    request.mutable_show_status();
    CardReply reply;
    CardStatus card;
    if (!CallControl(ControlSocketOfState(stateDir), request, &reply, &view.error)) {
        return view;
    }
    if (reply.code() != 0 || !card.ParseFromString(reply.data())) {
        view.error = "the card emulator does not describe itself (an older orv-card-emu?)";
        return view;
    }
    view.chipType = card.chip_type();

    // The sandbox's processes: the daemon and the sub-processes.
    char link[PATH_MAX] = {0};
    std::string nsPath = "/proc/" + std::to_string(view.sandboxPid) + "/ns/pid";
    std::vector<SubProcessView> subProcesses;
    if (::readlink(nsPath.c_str(), link, sizeof(link) - 1) > 0) {
        int64_t bootMs = BootTimeMs();
        for (pid_t outer : ProcessesInNamespace(link)) {
            std::optional<ProcessInfo> process = ReadProcess(outer, bootMs);
            if (!process) {
                continue;
            }
            if (outer == view.daemonOuterPid) {
                view.daemonPid = process->inner;
                view.daemonSinceMs = process->sinceMs;
                continue;
            }
            std::string kind =
                process->argv.empty() ? std::string() : SubProcessKind(process->argv[0]);
            if (kind.empty()) {
                continue;
            }
            SubProcessView sub;
            sub.kind = kind;
            sub.pid = process->inner;
            sub.outerPid = outer;
            sub.state = process->state;
            sub.sinceMs = process->sinceMs;
            sub.parentPid = process->innerParent;
            if (ParseInt(Argument(process->argv, "pid"), &number)) {
                sub.hostPid = static_cast<uint32_t>(number);
            }
            if (ParseInt(Argument(process->argv, "vfId"), &number)) {
                sub.vfId = static_cast<int32_t>(number);
            }
            if (ParseInt(Argument(process->argv, "deviceId"), &number)) {
                sub.chipId = static_cast<int32_t>(number);
            }
            subProcesses.push_back(sub);
        }
    }
    if (view.daemonPid == 0) {
        view.daemonOuterPid = 0;
    }
    for (SubProcessView& sub : subProcesses) {
        sub.orphan = sub.parentPid != view.daemonPid;
    }
    std::sort(subProcesses.begin(), subProcesses.end(),
              [](const SubProcessView& a, const SubProcessView& b) { return a.pid < b.pid; });

    std::vector<BoardEntry> board = ReadBoard(stateDir + kSessionBoard);
    std::set<std::string> watches = DaemonWatches(view.daemonOuterPid);

    for (const CardStatus::Device& device : card.devices()) {
        DeviceView deviceView;
        deviceView.index = device.index();
        deviceView.chipId = device.chip_id();
        deviceView.ctrlCpus.assign(device.ctrl_cpus().begin(), device.ctrl_cpus().end());
        std::string trusted = stateDir + kTrustedRoot + "/dev" + std::to_string(device.index());
        std::set<int32_t> vfs = {0};
        for (const std::string& name : DirectoryEntries(trusted)) {
            if (ParseInt(name.substr(name.compare(0, 4, "vfid") == 0 ? 4 : name.size()), &number) &&
                number >= 1 && number <= kMaxVfId) {
                vfs.insert(static_cast<int32_t>(number));
            }
        }
        for (int32_t vf : vfs) {
            VfView vfView;
            vfView.id = vf;
            struct stat st {};
            std::string dir = vf == 0 ? trusted : trusted + "/vfid" + std::to_string(vf);
            vfView.watcher = ::stat(dir.c_str(), &st) == 0 && watches.count(WatchKey(st)) != 0;
            vfView.package = InstalledPackage(stateDir, vf, card);
            vfView.memory = VfMemory(stateDir, vf);
            deviceView.vfs.push_back(vfView);
        }
        view.devices.push_back(deviceView);
    }

    auto findVf = [&](uint32_t device, int32_t vf) -> VfView* {
        for (DeviceView& d : view.devices) {
            for (VfView& v : d.vfs) {
                if (d.index == device && v.id == vf) {
                    return &v;
                }
            }
        }
        return nullptr;
    };
    auto findHost = [](VfView* vf, uint32_t hostPid) -> HostView* {
        for (HostView& host : vf->hosts) {
            if (host.hostPid == hostPid) {
                return &host;
            }
        }
        vf->hosts.push_back(HostView{});
        vf->hosts.back().hostPid = hostPid;
        return &vf->hosts.back();
    };

    for (const BoardEntry& entry : board) {
        VfView* vf = entry.sinceMs != 0 ? findVf(entry.device, entry.vf) : nullptr;
        if (vf == nullptr) {
            for (DeviceView& d : view.devices) {
                d.anonymousLinks += d.index == entry.device ? 1 : 0;
            }
            continue;
        }
        HostView* host = findHost(vf, entry.hostPid);
        host->sessions.push_back(entry.session);
        host->sinceMs = host->sinceMs == 0 ? entry.sinceMs : std::min(host->sinceMs, entry.sinceMs);
    }
    for (SubProcessView& sub : subProcesses) {
        // The command line names the chip; the device is the one with that chip.
        int64_t device = -1;
        for (const CardStatus::Device& d : card.devices()) {
            device = d.chip_id() == sub.chipId ? d.index() : device;
        }
        int32_t vfId = sub.vfId;
        if (vfId < 0) {
            // The collective service is not told its VF: the host's session says it.
            for (const BoardEntry& entry : board) {
                vfId = entry.hostPid == sub.hostPid && static_cast<int64_t>(entry.device) == device
                           ? entry.vf
                           : vfId;
            }
        }
        VfView* vf =
            device >= 0 ? findVf(static_cast<uint32_t>(device), std::max(vfId, 0)) : nullptr;
        if (vf == nullptr) {
            view.unplaced.push_back(sub);
            continue;
        }
        HostView* host = findHost(vf, sub.hostPid);
        host->subProcesses.push_back(sub);
        if (host->sessions.empty()) {
            host->sinceMs = host->sinceMs == 0 ? sub.sinceMs : std::min(host->sinceMs, sub.sinceMs);
        }
    }
    for (DeviceView& d : view.devices) {
        for (VfView& v : d.vfs) {
            std::sort(v.hosts.begin(), v.hosts.end(),
                      [](const HostView& a, const HostView& b) { return a.hostPid < b.hostPid; });
        }
    }
    return view;
}

}  // namespace orv::emu
