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

const std::vector<std::string> kSandBoxList = {
    "/usr/lib64/libaicpu_kernels.so",        "/usr/lib64/libaicpu_cust_kernels.so",
    "/usr/lib64/libaicpu_math_kernels.so",   "/usr/lib64/libaicpu_nn_kernels.so",
    "/usr/lib64/libaicpu_data_kernels.so",   "/usr/lib64/libaicpu_queue_kernels.so",
    "/usr/lib64/libaicpu_extend_kernels.so",
};

namespace {

constexpr uint32_t kCheckSumWaitSeconds = 5;
constexpr char kInstallInfo[] = "/usr/lib64/aicpu_kernels/aicpu_package_install.info";
constexpr char kCgroupRoot[] = "/sys/fs/cgroup/memory/usermemory/vf";
constexpr size_t kCheckCodeReadSize = 15;

}  // namespace

namespace package_internal {

std::string CgroupDir(int32_t vfId) {
    return kCgroupRoot + std::to_string(vfId);
}

int OpenPackageFile(const std::string& path, off_t* size, std::string* reason, bool* shortage) {
    struct stat named {};
    if (lstat(path.c_str(), &named) != 0) {
        *shortage = IsShortage(errno);
        *reason = "it cannot be found: " + SafeStrerror();
        return -1;
    }
    // Looked at before it is opened, so that opening it cannot wake a device.
    if (!S_ISREG(named.st_mode)) {
        *reason = std::string("it is a ") + FileKindName(named.st_mode) + ", not a regular file";
        return -1;
    }
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        *shortage = IsShortage(errno);
        *reason = "it cannot be opened: " + SafeStrerror();
        return -1;
    }
    struct stat opened {};
    if (fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode) || opened.st_dev != named.st_dev ||
        opened.st_ino != named.st_ino) {
        close(fd);
        *reason = "it was replaced while it was being opened";
        return -1;
    }
    // Another name would be another file's: its mode is changed below.
    if (opened.st_nlink != 1) {
        close(fd);
        *reason = "it has " + std::to_string(opened.st_nlink) + " names (hard links), not one";
        return -1;
    }
    *size = opened.st_size;
    return fd;
}

}  // namespace package_internal

using package_internal::CgroupDir;
using package_internal::OpenPackageFile;

Mutex PackageWorker::mutexForPackageWorkerMap_;
std::map<int32_t, std::shared_ptr<PackageWorker>> PackageWorker::packageWorkerMap_;

PackageWorker::PackageWorker(int32_t vfId) : vfId_(vfId) {}

std::string PackageWorker::InstallDir() const {
    return kKernelsRoot + std::to_string(vfId_);
}

std::shared_ptr<PackageWorker> PackageWorker::GetInstance(int32_t vfId) {
    if (vfId < 0 || vfId > static_cast<int32_t>(kMaxVfId)) {
        // A host may ask about any id; only those of VFs that can exist get a worker.
        ORV_LOG(ORV_ERROR,
                "[PackageWorker] No package worker for vfId[%d]: VF ids run from 0 to %d.", vfId,
                kMaxVfId);
        return nullptr;
    }
    MutexLock lock(&mutexForPackageWorkerMap_);
    auto it = packageWorkerMap_.find(vfId);
    if (it != packageWorkerMap_.end()) {
        return it->second;
    }
    std::shared_ptr<PackageWorker> worker(new (std::nothrow) PackageWorker(vfId));
    packageWorkerMap_[vfId] = worker;
    return worker;
}

void PackageWorker::ClearWorkerPtr() {
    std::shared_ptr<PackageWorker> self;  // let go outside the lock
    MutexLock lock(&mutexForPackageWorkerMap_);
    auto it = packageWorkerMap_.find(vfId_);
    if (it == packageWorkerMap_.end()) {
        ORV_LOG(ORV_ERROR, "Delete the [%d] packageWorkerPtr from packageWatcherMap_ failed",
                vfId_);
        return;
    }
    self = std::move(it->second);
    packageWorkerMap_.erase(it);
}

PackageWorker::KernelsRemoval::KernelsRemoval(int32_t vfId) {
    {
        MutexLock lock(&mutexForPackageWorkerMap_);
        auto it = packageWorkerMap_.find(vfId);
        if (it != packageWorkerMap_.end()) {
            worker_ = it->second;
        }
    }
    if (worker_ == nullptr) {
        return;
    }
    MutexLock lock(&worker_->workerMutex_);
    ++worker_->removals_;
    ++worker_->generation_;
    // A swap under way is a rename or two: the removal comes after it.
    while (worker_->committing_) {
        worker_->commitCond_.Wait();
    }
    if (worker_->checkCode_ != 0) {
        ORV_LOG(ORV_INFO,
                "[PackageWorker] Kernels of vfId[%d] are removed: check code [%u] goes back to 0.",
                vfId, worker_->checkCode_);
        worker_->checkCode_ = 0;
    }
}

PackageWorker::KernelsRemoval::~KernelsRemoval() {
    if (worker_ != nullptr) {
        MutexLock lock(&worker_->workerMutex_);
        --worker_->removals_;
    }
}

void PackageWorker::Stop() {
    {
        MutexLock lock(&workerMutex_);
        stopped_ = true;
        cancel_ = true;
    }
    checkCodeCond_.SignalAll();
}

void PackageWorker::CancelAllInstalls() {
    MutexLock lock(&mutexForPackageWorkerMap_);
    for (auto& entry : packageWorkerMap_) {
        if (entry.second != nullptr) {
            entry.second->cancel_ = true;
        }
    }
}

void PackageWorker::Destory() {
    Stop();
    ClearWorkerPtr();
}

uint32_t PackageWorker::GetCheckCode() {
    MutexLock lock(&workerMutex_);
    return checkCode_;
}

uint32_t PackageWorker::CheckSum(uint32_t hostCode) {
    MutexLock lock(&workerMutex_);
    if (hostCode == 0) {
        ORV_LOG(ORV_INFO, "Current code is 0, skip check aicpu package code");
        return 0;
    }
    auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(kCheckSumWaitSeconds);
    // The wait's predicate, evaluated at the start, at every wake-up and once
    // more at the deadline.
    bool timedOut = false;
    while (checkCode_ != hostCode) {
        ORV_LOG(ORV_INFO, "Check sum: host check code[%u], device check code[%u]", hostCode,
                checkCode_);
        if (stopped_ || timedOut) {
            break;
        }
        timedOut = !checkCodeCond_.WaitUntil(deadline);
    }
    if (stopped_) {
        return 1;
    }
    if (checkCode_ == hostCode) {
        return 0;
    }
    ORV_LOG(ORV_EVENT,
            "Check sum wait %u second timeout. host check code[%u], device check code[%u]",
            kCheckSumWaitSeconds, hostCode, checkCode_);
    return 1;
}

// ---- Loads -------------------------------------------------------------------------

uint32_t PackageWorker::LoadAICPUPackageForProcessMode(const std::string& dir,
                                                       const std::string& fileName) {
    // No lock is held across the steps below: queries answer from the check
    // code last published, starts wait only for the one they asked for, and
    // a stop ends the install at its next step.
    std::string full = dir + fileName;
    PackageInstall install;
    install.packagePath = full;
    install.publish = true;
    {
        MutexLock lock(&workerMutex_);
        if (stopped_) {
            ORV_LOG(ORV_WARN,
                    "[PackageWorker] vfId[%d] is stopping: package[%s] is left where it is.", vfId_,
                    full.c_str());
            return 1;
        }
        // A cancel meant for the install before (the daemon's stop) is over.
        cancel_ = false;
        install.generation = generation_;
    }
    shortage_ = false;
    // Every step below works on what is opened here, never on the name again.
    off_t size = 0;
    std::string reason;
    bool shortage = false;
    int fd = OpenPackageFile(full, &size, &reason, &shortage);
    if (fd < 0 && shortage) {
        ORV_LOG(ORV_WARN,
                "[PackageWorker] Package[%s] cannot be taken now: %s; it stays where it is and "
                "is tried again.",
                full.c_str(), reason.c_str());
        return kInstallRetryLater;
    }
    if (fd < 0) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: %s.", full.c_str(),
                reason.c_str());
        struct stat named {};
        if (lstat(full.c_str(), &named) == 0 && !S_ISDIR(named.st_mode)) {
            RemoveFile(full);
        }
        return 1;
    }
    ScopeGuard closePackage([fd] { close(fd); });
    install.fd = fd;
    install.size = static_cast<uint64_t>(size);
    // As CalFileSize measures it.
    install.code = static_cast<uint32_t>(install.size & 0xFFFFFFFFULL);
    ORV_LOG(ORV_EVENT, "Package checkcode is [%u], current env checkcode is [%u].", install.code,
            GetCheckCode());
    if (install.code == GetCheckCode()) {
        // Installed already; nobody is waiting for it.
        RemoveFile(full);
        return 0;
    }
    if (!WithinSizeBounds(install)) {
        RemoveFile(full);
        return 1;
    }
    std::string dst;
    if (MoveIntoStaging(install, dir, fileName, dst) != 0) {
        ORV_LOG(ORV_ERROR, "Rename path[%s] file[%s] to dstFile[%s] failed", dir.c_str(),
                fileName.c_str(), dst.c_str());
        if (shortage_) {
            ORV_LOG(ORV_WARN, "[PackageWorker] Package[%s] stays where it is and is tried again.",
                    full.c_str());
            return kInstallRetryLater;
        }
        RemoveFile(full);
        return 1;
    }
    ORV_LOG(ORV_INFO, "Rename path[%s] file[%s] to dstFile[%s] success", dir.c_str(),
            fileName.c_str(), dst.c_str());
    install.packagePath = dst;
    uint32_t ret = 0;
    if (vfId_ > 0 && access(CgroupDir(vfId_).c_str(), F_OK) == 0) {
        ret = UnzipAndSetMemLimit(install);
        if (ret != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] UnzipAndSetMemlimit failed.");
        }
    } else if (DecompressionAicpuPackage(install) != 0) {
        ORV_LOG(ORV_ERROR, "Decompression AicpuPackage[%s] failed", dst.c_str());
        ret = 1;
    }
    if (ret != 0 && (shortage_ || cancel_)) {
        PutBack(install);
        return kInstallRetryLater;
    }
    // The package file never outlives its unpack.
    RemoveFile(dst);
    return ret;
}

bool PackageWorker::WithinSizeBounds(const PackageInstall& install) const {
    if (install.size > limits::kMaxPackageBytes) {
        ORV_LOG(ORV_ERROR,
                "[PackageWorker] Refused package[%s]: it is %llu bytes long, more than the %llu a "
                "kernel package may be.",
                install.packagePath.c_str(), static_cast<unsigned long long>(install.size),
                static_cast<unsigned long long>(limits::kMaxPackageBytes));
        return false;
    }
    if (vfId_ <= 0) {
        return true;
    }
    // The VF's kernels are charged to its memory limit: a package longer than
    // the whole limit can never be installed there.
    uint64_t limit = 0;
    bool known = ForEachBoundedLine(CgroupDir(vfId_) + "/memory.limit_in_bytes",
                                    package_internal::kControlFileBounds,
                                    [&limit](const std::string& line, bool) {
                                        limit = std::strtoull(line.c_str(), nullptr, 10);
                                        return false;
                                    }) != LinesEnd::kUnreadable;
    if (known && limit != 0 && install.size > limit) {
        ORV_LOG(ORV_ERROR,
                "[PackageWorker] Refused package[%s]: it is %llu bytes long, more than vfId[%d]'s "
                "memory limit of %llu.",
                install.packagePath.c_str(), static_cast<unsigned long long>(install.size), vfId_,
                static_cast<unsigned long long>(limit));
        return false;
    }
    return true;
}

uint32_t PackageWorker::LoadAICPUPackageForThreadMode(const std::string& dstDir,
                                                      const std::string& srcDir,
                                                      const std::string& fileName) {
    uint32_t code = CalFileSize(srcDir + fileName);
    uint32_t saved = 0;
    ORV_LOG(ORV_EVENT, "Package checkcode is [%u]", code);
    int fd = open(kInstallInfo, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        ORV_LOG(ORV_ERROR,
                "Open aicpu_package_install.info failed, please install aicpu_kernels run again");
        return 1;
    }
    ScopeGuard closeFile([fd] { close(fd); });
    uint32_t ret = GetSavedCheckCode(fd, saved);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "Get saved check_code failed.");
        return ret;
    }
    if (saved == code) {
        ORV_LOG(ORV_INFO, "Aicpu kernel so not change. no need to compress");
        return 0;
    }
    if (flock(fd, LOCK_EX) != 0) {
        ORV_LOG(ORV_INFO, "Write file lock failed");
        return 1;
    }
    ScopeGuard unlock([fd] { flock(fd, LOCK_UN); });
    // Read again without rewinding: it continues where the first read ended.
    (void)ReadCheckCode(fd, saved);
    if (saved == code) {
        ORV_LOG(ORV_INFO, "Aicpu kernel so not change. no need to compress");
        return 0;
    }
    if (!CopyAICPUPackage(dstDir, srcDir, fileName)) {
        ORV_LOG(ORV_ERROR, "[OrvClient] Move file[%s] from path[%s] to path[%s] failed",
                fileName.c_str(), srcDir.c_str(), dstDir.c_str());
        return 1;
    }
    std::string package = dstDir + fileName;
    if (DecompressionAicpuPackage(package) != 0) {
        ORV_LOG(ORV_ERROR, "Decompression AicpuPackage[%s] failed", package.c_str());
        return 1;
    }
    if (!WriteCheckCode(fd, code)) {
        ORV_LOG(ORV_ERROR, "Write check code failed.");
        return 1;
    }
    ORV_LOG(ORV_INFO, "Decompression AicpuPackage[%s] succ", package.c_str());
    return 0;
}

// ---- The install-info file of thread mode --------------------------------------------

bool PackageWorker::ReadCheckCode(int fd, uint32_t& code) const {
    char text[kCheckCodeReadSize + 1] = {0};
    ssize_t n = read(fd, text, kCheckCodeReadSize);
    if (n < 0) {
        code = 0;
        ORV_LOG(ORV_INFO, "Read check code in file failed");
        return false;
    }
    text[n] = '\0';
    long value = strtol(text, nullptr, 10);
    code = value < 1 ? 0 : static_cast<uint32_t>(value);
    return true;
}

uint32_t PackageWorker::GetSavedCheckCode(const int& fd, uint32_t& code) const {
    if (flock(fd, LOCK_SH) != 0) {
        ORV_LOG(ORV_INFO, "Read file lock failed");
        return 1;
    }
    (void)ReadCheckCode(fd, code);
    if (flock(fd, LOCK_UN) != 0) {
        ORV_LOG(ORV_INFO, "Unlock Read file failed");
        return 1;
    }
    return 0;
}

bool PackageWorker::WriteCheckCode(int fd, uint32_t code) const {
    // No truncation: a shorter number leaves the tail of a longer old one.
    (void)lseek(fd, 0, SEEK_SET);
    std::string text = std::to_string(code);
    if (write(fd, text.data(), text.size()) < 0) {
        ORV_LOG(ORV_INFO, "Write vertify.txt failed");
        return false;
    }
    return true;
}

}  // namespace orv
