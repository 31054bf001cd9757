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

int OpenPackageFile(const std::string& path, off_t* size, std::string* reason) {
    struct stat named {};
    if (lstat(path.c_str(), &named) != 0) {
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

PackageWorker::KernelsRemoval::KernelsRemoval(int32_t vfId) NO_THREAD_SAFETY_ANALYSIS {
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
    worker_->workerMutex_.Lock();
    if (worker_->checkCode_ != 0) {
        ORV_LOG(ORV_INFO,
                "[PackageWorker] Kernels of vfId[%d] are removed: check code [%u] goes back to 0.",
                vfId, worker_->checkCode_);
        worker_->checkCode_ = 0;
    }
}

PackageWorker::KernelsRemoval::~KernelsRemoval() NO_THREAD_SAFETY_ANALYSIS {
    if (worker_ != nullptr) {
        worker_->workerMutex_.Unlock();
    }
}

void PackageWorker::Stop() {
    {
        MutexLock lock(&workerMutex_);
        stopped_ = true;
    }
    checkCodeCond_.SignalAll();
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
    MutexLock lock(&workerMutex_);
    std::string full = dir + fileName;
    // Every step below works on what is opened here, never on the name again.
    off_t size = 0;
    std::string reason;
    int fd = OpenPackageFile(full, &size, &reason);
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
    // As CalFileSize measures it.
    uint32_t code = static_cast<uint32_t>(static_cast<uint64_t>(size) & 0xFFFFFFFFULL);
    ORV_LOG(ORV_EVENT, "Package checkcode is [%u], current env checkcode is [%u].", code,
            checkCode_);
    if (code == checkCode_) {
        // Installed already; nobody is waiting for it.
        RemoveFile(full);
        return 0;
    }
    std::string dst;
    if (RenameAICPUPackage(dir, fileName, dst) != 0) {
        ORV_LOG(ORV_ERROR, "Rename path[%s] file[%s] to dstFile[%s] failed", dir.c_str(),
                fileName.c_str(), dst.c_str());
        RemoveFile(full);
        return 1;
    }
    ORV_LOG(ORV_INFO, "Rename path[%s] file[%s] to dstFile[%s] success", dir.c_str(),
            fileName.c_str(), dst.c_str());
    if (vfId_ > 0 && access(CgroupDir(vfId_).c_str(), F_OK) == 0) {
        uint32_t ret = UnzipAndSetMemLimit(dst, fd);
        if (ret != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] UnzipAndSetMemlimit failed.");
            return ret;
        }
    } else if (DecompressionAicpuPackage(dst, fd) != 0) {
        ORV_LOG(ORV_ERROR, "Decompression AicpuPackage[%s] failed", dst.c_str());
        return 1;
    }
    checkCode_ = code;
    if (vfId_ == 0) {
        for (const std::string& path : kSandBoxList) {
            RemoveFile(path);
        }
    }
    checkCodeCond_.SignalAll();
    return 0;
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
