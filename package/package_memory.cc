// The installed size of a VF's kernels and the memory cgroup limit that
// follows it.
#include "package/package_worker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <regex>
#include <sstream>

#include <bounds_checked.h>
#include <img_verify.h>
#include <osal.h>

#include "package/internal_api.h"
#include "package/kernel_tree.h"
#include "package/package_worker_internal.h"
#include "platform/log.h"
#include "platform/orv_codes.h"
#include "platform/scope_guard.h"

namespace orv {

namespace {

constexpr char kMemoryScript[] = "cd /var && sudo /var/orvdaemon_modify_usermemory.sh";
constexpr uint32_t kMaxWalkDepth = 20;
// A first install needs strictly more room than this below the limit ("150M").
constexpr uint64_t kMinFreeBytes = 157286399;

using package_internal::CgroupDir;
using package_internal::kControlFileBounds;

// The size of entry `name` of the directory open at `dirFd`, measured as
// CalFileSize measures, but never through a link (a link measures 0).
uint32_t SizeWithoutFollowing(int dirFd, const std::string& name) {
    int fd = openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    off_t size = lseek(fd, 0, SEEK_END);
    close(fd);
    return size < 0 ? 0 : static_cast<uint32_t>(static_cast<uint64_t>(size) & 0xFFFFFFFFULL);
}

}  // namespace

// ---- Installed size ----------------------------------------------------------------

void PackageWorker::GetPackageSize(const std::string& dir, uint64_t& size) {
    std::queue<std::pair<std::string, uint32_t>> pending;
    pending.emplace(dir, 0);
    while (!pending.empty()) {
        std::pair<std::string, uint32_t> next = pending.front();
        pending.pop();
        GetPackageSizeInSubdirectory(next.first, next.second, size, pending);
    }
}

void PackageWorker::GetPackageSizeInSubdirectory(
    const std::string& dir, const uint32_t& depth, uint64_t& size,
    std::queue<std::pair<std::string, uint32_t>>& pending) const {
    if (dir.empty() || depth > kMaxWalkDepth) {
        return;
    }
    // No link is followed: one to a directory could make the walk endless,
    // one to a FIFO could stop it.
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    DIR* handle = fd >= 0 ? fdopendir(fd) : nullptr;
    if (handle == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        ORV_LOG(ORV_WARN, "GetPackageSize path is invalid:%s, depth:%u", dir.c_str(), depth);
        return;
    }
    struct stat status {};
    if (fstat(fd, &status) == 0) {
        size += static_cast<uint64_t>(status.st_size);
    }
    while (dirent* entry = readdir(handle)) {
        std::string name = entry->d_name;
        // The bare name, against the working directory: where that fails the
        // status of the previous entry stands. Kept as the installed size has
        // always been measured.
        (void)lstat(entry->d_name, &status);
        std::string full = dir + "/" + name;
        bool sizedByName =
            name.find(".so") != std::string::npos || name.find(".info") != std::string::npos;
        if (!sizedByName && S_ISDIR(status.st_mode)) {
            if (name != "." && name != "..") {
                pending.emplace(full, depth + 1);
            }
        } else {
            size += SizeWithoutFollowing(fd, name);
        }
    }
    if (closedir(handle) != 0) {
        ORV_LOG(ORV_EVENT, "close dir %s failed.", dir.c_str());
    }
}

// ---- Memory limit control ------------------------------------------------------------

uint32_t PackageWorker::ReadMemControlValue(const std::string& file, uint64_t& value) const {
    std::string line;
    LinesEnd end =
        ForEachBoundedLine(file, kControlFileBounds, [&line](const std::string& first, bool) {
            line = first;
            return false;
        });
    if (end == LinesEnd::kUnreadable) {
        NoteShortage(IsShortage(errno));
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Read memory control file failed, file name:[%s].",
                file.c_str());
        return 1;
    }
    if (line.empty()) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Memory control file is empty, file name:[%s].",
                file.c_str());
        return 1;
    }
    std::istringstream parse(line);
    uint64_t parsed = 0;
    if (!(parse >> parsed)) {
        parsed = 0;
    }
    value = parsed;
    return 0;
}

uint32_t PackageWorker::CheckMemoryLimit() {
    uint64_t limit = 0;
    uint32_t ret = ReadMemControlValue(CgroupDir(vfId_) + "/memory.limit_in_bytes", limit);
    ORV_LOG(ORV_INFO, "Get virtual mem limit[%llu] from halMemGetVdevInfo",
            static_cast<unsigned long long>(limit));
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "ReadMemoryControlValue failed");
        return 1;
    }
    return CheckMemoryUsage(limit);
}

uint32_t PackageWorker::CheckMemoryUsage(uint64_t& limit) const {
    std::string installDir = InstallDir();
    if (access(installDir.c_str(), F_OK) == 0) {
        // An update replaces kernels that are charged already.
        ORV_LOG(ORV_INFO, "[OrvDaemon] Update aicpu kernel. path[%s].", installDir.c_str());
        return 0;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] Save new aicpu kernel. path:%s", installDir.c_str());
    uint64_t used = 0;
    uint32_t ret = ReadMemControlValue(CgroupDir(vfId_) + "/memory.usage_in_bytes", used);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Read memory limit from file failed.");
        return ret;
    }
    if (used <= limit && limit - used > kMinFreeBytes) {
        // The sizes go through the 32-bit conversion, as this line always had them.
        ORV_LOG(ORV_INFO, "[OrvDaemon] vfid[%d] has enough space, max:[%d] byte, used:[%d] byte.",
                vfId_, static_cast<int>(limit), static_cast<int>(used));
        return 0;
    }
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] vfid[%d] has no enough space(less than 150M), max:[%llu] byte, "
            "used:[%llu] byte.",
            vfId_, static_cast<unsigned long long>(limit), static_cast<unsigned long long>(used));
    return 1;
}

uint32_t PackageWorker::RestoreMemUsage(uint64_t oldSize, uint64_t newSize) {
    ORV_LOG(ORV_INFO, "RestoreMemUsage oldSize: [%llu], newSize: [%llu]",
            static_cast<unsigned long long>(oldSize), static_cast<unsigned long long>(newSize));
    uint64_t limit = 0;
    if (ReadMemControlValue(CgroupDir(vfId_) + "/memory.limit_in_bytes", limit) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Read memory limit failed.");
        return 1;
    }
    ORV_LOG(ORV_INFO, "Before RestoreMemUsage, user_memory_limit:[%llu]",
            static_cast<unsigned long long>(limit));
    if (!(oldSize < ~limit)) {
        ORV_LOG(ORV_ERROR, "userLimitSize add oldSize will overflow.");
        return 1;
    }
    if (!(newSize < limit + oldSize)) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] User memory is not enough.");
        return 1;
    }
    limit = limit + oldSize - newSize;
    ORV_LOG(ORV_INFO, "After RestoreMemUsage, user_memory_limit:[%llu]",
            static_cast<unsigned long long>(limit));
    if (SetMemoryControlValue(limit) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Update memory limit failed.");
        return 1;
    }
    return 0;
}

uint32_t PackageWorker::SetMemoryControlValue(uint64_t limit) const {
    std::string command =
        std::string(kMemoryScript) + " " + std::to_string(vfId_) + " " + std::to_string(limit);
    ORV_LOG(ORV_INFO, "SetMemoryControlValue command: [%s]", command.c_str());
    int32_t status = PackSystem(command.c_str());
    if (status != 0) {
        // No shell could be started: the limit is not the package's fault.
        NoteShortage(status == -1);
        ORV_LOG(ORV_ERROR, "SetMemoryControlValue failed, command: [%s]", SafeStrerror().c_str());
        return 1;
    }
    return 0;
}

}  // namespace orv
