// orvdaemon: the daemon executable. It starts the daemon library, tells the
// supervisor (when one asks, through ORV_NOTIFY_SOCKET) that start-up is over,
// and keeps the process alive until SIGTERM or SIGINT.
#include <dirent.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/orvdaemon.h"
#include "platform/log.h"

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

// Tells the supervisor how start-up went: "READY=1" or "START_FAILED=<code>".
void Notify(const std::string& notice) {
    const char* path = getenv("ORV_NOTIFY_SOCKET");
    if (path == nullptr || *path == '\0') {
        return;
    }
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (strlen(path) < sizeof(addr.sun_path)) {
        memcpy(addr.sun_path, path, strlen(path) + 1);
        (void)sendto(fd, notice.data(), notice.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    }
    close(fd);
}

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

}  // namespace

int main() {
    KeepInheritedDescriptorsFromSubProcesses();
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

    orv::OrvDaemon* daemon = orv::OrvDaemon::GetInstance();
    uint32_t ret = daemon->Start();
    if (ret != 0) {
        std::fprintf(stderr, "orvdaemon: start failed with code %u:\n%s", ret,
                     orv::ORVLog::GetInstance().GetErrorMsg().c_str());
        Notify("START_FAILED=" + std::to_string(ret));
        daemon->Destroy();
        Exit(1);
    }
    Notify("READY=1");

    char byte = 0;
    while (read(g_stopPipe[0], &byte, 1) < 0 && errno == EINTR) {
    }
    daemon->Destroy();
    Exit(0);
}
