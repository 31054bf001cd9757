// The steps of an install: the package moved into the daemon's staging
// directory by descriptors, verified on a copy no one else writes, unpacked
// into a staging tree, checked there and swapped into place; and the
// sand-box libraries moved where the kernels look for them.
#include "package/package_worker.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>

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

constexpr char kSrcPackageName[] = "srcPackageName";
constexpr char kInnerPackageName[] = "innerPackageName";
constexpr char kSandBoxPrefix[] = "SandBoxSo=";
constexpr char kStagingDir[] = "/home/QelvarUser/aicpu_kernels/";
constexpr char kDeviceSubdir[] = "/aicpu_kernels_device/";
constexpr char kVersionInfo[] = "version.info";
constexpr char kSandBoxDir[] = "sand_box";
constexpr mode_t kDirMode = 0750;
constexpr size_t kCopyChunk = 65536;

using package_internal::kVersionInfoBounds;
using package_internal::OpenPackageFile;

// The first "SandBoxSo=" line of a version.info, into `line`; false when it
// has none. `readable` tells whether the file could be read at all.
bool FindSandBoxLine(const std::string& versionInfo, std::string* line, bool* readable) {
    const std::string prefix = kSandBoxPrefix;
    bool found = false;
    LinesEnd end =
        ForEachBoundedLine(versionInfo, kVersionInfoBounds, [&](const std::string& text, bool) {
            found = text.compare(0, prefix.size(), prefix) == 0;
            if (found) {
                *line = text;
            }
            return !found;
        });
    *readable = end != LinesEnd::kUnreadable;
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

// A copy of the package that no other process holds open for writing, so
// that what is verified is what is unpacked. Its descriptor, or -1 with the
// reason; `shortage` is set when the copy failed for want of descriptors,
// memory or room.
int CopyToPrivateFile(int packageFd, const std::atomic<bool>& cancel, std::string* reason,
                      bool* shortage) {
    int copy = open(kStagingDir, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (copy < 0) {
        // A file system without unnamed files: keep it in memory.
        copy = memfd_create("orv-package", MFD_CLOEXEC);
    }
    if (copy < 0) {
        *shortage = IsShortage(errno);
        *reason = "no private copy can be made: " + SafeStrerror();
        return -1;
    }
    char buffer[kCopyChunk];
    off_t offset = 0;
    for (;;) {
        if (cancel) {
            *reason = "the install was stopped";
            close(copy);
            return -1;
        }
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
                *shortage = w < 0 && IsShortage(errno);
                *reason = "its private copy cannot be written: " + SafeStrerror();
                close(copy);
                return -1;
            }
            done += w;
        }
        offset += n;
    }
}

// A path that names an open descriptor, for interfaces that take paths.
std::string DescriptorPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

// The kind of what lies at `name` in the directory open at `dirFd`.
std::string KindAt(int dirFd, const std::string& name) {
    struct stat st {};
    return fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 ? FileKindName(st.st_mode)
                                                                       : "file";
}

}  // namespace

uint32_t PackageWorker::VerifyAicpuPackage(const std::string& packagePath) const {
    void* handle = mmDlopen(IMG_VERIFY_LIBRARY, 1);
    if (handle == nullptr) {
        // Not the package's fault: it stays, and is tried again.
        NoteShortage(true);
        ORV_LOG(ORV_ERROR, "Dlopen libvelkan_imgverify.so failed.");
        return kVerifyFailed;
    }
    ScopeGuard closeLibrary([handle] { (void)mmDlclose(handle); });
    auto verify = reinterpret_cast<HalVerifyImgFunc>(mmDlsym(handle, IMG_VERIFY_SYMBOL));
    if (verify == nullptr) {
        NoteShortage(true);
        ORV_LOG(ORV_ERROR, "Get api halVerifyImg in libvelkan_imgverify.so failed");
        return kVerifyFailed;
    }
    errno = 0;
    if (verify(0, 0, packagePath.c_str(), 1) != 0) {
        // A verification that could not read the package for want of
        // descriptors or memory has no verdict on it.
        NoteShortage(IsShortage(errno));
        ORV_LOG(ORV_ERROR, "Check head tag failed");
        return kVerifyFailed;
    }
    return 0;
}

int PackageWorker::OpenDroppedPackage(const std::string& packagePath) const {
    off_t size = 0;
    std::string reason;
    bool shortage = false;
    int fd = OpenPackageFile(packagePath, &size, &reason, &shortage);
    if (fd < 0) {
        NoteShortage(shortage);
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: %s.", packagePath.c_str(),
                reason.c_str());
        if (!shortage) {
            RemoveFile(packagePath);
        }
    }
    return fd;
}

uint32_t PackageWorker::DecompressionAicpuPackage(std::string& packagePath) {
    if (faccessat(AT_FDCWD, packagePath.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] No aicpu package need to decompression, name[%s].",
                packagePath.c_str());
        return 1;
    }
    shortage_ = false;
    int fd = OpenDroppedPackage(packagePath);
    if (fd < 0) {
        return 1;
    }
    ScopeGuard closePackage([fd] { close(fd); });
    PackageInstall install;
    install.packagePath = packagePath;
    install.fd = fd;
    uint32_t ret = DecompressionAicpuPackage(install);
    // The package file never outlives its unpack, unless the unpack was cut
    // short by a shortage.
    if (ret == 0 || !shortage_) {
        RemoveFile(packagePath);
    }
    return ret;
}

uint32_t PackageWorker::DecompressionAicpuPackage(PackageInstall& install) {
    StagedKernels staged(InstallDir());
    uint32_t ret = PrepareKernels(install, staged);
    return ret != 0 ? ret : CommitKernels(install, staged);
}

uint32_t PackageWorker::UnzipAndSetMemLimit(std::string& packagePath) {
    shortage_ = false;
    int fd = OpenDroppedPackage(packagePath);
    if (fd < 0) {
        return 1;
    }
    ScopeGuard closePackage([fd] { close(fd); });
    PackageInstall install;
    install.packagePath = packagePath;
    install.fd = fd;
    uint32_t ret = UnzipAndSetMemLimit(install);
    if (ret == 0 || !shortage_) {
        RemoveFile(packagePath);
    }
    return ret;
}

uint32_t PackageWorker::UnzipAndSetMemLimit(PackageInstall& install) {
    if (CheckMemoryLimit() != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Set or check memory limit failed");
        return 1;
    }
    std::string installDir = InstallDir();
    uint64_t oldSize = 0;
    GetPackageSize(installDir, oldSize);
    StagedKernels staged(installDir);
    if (PrepareKernels(install, staged) != 0) {
        ORV_LOG(ORV_ERROR, "Decompression AicpuPackage[%s] failed", install.packagePath.c_str());
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
    if (CommitKernels(install, staged) != 0) {
        // The old kernels stayed, and take their old room again.
        (void)RestoreMemUsage(newSize, oldSize);
        return 1;
    }
    return 0;
}

uint32_t PackageWorker::PrepareKernels(PackageInstall& install, StagedKernels& staged) {
    const std::string& packagePath = install.packagePath;
    if (fchmod(install.fd, kDirMode) != 0) {
        ORV_LOG(ORV_ERROR, "Change directory:[%s] mode failed, errno:[%s].", packagePath.c_str(),
                SafeStrerror().c_str());
        return 1;
    }
    std::string reason;
    bool shortage = false;
    int copy = CopyToPrivateFile(install.fd, cancel_, &reason, &shortage);
    if (copy < 0) {
        NoteShortage(shortage);
        ORV_LOG(ORV_ERROR, "[PackageWorker] Package[%s] cannot be installed: %s.",
                packagePath.c_str(), reason.c_str());
        return 1;
    }
    ScopeGuard closeCopy([copy] { close(copy); });
    if (cancel_) {
        ORV_LOG(ORV_ERROR,
                "[PackageWorker] Package[%s] cannot be installed now: the install was "
                "stopped.",
                packagePath.c_str());
        return 1;
    }
    if (VerifyAicpuPackage(DescriptorPath(copy)) != 0) {
        ORV_LOG(ORV_ERROR, "Verify Aicpu package failed, srcPath[%s].", packagePath.c_str());
        return kVerifyFailed;
    }
    if (!staged.Ok(&reason)) {
        NoteShortage(staged.Shortage());
        ORV_LOG(ORV_ERROR, "[PackageWorker] Package[%s] cannot be installed: %s.",
                packagePath.c_str(), reason.c_str());
        return 1;
    }
    std::string unzip = "gzip -dc < " + packagePath + " | tar -xof - -C " + staged.Dir();
    ORV_LOG(ORV_INFO, "Unzip_cmd is [%s]", unzip.c_str());
    UnpackControl control;
    control.cancel = &cancel_;
    if (!UnpackPackage(copy, staged.Dir(), &reason, &control)) {
        NoteShortage(control.shortage);
        if (control.shortage || cancel_) {
            ORV_LOG(ORV_ERROR, "[PackageWorker] Package[%s] cannot be installed now: %s.",
                    packagePath.c_str(), reason.c_str());
            return 1;
        }
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: %s.", packagePath.c_str(),
                reason.c_str());
        return kVerifyFailed;
    }
    std::string stagedDir = staged.Dir();
    std::string versionInfo = stagedDir + kDeviceSubdir + kVersionInfo;
    LinesEnd read = ForEachBoundedLine(versionInfo, kVersionInfoBounds,
                                       [](const std::string&, bool cut) { return !cut; });
    if (read == LinesEnd::kLineTooLong || read == LinesEnd::kTooManyLines) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: in its version.info %s.",
                packagePath.c_str(), DescribeLinesEnd(read, kVersionInfoBounds).c_str());
        return kVerifyFailed;
    }
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
    shortage = false;
    if (!CheckKernelTree(stagedDir, &reason, &shortage)) {
        NoteShortage(shortage);
        ORV_LOG(ORV_ERROR, "[PackageWorker] Refused package[%s]: %s.", packagePath.c_str(),
                reason.c_str());
        return kVerifyFailed;
    }
    // A missing or faulty sand box does not fail the install.
    ORV_LOG(ORV_INFO, "Move dynamic link so to sand box success.");
    return 0;
}

uint32_t PackageWorker::CommitKernels(PackageInstall& install, StagedKernels& staged) {
    std::string abandoned;
    {
        MutexLock lock(&workerMutex_);
        if (cancel_) {
            abandoned = "the install was stopped";
        } else if (removals_ != 0 || generation_ != install.generation) {
            abandoned = "vfId[" + std::to_string(vfId_) +
                        "]'s kernels were removed while it was being unpacked";
        } else {
            committing_ = true;
        }
    }
    if (!abandoned.empty()) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Package[%s] is not installed: %s.",
                install.packagePath.c_str(), abandoned.c_str());
        return 1;
    }
    std::string reason;
    bool committed = staged.Commit(&reason);
    if (committed && install.publish && vfId_ == 0) {
        for (const std::string& path : kSandBoxList) {
            RemoveFile(path);
        }
    }
    {
        MutexLock lock(&workerMutex_);
        committing_ = false;
        if (committed && install.publish) {
            checkCode_ = install.code;
        }
    }
    commitCond_.SignalAll();
    if (!committed) {
        ORV_LOG(ORV_ERROR, "[PackageWorker] Package[%s] cannot be installed: %s.",
                install.packagePath.c_str(), reason.c_str());
        return 1;
    }
    if (install.publish) {
        checkCodeCond_.SignalAll();
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
    LinesEnd end =
        ForEachBoundedLine(inner, kVersionInfoBounds, [&names](const std::string& line, bool) {
            if (line.find('=') == std::string::npos || line.find("Name") == std::string::npos) {
                return true;
            }
            names[kInnerPackageName] = line.substr(line.find('=') + 1);
            ORV_LOG(ORV_INFO, "[OrvDaemon] Get innerPackageName[%s] success.",
                    names[kInnerPackageName].c_str());
            return false;
        });
    if (end == LinesEnd::kUnreadable) {
        NoteShortage(IsShortage(errno));
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
    PackageInstall install;
    return MoveIntoStaging(install, dir, fileName, dst);
}

uint32_t PackageWorker::MoveIntoStaging(PackageInstall& install, const std::string& dir,
                                        const std::string& fileName, std::string& dst) {
    std::string src = dir + fileName;
    install.stagingName = "vf" + std::to_string(vfId_) + "_" + fileName;
    dst = kStagingDir + install.stagingName;
    install.stagingDir = UniqueFd(OpenStagingDirectory());
    if (!install.stagingDir.Valid()) {
        ORV_LOG(ORV_ERROR, "Check or make directory[%s] failed.", kStagingDir);
        return 1;
    }
    install.dropDir = UniqueFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    install.dropName = fileName;
    if (!install.dropDir.Valid()) {
        NoteShortage(IsShortage(errno));
        ORV_LOG(ORV_ERROR, "Rename file [%s] to [%s] failed", src.c_str(), dst.c_str());
        return 1;
    }
    const int from = install.dropDir.Get();
    const int to = install.stagingDir.Get();
    int moved = renameat(from, fileName.c_str(), to, install.stagingName.c_str());
    if (moved != 0 &&
        (errno == EISDIR || errno == ENOTEMPTY || errno == EEXIST || errno == ENOTDIR)) {
        // Something another process put at the package's place in the
        // staging directory: it goes, so that it fails nothing.
        ORV_LOG(ORV_ERROR,
                "[PackageWorker] [%s] is taken by a %s the daemon did not leave there: it is "
                "removed.",
                dst.c_str(), KindAt(to, install.stagingName).c_str());
        (void)RemoveTreeAt(to, install.stagingName);
        moved = renameat(from, fileName.c_str(), to, install.stagingName.c_str());
    }
    if (moved != 0) {
        NoteShortage(IsShortage(errno));
        ORV_LOG(ORV_ERROR, "Rename file [%s] to [%s] failed", src.c_str(), dst.c_str());
        return 1;
    }
    return 0;
}

int PackageWorker::OpenStagingDirectory() {
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    std::string path = kStagingDir;
    path.pop_back();
    int fd = open(path.c_str(), flags);
    if (fd < 0 && errno == ENOENT) {
        if (CheckOrMakeDirectory(kStagingDir) != 0) {
            return -1;
        }
        fd = open(path.c_str(), flags);
    }
    struct stat st {};
    bool own = fd >= 0 && fstat(fd, &st) == 0 && st.st_uid == geteuid() &&
               (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    if (own) {
        return fd;
    }
    if (fd < 0 && errno != ELOOP && errno != ENOTDIR) {
        NoteShortage(IsShortage(errno));
        ORV_LOG(ORV_ERROR, "[PackageWorker] Staging directory [%s] cannot be opened: %s",
                path.c_str(), SafeStrerror().c_str());
        return -1;
    }
    // Only the daemon may write where packages wait: anything else found in
    // the staging directory's place is removed and the directory made anew.
    if (fd >= 0) {
        close(fd);
        ORV_LOG(ORV_ERROR,
                "[PackageWorker] Staging directory [%s] belongs to uid %u with mode %03o, not to "
                "the daemon alone: it is removed and made anew.",
                path.c_str(), static_cast<unsigned>(st.st_uid),
                static_cast<unsigned>(st.st_mode & 07777));
    } else {
        ORV_LOG(ORV_ERROR,
                "[PackageWorker] Staging directory [%s] is not a directory: it is removed and made "
                "anew.",
                path.c_str());
    }
    if (!RemoveTree(path) || CheckOrMakeDirectory(kStagingDir) != 0) {
        return -1;
    }
    fd = open(path.c_str(), flags);
    if (fd < 0) {
        NoteShortage(IsShortage(errno));
    }
    return fd;
}

void PackageWorker::PutBack(PackageInstall& install) {
    if (!install.dropDir.Valid() || !install.stagingDir.Valid()) {
        return;
    }
    if (renameat2(install.stagingDir.Get(), install.stagingName.c_str(), install.dropDir.Get(),
                  install.dropName.c_str(), RENAME_NOREPLACE) == 0) {
        ORV_LOG(ORV_WARN,
                "[PackageWorker] Package[%s] was not installed for now: it is back where it was "
                "dropped, to be tried again.",
                install.packagePath.c_str());
        return;
    }
    ORV_LOG(ORV_WARN,
            "[PackageWorker] Package[%s] cannot go back where it was dropped (%s): it is removed.",
            install.packagePath.c_str(),
            errno == EEXIST ? "a newer package of that name is there" : SafeStrerror().c_str());
    (void)unlinkat(install.stagingDir.Get(), install.stagingName.c_str(), 0);
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

}  // namespace orv
