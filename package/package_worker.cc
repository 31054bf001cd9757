#include "package/package_worker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <regex>
#include <sstream>

#include <bounds_checked.h>
#include <img_verify.h>
#include <osal.h>

#include "package/internal_api.h"
#include "platform/log.h"
#include "platform/scope_guard.h"

namespace orv {

const std::vector<std::string> kSandBoxList = {
    "/usr/lib64/libaicpu_kernels.so",      "/usr/lib64/libaicpu_cust_kernels.so",
    "/usr/lib64/libaicpu_math_kernels.so", "/usr/lib64/libaicpu_nn_kernels.so",
    "/usr/lib64/libaicpu_data_kernels.so", "/usr/lib64/libaicpu_queue_kernels.so",
    "/usr/lib64/libaicpu_extend_kernels.so",
};

namespace {

constexpr uint32_t kCheckSumWaitSeconds = 5;
constexpr uint32_t kVerifyFailed = 14;
constexpr char kSrcPackageName[] = "srcPackageName";
constexpr char kInnerPackageName[] = "innerPackageName";
constexpr char kSandBoxPrefix[] = "SandBoxSo=";
constexpr char kStagingDir[] = "/home/QelvarUser/aicpu_kernels/";
constexpr char kKernelsRoot[] = "/usr/lib64/aicpu_kernels/";
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

std::string CgroupDir(int32_t vfId) {
    return kCgroupRoot + std::to_string(vfId);
}

}  // namespace

Mutex PackageWorker::mutexForPackageWorkerMap_;
std::map<int32_t, std::shared_ptr<PackageWorker>> PackageWorker::packageWorkerMap_;

PackageWorker::PackageWorker(int32_t vfId) : vfId_(vfId) {}

std::string PackageWorker::InstallDir() const {
    return kKernelsRoot + std::to_string(vfId_);
}

std::shared_ptr<PackageWorker> PackageWorker::GetInstance(int32_t vfId) {
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
        ORV_LOG(ORV_ERROR, "Delete the [%d] packageWorkerPtr from packageWatcherMap_ failed", vfId_);
        return;
    }
    self = std::move(it->second);
    packageWorkerMap_.erase(it);
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
        ORV_LOG(ORV_INFO, "Check sum: host check code[%u], device check code[%u]", hostCode, checkCode_);
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
    ORV_LOG(ORV_EVENT, "Check sum wait %u second timeout. host check code[%u], device check code[%u]",
            kCheckSumWaitSeconds, hostCode, checkCode_);
    return 1;
}

// ---- Loads -------------------------------------------------------------------------

uint32_t PackageWorker::LoadAICPUPackageForProcessMode(const std::string& dir, const std::string& fileName) {
    MutexLock lock(&workerMutex_);
    std::string full = dir + fileName;
    uint32_t code = CalFileSize(full);
    ORV_LOG(ORV_EVENT, "Package checkcode is [%u], current env checkcode is [%u].", code, checkCode_);
    if (code == checkCode_) {
        // Installed already; nobody is waiting for it.
        RemoveFile(full);
        return 0;
    }
    std::string dst;
    if (RenameAICPUPackage(dir, fileName, dst) != 0) {
        ORV_LOG(ORV_ERROR, "Rename path[%s] file[%s] to dstFile[%s] failed", dir.c_str(), fileName.c_str(), dst.c_str());
        RemoveFile(full);
        return 1;
    }
    ORV_LOG(ORV_INFO, "Rename path[%s] file[%s] to dstFile[%s] success", dir.c_str(), fileName.c_str(), dst.c_str());
    if (vfId_ > 0 && access(CgroupDir(vfId_).c_str(), F_OK) == 0) {
        uint32_t ret = UnzipAndSetMemLimit(dst);
        if (ret != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] UnzipAndSetMemlimit failed.");
            return ret;
        }
    } else if (DecompressionAicpuPackage(dst) != 0) {
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

uint32_t PackageWorker::LoadAICPUPackageForThreadMode(const std::string& dstDir, const std::string& srcDir,
                                                      const std::string& fileName) {
    uint32_t code = CalFileSize(srcDir + fileName);
    uint32_t saved = 0;
    ORV_LOG(ORV_EVENT, "Package checkcode is [%u]", code);
    int fd = open(kInstallInfo, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        ORV_LOG(ORV_ERROR, "Open aicpu_package_install.info failed, please install aicpu_kernels run again");
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
        ORV_LOG(ORV_ERROR, "[OrvClient] Move file[%s] from path[%s] to path[%s] failed", fileName.c_str(),
                srcDir.c_str(), dstDir.c_str());
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
    if (access(packagePath.c_str(), F_OK) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] No aicpu package need to decompression, name[%s].", packagePath.c_str());
        return 1;
    }
    // The package file never outlives its unpack.
    ScopeGuard removePackage([this, &packagePath] { RemoveFile(packagePath); });
    if (chmod(packagePath.c_str(), kDirMode) != 0) {
        ORV_LOG(ORV_ERROR, "Change directory:[%s] mode failed, errno:[%s].", packagePath.c_str(),
                SafeStrerror().c_str());
        return 1;
    }
    if (VerifyAicpuPackage(packagePath) != 0) {
        ORV_LOG(ORV_ERROR, "Verify Aicpu package failed, srcPath[%s].", packagePath.c_str());
        return kVerifyFailed;
    }
    std::string installDir = InstallDir();
    std::string unzip = "rm -rf " + installDir + " && mkdir -p " + installDir + " && tar -zxvf " + packagePath +
                        " -C " + installDir;
    ORV_LOG(ORV_INFO, "Unzip_cmd is [%s]", unzip.c_str());
    // Whether the unpack worked is judged by the name check that follows.
    (void)PackSystem(unzip.c_str());
    PackageNameMap names;
    if (GetPackageName(packagePath, installDir, names) != 0) {
        RemoveFile(installDir);
        ORV_LOG(ORV_ERROR, "GetPackageName faild");
        return kVerifyFailed;
    }
    if (names[kSrcPackageName] != names[kInnerPackageName]) {
        RemoveFile(installDir);
        ORV_LOG(ORV_ERROR, "Do clean_cmd failed, packageNames not found");
        return 1;
    }
    uint32_t moved = MoveSoToSandBox(installDir + kDeviceSubdir);
    if (moved != 0) {
        ORV_LOG(ORV_EVENT, "Move dynamic link so to sand box failed! status is %d.", static_cast<int>(moved));
    }
    // A missing or faulty sand box does not fail the install.
    ORV_LOG(ORV_INFO, "Move dynamic link so to sand box success.");
    return 0;
}

uint32_t PackageWorker::UnzipAndSetMemLimit(std::string& packagePath) {
    if (CheckMemoryLimit() != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Set or check memory limit failed");
        RemoveFile(packagePath);
        return 1;
    }
    std::string installDir = InstallDir();
    uint64_t oldSize = 0;
    GetPackageSize(installDir, oldSize);
    if (DecompressionAicpuPackage(packagePath) != 0) {
        ORV_LOG(ORV_ERROR, "Decompression AicpuPackage[%s] failed", packagePath.c_str());
        return 1;
    }
    uint64_t newSize = 0;
    GetPackageSize(installDir, newSize);
    if (RestoreMemUsage(oldSize, newSize) != 0) {
        ORV_LOG(ORV_ERROR, "Set User memory limit failed");
        return 1;
    }
    return 0;
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
    ORV_LOG(ORV_INFO, "[OrvDaemon] Get srcPackageName[%s] success.", names[kSrcPackageName].c_str());
    std::string inner = installDir + kDeviceSubdir + kVersionInfo;
    ORV_LOG(ORV_INFO, "PackageInnerFile is [%s]", inner.c_str());
    std::ifstream file(inner);
    if (!file.is_open()) {
        ORV_LOG(ORV_ERROR, "Open package name file failed");
        return 1;
    }
    std::string line;
    while (std::getline(file, line)) {
        if (line.find('=') != std::string::npos && line.find("Name") != std::string::npos) {
            names[kInnerPackageName] = line.substr(line.find('=') + 1);
            ORV_LOG(ORV_INFO, "[OrvDaemon] Get innerPackageName[%s] success.", names[kInnerPackageName].c_str());
            break;
        }
    }
    return 0;
}

uint32_t PackageWorker::MoveSoToSandBox(const std::string& deviceDir) const {
    std::ifstream file(deviceDir + kVersionInfo);
    if (!file.is_open()) {
        ORV_LOG(ORV_ERROR, "Open version info file failed");
        return 1;
    }
    const std::string prefix = kSandBoxPrefix;
    std::string line;
    bool found = false;
    while (std::getline(file, line)) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            found = true;
            break;
        }
    }
    if (!found) {
        ORV_LOG(ORV_EVENT, "Sand box so item in version.info is not exist. Please check.");
        return 0;
    }
    ORV_LOG(ORV_INFO, "Sand box so item is %s.", line.c_str());
    std::string value = line.substr(prefix.size());
    if (value.empty()) {
        ORV_LOG(ORV_ERROR, "Sand box so item value is empty. Sand box so item is %s.", line.c_str());
        return 1;
    }
    std::string sandDir = deviceDir + kSandBoxDir + "/";
    if (CheckOrMakeDirectory(sandDir) != 0) {
        ORV_LOG(ORV_ERROR, "Check or make directory[%s] failed.", sandDir.c_str());
        return 1;
    }
    std::stringstream pieces(value);
    std::string piece;
    while (std::getline(pieces, piece, ',')) {
        Trim(piece);
        if (piece.empty()) {
            continue;
        }
        std::string from = deviceDir + piece;
        std::string to = sandDir + piece;
        if (rename(from.c_str(), to.c_str()) == 0) {
            ORV_LOG(ORV_EVENT, "Rename file [%s] to [%s] success.", from.c_str(), to.c_str());
        } else {
            ORV_LOG(ORV_EVENT, "Rename file [%s] to [%s] failed, error is %s.", from.c_str(), to.c_str(),
                    SafeStrerror().c_str());
        }
    }
    return 0;
}

uint32_t PackageWorker::RenameAICPUPackage(const std::string& dir, const std::string& fileName, std::string& dst) {
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
        ORV_LOG(ORV_ERROR, "Create directory:[%s] failed, errno:[%s].", dstDir.c_str(), SafeStrerror().c_str());
        return false;
    }
    ORV_LOG(ORV_INFO, "[OrvClient] Create path[%s] success", dstDir.c_str());
    std::string command = "cp '" + srcDir + fileName + "' '" + dstDir + fileName + "'";
    if (PackSystem(command.c_str()) != 0) {
        ORV_LOG(ORV_INFO, "[OrvClient] Copy file[%s] from path[%s] to path[%s] fail", fileName.c_str(), srcDir.c_str(),
                dstDir.c_str());
        return false;
    }
    ORV_LOG(ORV_INFO, "[OrvClient] Copy file[%s] from path[%s] to path[%s] success", fileName.c_str(), srcDir.c_str(),
            dstDir.c_str());
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
            ORV_LOG(ORV_ERROR, "Change directory:%s mode failed, error:[%s].", dir.c_str(), SafeStrerror().c_str());
            return 1;
        }
    }
    if (mmIsDir(dir.c_str()) != EN_OK) {
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

void PackageWorker::GetPackageSizeInSubdirectory(const std::string& dir, const uint32_t& depth, uint64_t& size,
                                                 std::queue<std::pair<std::string, uint32_t>>& pending) const {
    if (dir.empty() || depth > kMaxWalkDepth) {
        return;
    }
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr) {
        ORV_LOG(ORV_WARN, "GetPackageSize path is invalid:%s, depth:%u", dir.c_str(), depth);
        return;
    }
    struct stat status {};
    if (lstat(dir.c_str(), &status) == 0) {
        size += static_cast<uint64_t>(status.st_size);
    }
    while (dirent* entry = readdir(handle)) {
        std::string name = entry->d_name;
        // The bare name, against the working directory: where that fails the
        // status of the previous entry stands. Kept as the installed size has
        // always been measured.
        (void)lstat(entry->d_name, &status);
        std::string full = dir + "/" + name;
        bool sizedByName = name.find(".so") != std::string::npos || name.find(".info") != std::string::npos;
        if (!sizedByName && S_ISDIR(status.st_mode)) {
            if (name != "." && name != "..") {
                pending.emplace(full, depth + 1);
            }
        } else {
            size += CalFileSize(full);
        }
    }
    if (closedir(handle) != 0) {
        ORV_LOG(ORV_EVENT, "close dir %s failed.", dir.c_str());
    }
}

// ---- Memory limit control ------------------------------------------------------------

uint32_t PackageWorker::ReadMemControlValue(const std::string& file, uint64_t& value) const {
    std::ifstream in(file);
    if (!in.is_open()) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Read memory control file failed, file name:[%s].", file.c_str());
        return 1;
    }
    std::string line;
    std::getline(in, line);
    if (line.empty()) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Memory control file is empty, file name:[%s].", file.c_str());
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
    ORV_LOG(ORV_INFO, "Get virtual mem limit[%llu] from halMemGetVdevInfo", static_cast<unsigned long long>(limit));
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
        ORV_LOG(ORV_INFO, "[OrvDaemon] vfid[%d] has enough space, max:[%d] byte, used:[%d] byte.", vfId_,
                static_cast<int>(limit), static_cast<int>(used));
        return 0;
    }
    ORV_LOG(ORV_ERROR, "[OrvDaemon] vfid[%d] has no enough space(less than 150M), max:[%llu] byte, used:[%llu] byte.",
            vfId_, static_cast<unsigned long long>(limit), static_cast<unsigned long long>(used));
    return 1;
}

uint32_t PackageWorker::RestoreMemUsage(uint64_t oldSize, uint64_t newSize) {
    ORV_LOG(ORV_INFO, "RestoreMemUsage oldSize: [%llu], newSize: [%llu]", static_cast<unsigned long long>(oldSize),
            static_cast<unsigned long long>(newSize));
    uint64_t limit = 0;
    if (ReadMemControlValue(CgroupDir(vfId_) + "/memory.limit_in_bytes", limit) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Read memory limit failed.");
        return 1;
    }
    ORV_LOG(ORV_INFO, "Before RestoreMemUsage, user_memory_limit:[%llu]", static_cast<unsigned long long>(limit));
    if (!(oldSize < ~limit)) {
        ORV_LOG(ORV_ERROR, "userLimitSize add oldSize will overflow.");
        return 1;
    }
    if (!(newSize < limit + oldSize)) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] User memory is not enough.");
        return 1;
    }
    limit = limit + oldSize - newSize;
    ORV_LOG(ORV_INFO, "After RestoreMemUsage, user_memory_limit:[%llu]", static_cast<unsigned long long>(limit));
    if (SetMemoryControlValue(limit) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Update memory limit failed.");
        return 1;
    }
    return 0;
}

uint32_t PackageWorker::SetMemoryControlValue(uint64_t limit) const {
    std::string command = std::string(kMemoryScript) + " " + std::to_string(vfId_) + " " + std::to_string(limit);
    ORV_LOG(ORV_INFO, "SetMemoryControlValue command: [%s]", command.c_str());
    if (PackSystem(command.c_str()) != 0) {
        ORV_LOG(ORV_ERROR, "SetMemoryControlValue failed, command: [%s]", SafeStrerror().c_str());
        return 1;
    }
    return 0;
}

}  // namespace orv
