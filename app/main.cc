// orvdaemon: the daemon executable. It starts the daemon library, tells its
// supervisors how start-up went (systemd through NOTIFY_SOCKET, the emulated
// card's sandbox through ORV_NOTIFY_SOCKET), and keeps the process alive until
// SIGTERM or SIGINT, when it runs the daemon's orderly shutdown.
#include <dirent.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/service_notify.h"
#include "daemon/orvdaemon.h"
#include "orv_version.h"
#include "platform/log.h"
#include "platform/orv_limits.h"

#if defined(__SANITIZE_ADDRESS__)
#define ORV_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_LEAK_CHECK 1
#endif
#endif
#if defined(ORV_LEAK_CHECK)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

int g_stopPipe[2] = {-1, -1};

void OnStopSignal(int /*signo*/) {
    char byte = 1;
    ssize_t ignored = write(g_stopPipe[1], &byte, 1);
    (void)ignored;
}

// Ends the process once the daemon is down. Destroy() has released what the
// daemon held, so the library's static destructors have nothing left to do.
[[noreturn]] void Exit(int status) {
#if defined(ORV_LEAK_CHECK)
    __lsan_do_leak_check();
#endif
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(status);
}

const char kUsage[] =
    "Usage: orvdaemon [--help | --version]\n"
    "Starts the device-side process-management daemon and runs it until SIGTERM or SIGINT.\n"
    "Its settings come from the environment (STARTUP_QS, AICPU_MAX_NUM, "
    "REGISTER_TO_VELKANMONITOR,\n"
    "DATAMASTER_RUN_MODE, QS_RESCHED_INTEVAL, AICPU_ADD_BUFFERGROUP) and from\n"
    "/var/orvdaemon_add_env_variable.sh. Under systemd (Type=notify) it reports READY=1 once\n"
    "started and STOPPING=1 when it begins to stop.\n";

// The daemon's sub-processes run user code: they get the standard
// descriptors, and nothing else that the daemon's own parent left open.
void KeepInheritedDescriptorsFromSubProcesses() {
    if (syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC) == 0) {
        return;
    }
    // Kernels before 5.11: one descriptor at a time.
    DIR* fds = opendir("/proc/self/fd");
    if (fds == nullptr) {
        return;
    }
    while (dirent* entry = readdir(fds)) {
        int fd = std::atoi(entry->d_name);
        if (fd > 2 && fd != dirfd(fds)) {
            (void)fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
        }
    }
    closedir(fds);
}

// The daemon holds a descriptor for every link, sub-process and watch; the
// soft limit goes up to what the limits table needs (the service unit's
// LimitNOFILE), as far as the hard limit allows.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    rlim_t wanted = orv::limits::kMaxDescriptors;
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < wanted) {
        std::fprintf(stderr,
                     "orvdaemon: at most %llu descriptors may be open, fewer than the %llu the "
                     "daemon's limits need\n",
                     static_cast<unsigned long long>(limit.rlim_max),
                     static_cast<unsigned long long>(wanted));
        wanted = limit.rlim_max;
    }
    if (limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur >= wanted) {
        return;
    }
    limit.rlim_cur = wanted;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 &&
        (std::strcmp(argv[1], "--version") == 0 || std::strcmp(argv[1], "--help") == 0)) {
        std::fputs(std::strcmp(argv[1], "--version") == 0 ? "orvdaemon " ORV_VERSION "\n" : kUsage,
                   stdout);
        return 0;
    }
    if (argc != 1) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    // Taken (and removed from the environment) before any thread starts.
    const orv::ServiceNotifier systemd = orv::ServiceNotifier::FromEnvironment("NOTIFY_SOCKET");
    const orv::ServiceNotifier sandbox = orv::ServiceNotifier::FromEnvironment("ORV_NOTIFY_SOCKET");
    KeepInheritedDescriptorsFromSubProcesses();
    RaiseDescriptorLimit();

    if (chdir("/") != 0) {
        std::fprintf(stderr, "orvdaemon: cannot change to /: %s\n", std::strerror(errno));
        return 1;
    }
    if (pipe2(g_stopPipe, O_CLOEXEC) != 0) {
        std::fprintf(stderr, "orvdaemon: pipe: %s\n", std::strerror(errno));
        return 1;
    }
    struct sigaction stop {};
    stop.sa_handler = OnStopSignal;
    sigemptyset(&stop.sa_mask);
    sigaction(SIGTERM, &stop, nullptr);
    sigaction(SIGINT, &stop, nullptr);

    systemd.Notify("STATUS=Starting");
    orv::OrvDaemon* daemon = orv::OrvDaemon::GetInstance();
    uint32_t ret = daemon->Start();
    if (ret != 0) {
        std::fprintf(stderr, "orvdaemon: start failed with code %u:\n%s", ret,
                     orv::ORVLog::GetInstance().GetErrorMsg().c_str());
        systemd.Notify("STATUS=Start failed with code " + std::to_string(ret) +
                       "; see the system log");
        sandbox.Notify("START_FAILED=" + std::to_string(ret));
        daemon->Destroy();
        Exit(1);
    }
    uint32_t devices = daemon->GetDeviceNum();
    systemd.Notify("READY=1\nSTATUS=Serving host requests on " + std::to_string(devices) +
                   (devices == 1 ? " device" : " devices"));
    sandbox.Notify("READY=1");

    char byte = 0;
    while (read(g_stopPipe[0], &byte, 1) < 0 && errno == EINTR) {
    }
    systemd.Notify("STOPPING=1\nSTATUS=Stopping: closing sessions and sub-processes");
    daemon->Destroy();
    Exit(0);
}
