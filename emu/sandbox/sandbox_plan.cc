#include "emu/sandbox/sandbox_plan.h"

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include "emu/common/emu_layout.h"
#include "emu/common/emu_paths.h"
#include "emu/sandbox/process_helpers.h"

namespace orv::emu {

namespace {

constexpr char kInsidePath[] =
    "/run/orv-sandbox/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

std::string DirName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string RealPath(const std::string& path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
}

}  // namespace

std::string StatePaths::Outside(const std::string& inside) const {
    return root + inside;
}

bool ResolvePrograms(SandboxPlan* plan, std::string* error) {
    std::string self = RealPath("/proc/self/exe");
    if (self.empty()) {
        *error = "cannot find where orv-sandbox runs from";
        return false;
    }
    EmuLayout layout = FindEmuLayout(DirName(self));
    plan->cardEmu = layout.bin + "/orv-card-emu";
    plan->emuCtl = layout.bin + "/orv-emu-ctl";
    plan->host = layout.bin + "/orv-host";
    plan->submit = layout.bin + "/orv-emu-submit";
    plan->daemon = plan->options.daemonPath.empty() ? layout.libexec + "/orvdaemon"
                                                    : RealPath(plan->options.daemonPath);
    plan->standIn = layout.libexec + "/orv-subproc-stub";
    plan->imgVerify = layout.lib + "/liborv_emu_imgverify.so";
    plan->shareDir = layout.share;
    if (::access(plan->cardEmu.c_str(), X_OK) != 0) {
        *error = "missing " + plan->cardEmu;
        return false;
    }
    if (plan->options.mode == SandboxMode::kBoot &&
        (plan->daemon.empty() || ::access(plan->daemon.c_str(), X_OK) != 0)) {
        *error = "missing daemon executable " +
                 (plan->daemon.empty() ? plan->options.daemonPath : plan->daemon);
        return false;
    }
    if (::access((plan->shareDir + "/sandbox_layout.sh").c_str(), R_OK) != 0) {
        *error = "missing " + plan->shareDir + "/sandbox_layout.sh";
        return false;
    }
    char cwd[PATH_MAX];
    plan->cwd = ::getcwd(cwd, sizeof(cwd)) != nullptr ? std::string(cwd) : std::string("/");
    // The tree the programs came from (bin/ and its siblings), should it lie
    // under a directory the sandbox replaces.
    plan->keepVisible = {DirName(layout.bin), plan->cwd, DirName(plan->daemon)};
    if (!plan->options.envScript.empty()) {
        plan->options.envScript = RealPath(plan->options.envScript);
        if (plan->options.envScript.empty()) {
            *error = "cannot read the --env-script file";
            return false;
        }
        plan->keepVisible.push_back(DirName(plan->options.envScript));
    }
    if (!plan->options.command.empty() && plan->options.command[0].find('/') != std::string::npos) {
        std::string program = RealPath(plan->options.command[0]);
        if (!program.empty()) {
            plan->keepVisible.push_back(DirName(program));
        }
    }
    return true;
}

std::vector<std::string> InsideEnvironment(std::vector<std::string> base,
                                           const SandboxOptions& options,
                                           const std::vector<std::string>& extra) {
    RemoveEnvPrefix(&base, "ORV_EMU_");
    RemoveEnvPrefix(&base, "ORV_NOTIFY_SOCKET=");
    SetEnv(&base, "PATH", kInsidePath);
    SetEnv(&base, kLogFileEnv, kSandboxLogFile);
    SetEnv(&base, kLogLevelEnv, options.logLevel);
    if (options.logStderr) {
        SetEnv(&base, kLogStderrEnv, "1");
    }
    SetEnv(&base, "ORV_NOTIFY_SOCKET", kNotifySocket);
    for (const std::vector<std::string>* list : {&options.env, &extra}) {
        for (const std::string& entry : *list) {
            size_t eq = entry.find('=');
            SetEnv(&base, entry.substr(0, eq), entry.substr(eq + 1));
        }
    }
    return base;
}

std::vector<std::string> DaemonBaseEnvironment() {
    std::vector<std::string> env = {"HOME=/root", "LANG=C"};
    for (const std::string& entry : CurrentEnvironment()) {
        for (const char* prefix : {"ASAN_", "UBSAN_", "TSAN_", "LSAN_", "LLVM_PROFILE"}) {
            if (entry.compare(0, std::char_traits<char>::length(prefix), prefix) == 0) {
                env.push_back(entry);
            }
        }
    }
    return env;
}

}  // namespace orv::emu
