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

// Package workers exist for the physical function and VFs 1 to 16 only.
constexpr uint32_t kCheckSumWaitSeconds = 5;
constexpr char kSrcPackageName[] = "srcPackageName";
constexpr char kInnerPackageName[] = "innerPackageName";
constexpr char kSandBoxPrefix[] = "SandBoxSo=";
constexpr char kStagingDir[] = "/home/QelvarUser/aicpu_kernels/";
constexpr char kDeviceSubdir[] = "/aicpu_kernels_device/";
constexpr char kVersionInfo[] = "version.info";
constexpr char kSandBoxDir[] = "sand_box";
constexpr char kInstallInfo[] = "/usr/lib64/aicpu_kernels/aicpu_package_install.info";
constexpr char kCgroupRoot[] = "/sys/fs/cgroup/memory/usermemory/vf";
constexpr char kMemoryScript[] = "cd /var && sudo /var/orvdaemon_modify_usermemory.sh";
constexpr mode_t kDirMode = 0750;
constexpr size_t kCheckCodeReadSize = 15;
constexpr uint32_t kMaxWalkDepth = 20;
// A first install needs strictly more room than this below the limit ("150M").
constexpr uint64_t kMinFreeBytes = 157286399;

constexpr size_t kCopyChunk = 65536;

std::string CgroupDir(int32_t vfId) {
    return kCgroupRoot + std::to_string(vfId);
}

// Calls `onLine` with each line of a file (without its new line) until it
// returns false. The file is opened close-on-exec, without following a link in
// its last component and without waiting on a FIFO; false when it cannot be.
template <typename OnLine>
bool ForEachLine(const std::string& path, OnLine onLine) {
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    FILE* file = fd >= 0 ? fdopen(fd, "r") : nullptr;
    if (file == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    ScopeGuard closeFile([file] { fclose(file); });
    char* buffer = nullptr;
    size_t capacity = 0;
    ScopeGuard freeBuffer([&buffer] { free(buffer); });
    ssize_t length;
    while ((length = getline(&buffer, &capacity, file)) >= 0) {
        std::string line(buffer, static_cast<size_t>(length));
        if (!line.empty() && line.back() == '\n') {
            line.pop_back();
        }
        if (!onLine(line)) {
            break;
        }
    }
    return true;
}

// The first "SandBoxSo=" line of a version.info, into `line`; false when it
// has none. `readable` tells whether the file could be read at all.
bool FindSandBoxLine(const std::string& versionInfo, std::string* line, bool* readable) {
    const std::string prefix = kSandBoxPrefix;
    bool found = false;
    *readable = ForEachLine(versionInfo, [&](const std::string& text) {
        found = text.compare(0, prefix.size(), prefix) == 0;
        if (found) {
            *line = text;
        }
        return !found;
    });
    return found;
}

// The names of a "SandBoxSo=" value: comma-separated, blanks around each
// ignored, empty ones skipped.
std::vector<std::string> SandBoxItems(const std::string& value) {
    std::vector<std::string> items;
    std::stringstream pieces(value);
    for (std::string piece; std::getline(pieces, piece, ',');) {
        Trim(piece);
        if (!piece.empty()) {
            items.push_back(piece);
        }
    }
    return items;
}

// A name that stays in the directory it is looked up in.
bool IsPlainFileName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// Opens a dropped package once, for every later step to use: without
// following a link, without waiting on a FIFO or device, and only when it is
// a regular file. Its descriptor, or -1 with the reason.
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

// A copy of the package that no other process holds open for writing, so
// that what is verified is what is unpacked. Its descriptor, or -1.
int CopyToPrivateFile(int packageFd, std::string* reason) {
    int copy = open(kStagingDir, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (copy < 0) {
        // A file system without unnamed files: keep it in memory.
        copy = memfd_create("orv-package", MFD_CLOEXEC);
    }
    if (copy < 0) {
        *reason = "no private copy can be made: " + SafeStrerror();
        return -1;
    }
    char buffer[kCopyChunk];
    off_t offset = 0;
    for (;;) {
        ssize_t n = pread(packageFd, buffer, sizeof(buffer), offset);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            *reason = "it cannot be read: " + SafeStrerror();
            close(copy);
            return -1;
        }
        if (n == 0) {
            return copy;
        }
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(copy, buffer + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR) {
                continue;
            }
            if (w <= 0) {
                *reason = "its private copy cannot be written: " + SafeStrerror();
                close(copy);
                return -1;
            }
            done += w;
        }
        offset += n;
    }
}

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

// A path that names an open descriptor, for interfaces that take paths.
std::string DescriptorPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

}  // namespace

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

// ---- The steps of an install -----------------------------------------------------------

uint32_t PackageWorker::VerifyAicpuPackage(const std::string& packagePath) const {
    void* handle = mmDlopen(IMG_VERIFY_LIBRARY, 1);
    if (handle == nullptr) {
        ORV_LOG(ORV_ERROR, "Dlopen libvelkan_imgverify.so failed.");
        return kVerifyFailed;
    }
    ScopeGuard closeLibrary([handle] { (void)mmDlclose(handle); });
    auto verify = reinterpret_cast<HalVerifyImgFunc>(mmDlsym(handle, IMG_VERIFY_SYMBOL));
    if (verify == nullptr) {
        ORV_LOG(ORV_ERROR, "Get api halVerifyImg in libvelkan_imgverify.so failed");
        return kVerifyFailed;
    }
    if (verify(0, 0, packagePath.c_str(), 1) != 0) {
        ORV_LOG(ORV_ERROR, "Check head tag failed");
        return kVerifyFailed;
    }
    return 0;
}

uint32_t PackageWorker::DecompressionAicpuPackage(std::string& packagePath) {
    if (faccessat(AT_FDCWD, packagePath.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] No aicpu package need to decompression, name[%s].",
                packagePath.c_str());
        return 1;
    }
    off_t size = 0;
    std::string reason;
    int fd = OpenPackageFile(packagePath, &size, &reason);
    if (fd < 0) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: %s.", packagePath.c_str(),
                reason.c_str());
        RemoveFile(packagePath);
        return 1;
    }
    ScopeGuard closePackage([fd] { close(fd); });
    return DecompressionAicpuPackage(packagePath, fd);
}

uint32_t PackageWorker::DecompressionAicpuPackage(const std::string& packagePath, int packageFd) {
    StagedKernels staged(InstallDir());
    uint32_t ret = PrepareKernels(packagePath, packageFd, staged);
    return ret != 0 ? ret : CommitKernels(packagePath, staged);
}

uint32_t PackageWorker::UnzipAndSetMemLimit(std::string& packagePath) {
    off_t size = 0;
    std::string reason;
    int fd = OpenPackageFile(packagePath, &size, &reason);
    if (fd < 0) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: %s.", packagePath.c_str(),
                reason.c_str());
        RemoveFile(packagePath);
        return 1;
    }
    ScopeGuard closePackage([fd] { close(fd); });
    return UnzipAndSetMemLimit(packagePath, fd);
}

uint32_t PackageWorker::UnzipAndSetMemLimit(const std::string& packagePath, int packageFd) {
    if (CheckMemoryLimit() != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Set or check memory limit failed");
        RemoveFile(packagePath);
        return 1;
    }
    std::string installDir = InstallDir();
    uint64_t oldSize = 0;
    GetPackageSize(installDir, oldSize);
    StagedKernels staged(installDir);
    if (PrepareKernels(packagePath, packageFd, staged) != 0) {
        ORV_LOG(ORV_ERROR, "Decompression AicpuPackage[%s] failed", packagePath.c_str());
        return 1;
    }
    uint64_t newSize = 0;
    GetPackageSize(staged.Dir(), newSize);
    // The limit moves before the kernels do: a limit that cannot take the new
    // kernels leaves the old ones installed and charged.
    if (RestoreMemUsage(oldSize, newSize) != 0) {
        ORV_LOG(ORV_ERROR, "Set User memory limit failed");
        return 1;
    }
    if (CommitKernels(packagePath, staged) != 0) {
        // The old kernels stayed, and take their old room again.
        (void)RestoreMemUsage(newSize, oldSize);
        return 1;
    }
    return 0;
}

uint32_t PackageWorker::PrepareKernels(const std::string& packagePath, int packageFd,
                                       StagedKernels& staged) {
    // The package file never outlives its unpack.
    ScopeGuard removePackage([this, &packagePath] { RemoveFile(packagePath); });
    if (fchmod(packageFd, kDirMode) != 0) {
        ORV_LOG(ORV_ERROR, "Change directory:[%s] mode failed, errno:[%s].", packagePath.c_str(),
                SafeStrerror().c_str());
        return 1;
    }
    std::string reason;
    int copy = CopyToPrivateFile(packageFd, &reason);
    if (copy < 0) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Package[%s] cannot be installed: %s.",
                packagePath.c_str(), reason.c_str());
        return 1;
    }
    ScopeGuard closeCopy([copy] { close(copy); });
    if (VerifyAicpuPackage(DescriptorPath(copy)) != 0) {
        ORV_LOG(ORV_ERROR, "Verify Aicpu package failed, srcPath[%s].", packagePath.c_str());
        return kVerifyFailed;
    }
    if (!staged.Ok(&reason)) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Package[%s] cannot be installed: %s.",
                packagePath.c_str(), reason.c_str());
        return 1;
    }
    std::string unzip = "gzip -dc < " + packagePath + " | tar -xof - -C " + staged.Dir();
    ORV_LOG(ORV_INFO, "Unzip_cmd is [%s]", unzip.c_str());
    if (!UnpackPackage(copy, staged.Dir(), &reason)) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: %s.", packagePath.c_str(),
                reason.c_str());
        return kVerifyFailed;
    }
    std::string stagedDir = staged.Dir();
    PackageNameMap names;
    if (GetPackageName(packagePath, stagedDir, names) != 0) {
        ORV_LOG(ORV_ERROR, "GetPackageName faild");
        return kVerifyFailed;
    }
    if (names[kSrcPackageName] != names[kInnerPackageName]) {
        ORV_LOG(ORV_ERROR, "Do clean_cmd failed, packageNames not found");
        return 1;
    }
    std::string deviceDir = stagedDir + kDeviceSubdir;
    if (!CheckSandBox(deviceDir, &reason)) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: %s.", packagePath.c_str(),
                reason.c_str());
        return kVerifyFailed;
    }
    uint32_t moved = MoveSoToSandBox(deviceDir);
    if (moved != 0) {
        ORV_LOG(ORV_EVENT, "Move dynamic link so to sand box failed! status is %d.",
                static_cast<int>(moved));
    }
    // Moved links resolve from where they are now.
    if (!CheckKernelTree(stagedDir, &reason)) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: %s.", packagePath.c_str(),
                reason.c_str());
        return kVerifyFailed;
    }
    // A missing or faulty sand box does not fail the install.
    ORV_LOG(ORV_INFO, "Move dynamic link so to sand box success.");
    return 0;
}

uint32_t PackageWorker::CommitKernels(const std::string& packagePath, StagedKernels& staged) {
    std::string reason;
    if (!staged.Commit(&reason)) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Package[%s] cannot be installed: %s.",
                packagePath.c_str(), reason.c_str());
        return 1;
    }
    return 0;
}

bool PackageWorker::CheckSandBox(const std::string& deviceDir, std::string* reason) const {
    struct stat st {};
    std::string device = deviceDir.substr(0, deviceDir.size() - 1);
    if (lstat(device.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        *reason = "its aicpu_kernels_device is not a real directory";
        return false;
    }
    std::string sandBox = deviceDir + kSandBoxDir;
    if (lstat(sandBox.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
        *reason =
            std::string("its sand_box is a ") + FileKindName(st.st_mode) + ", not a real directory";
        return false;
    }
    std::string line;
    bool readable = false;
    if (!FindSandBoxLine(deviceDir + kVersionInfo, &line, &readable)) {
        return true;
    }
    for (const std::string& item : SandBoxItems(line.substr(std::string(kSandBoxPrefix).size()))) {
        if (!IsPlainFileName(item)) {
            *reason = "its SandBoxSo= entry [" + item + "] is not a plain file name";
            return false;
        }
    }
    return true;
}

uint32_t PackageWorker::GetPackageName(const std::string& packagePath, std::string& installDir,
                                       PackageNameMap& names) const {
    static const std::regex kArchiveName("Velkan[0-9]{3}.*\\.tar\\.gz");
    std::smatch match;
    if (!std::regex_search(packagePath, match, kArchiveName)) {
        ORV_LOG(ORV_ERROR, "Package name in device is invalid");
        return kVerifyFailed;
    }
    names[kSrcPackageName] = match.str();
    ORV_LOG(ORV_INFO, "[OrvDaemon] Get srcPackageName[%s] success.",
            names[kSrcPackageName].c_str());
    std::string inner = installDir + kDeviceSubdir + kVersionInfo;
    ORV_LOG(ORV_INFO, "PackageInnerFile is [%s]", inner.c_str());
    bool opened = ForEachLine(inner, [&names](const std::string& line) {
        if (line.find('=') == std::string::npos || line.find("Name") == std::string::npos) {
            return true;
        }
        names[kInnerPackageName] = line.substr(line.find('=') + 1);
        ORV_LOG(ORV_INFO, "[OrvDaemon] Get innerPackageName[%s] success.",
                names[kInnerPackageName].c_str());
        return false;
    });
    if (!opened) {
        ORV_LOG(ORV_ERROR, "Open package name file failed");
        return 1;
    }
    return 0;
}

uint32_t PackageWorker::MoveSoToSandBox(const std::string& deviceDir) const {
    const std::string prefix = kSandBoxPrefix;
    std::string line;
    bool readable = false;
    bool found = FindSandBoxLine(deviceDir + kVersionInfo, &line, &readable);
    if (!readable) {
        ORV_LOG(ORV_ERROR, "Open version info file failed");
        return 1;
    }
    if (!found) {
        ORV_LOG(ORV_EVENT, "Sand box so item in version.info is not exist. Please check.");
        return 0;
    }
    ORV_LOG(ORV_INFO, "Sand box so item is %s.", line.c_str());
    std::string value = line.substr(prefix.size());
    if (value.empty()) {
        ORV_LOG(ORV_ERROR, "Sand box so item value is empty. Sand box so item is %s.",
                line.c_str());
        return 1;
    }
    std::string sandDir = deviceDir + kSandBoxDir + "/";
    if (CheckOrMakeDirectory(sandDir) != 0) {
        ORV_LOG(ORV_ERROR, "Check or make directory[%s] failed.", sandDir.c_str());
        return 1;
    }
    for (const std::string& piece : SandBoxItems(value)) {
        // A name with a "/" would move files from and to anywhere.
        if (!IsPlainFileName(piece)) {
            ORV_LOG(ORV_ERROR,
                    "[PackageWorker] Sand box so item [%s] is not a plain file name, skip.",
                    piece.c_str());
            continue;
        }
        std::string from = deviceDir + piece;
        std::string to = sandDir + piece;
        if (rename(from.c_str(), to.c_str()) == 0) {
            ORV_LOG(ORV_EVENT, "Rename file [%s] to [%s] success.", from.c_str(), to.c_str());
        } else {
            ORV_LOG(ORV_EVENT, "Rename file [%s] to [%s] failed, error is %s.", from.c_str(),
                    to.c_str(), SafeStrerror().c_str());
        }
    }
    return 0;
}

uint32_t PackageWorker::RenameAICPUPackage(const std::string& dir, const std::string& fileName,
                                           std::string& dst) {
    std::string src = dir + fileName;
    dst = std::string(kStagingDir) + "vf" + std::to_string(vfId_) + "_" + fileName;
    if (CheckOrMakeDirectory(kStagingDir) != 0) {
        ORV_LOG(ORV_ERROR, "Check or make directory[%s] failed.", kStagingDir);
        return 1;
    }
    if (rename(src.c_str(), dst.c_str()) != 0) {
        ORV_LOG(ORV_ERROR, "Rename file [%s] to [%s] failed", src.c_str(), dst.c_str());
        return 1;
    }
    return 0;
}

bool PackageWorker::CopyAICPUPackage(const std::string& dstDir, const std::string& srcDir,
                                     const std::string& fileName) const {
    if (access(dstDir.c_str(), F_OK) != 0 && mkdir(dstDir.c_str(), kDirMode) != 0) {
        ORV_LOG(ORV_ERROR, "Create directory:[%s] failed, errno:[%s].", dstDir.c_str(),
                SafeStrerror().c_str());
        return false;
    }
    ORV_LOG(ORV_INFO, "[OrvClient] Create path[%s] success", dstDir.c_str());
    std::string command = "cp '" + srcDir + fileName + "' '" + dstDir + fileName + "'";
    if (PackSystem(command.c_str()) != 0) {
        ORV_LOG(ORV_INFO, "[OrvClient] Copy file[%s] from path[%s] to path[%s] fail",
                fileName.c_str(), srcDir.c_str(), dstDir.c_str());
        return false;
    }
    ORV_LOG(ORV_INFO, "[OrvClient] Copy file[%s] from path[%s] to path[%s] success",
            fileName.c_str(), srcDir.c_str(), dstDir.c_str());
    return true;
}

uint32_t PackageWorker::CheckOrMakeDirectory(const std::string& dir) const {
    if (access(dir.c_str(), F_OK) != 0) {
        if (mkdir(dir.c_str(), kDirMode) != 0) {
            bool exists = errno == EEXIST;
            std::string text = "Create directory:" + dir + " failed, error:" + SafeStrerror();
            if (!exists) {
                ORV_LOG(ORV_ERROR, "%s", text.c_str());
                return 1;
            }
            ORV_LOG(ORV_EVENT, "%s", text.c_str());
        }
        if (chmod(dir.c_str(), kDirMode) != 0) {
            ORV_LOG(ORV_ERROR, "Change directory:%s mode failed, error:[%s].", dir.c_str(),
                    SafeStrerror().c_str());
            return 1;
        }
    }
    // A link would take what goes into the directory elsewhere (and a final
    // "/" would make lstat follow it).
    std::string bare = dir;
    while (bare.size() > 1 && bare.back() == '/') {
        bare.pop_back();
    }
    struct stat st {};
    if (lstat(bare.c_str(), &st) != 0 || S_ISLNK(st.st_mode) || mmIsDir(dir.c_str()) != EN_OK) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] path[%s] is not a folder.", dir.c_str());
        return 1;
    }
    return 0;
}

void PackageWorker::RemoveFile(const std::string& path) const {
    int ret = remove(path.c_str());
    if (ret != 0) {
        ORV_LOG(ORV_WARN, "Remove file: [%s] failed, ret is [%d]", path.c_str(), ret);
        return;
    }
    ORV_LOG(ORV_EVENT, "Remove file: [%s] success", path.c_str());
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
    bool opened = ForEachLine(file, [&line](const std::string& first) {
        line = first;
        return false;
    });
    if (!opened) {
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
    if (PackSystem(command.c_str()) != 0) {
        ORV_LOG(ORV_ERROR, "SetMemoryControlValue failed, command: [%s]", SafeStrerror().c_str());
        return 1;
    }
    return 0;
}

}  // namespace orv
