// PackageWorker verifies and installs the compute-kernel packages of one VF
// (0 for the physical function): it unpacks them into the VF's kernel
// directory, moves the shared objects a package names into a sand box, keeps
// the VF's memory cgroup limit in step with the installed size, and remembers
// the installed package's check code, which sessions wait for before they
// start the compute process and which hosts query. One worker per VF id lives
// in a class-wide map.
#ifndef ORV_PACKAGE_PACKAGE_WORKER_H
#define ORV_PACKAGE_PACKAGE_WORKER_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include "platform/mutex.h"

namespace orv {

class StagedKernels;
struct PackageInstall;

using PackageNameMap = std::map<std::string, std::string>;

// Files a process-mode install for VF 0 removes after it succeeded: shared
// objects that now live in the package's sand box and must not be found at
// their old, system-wide places.
extern const std::vector<std::string> kSandBoxList;

class PackageWorker {
  public:
    // The worker of `vfId` (0 to 16), created when there is none; null for
    // any other id, and when it cannot be allocated.
    static std::shared_ptr<PackageWorker> GetInstance(int32_t vfId);

    // Ends every install under way, in every worker, within a second; their
    // VFs keep the kernels they had. The daemon's stop begins with it.
    static void CancelAllInstalls();

    // Held while a VF's installed kernels are removed from outside the worker
    // (the VF notices do that): the check code goes back to 0, so that it
    // never describes kernels that are gone, and an install under way is not
    // put in place, its package having come for kernels that are gone too.
    // It waits only for an install's final swap, never for the install.
    // Does nothing for a VF without a worker, whose check code is 0.
    class KernelsRemoval {
      public:
        explicit KernelsRemoval(int32_t vfId);
        ~KernelsRemoval();
        KernelsRemoval(const KernelsRemoval&) = delete;
        KernelsRemoval& operator=(const KernelsRemoval&) = delete;

      private:
        std::shared_ptr<PackageWorker> worker_;
    };

    ~PackageWorker() = default;
    PackageWorker(const PackageWorker&) = delete;
    PackageWorker& operator=(const PackageWorker&) = delete;

    // Removes this worker from the class map.
    void ClearWorkerPtr();
    // Wakes every CheckSum waiter for good, and ends the install under way.
    void Stop();
    // Stop, then leave the registry.
    void Destory();

    // Check code of the package last installed in process mode; 0 when none is.
    uint32_t GetCheckCode();

    // 0 once the installed package's check code is `hostCode` (at once for 0),
    // 1 when that does not happen within 5 seconds or the worker stops.
    uint32_t CheckSum(uint32_t hostCode);

    // Installs the package `fileName` found in `dir` (ending in "/"). 0 on
    // success, also when that package is installed already;
    // kInstallRetryLater when it could not be installed for a shortage that
    // may pass, the package back where it was.
    uint32_t LoadAICPUPackageForProcessMode(const std::string& dir, const std::string& fileName);

    // Installs a package from `srcDir` into `dstDir`, keeping its check code
    // in the shared install-info file. 0 on success.
    uint32_t LoadAICPUPackageForThreadMode(const std::string& dstDir, const std::string& srcDir,
                                           const std::string& fileName);

    // ---- The steps of an install ----

    // 0 when the package's signature holds, 14 otherwise.
    uint32_t VerifyAicpuPackage(const std::string& packagePath) const;
    // Verifies, unpacks, checks the inner name and fills the sand box, then
    // puts the new kernels in place; the package file is gone afterwards.
    // 0, 1 or 14; on failure the installed kernels are those of before.
    uint32_t DecompressionAicpuPackage(std::string& packagePath);
    // Installs under the VF's memory-limit control. 0 on success.
    uint32_t UnzipAndSetMemLimit(std::string& packagePath);
    // The archive name from the package path and the name its version.info
    // gives. 0, 1 or 14.
    uint32_t GetPackageName(const std::string& packagePath, std::string& installDir,
                            PackageNameMap& names) const;
    // Moves the shared objects named by "SandBoxSo=" into sand_box/. 0 or 1.
    uint32_t MoveSoToSandBox(const std::string& deviceDir) const;
    // Renames a dropped package into the staging directory. 0 or 1.
    uint32_t RenameAICPUPackage(const std::string& dir, const std::string& fileName,
                                std::string& dst);
    bool CopyAICPUPackage(const std::string& dstDir, const std::string& srcDir,
                          const std::string& fileName) const;
    uint32_t CheckOrMakeDirectory(const std::string& dir) const;
    void RemoveFile(const std::string& path) const;
    // Opens a dropped package for the steps of its install; a package that
    // cannot be opened as a plain file is refused, logged and removed (-1).
    int OpenDroppedPackage(const std::string& packagePath) const;

    // ---- The install-info file of thread mode ----

    bool ReadCheckCode(int fd, uint32_t& code) const;
    uint32_t GetSavedCheckCode(const int& fd, uint32_t& code) const;
    bool WriteCheckCode(int fd, uint32_t code) const;

    // ---- Installed size ----

    // Adds the installed size of `dir` to `size`.
    void GetPackageSize(const std::string& dir, uint64_t& size);
    void GetPackageSizeInSubdirectory(const std::string& dir, const uint32_t& depth, uint64_t& size,
                                      std::queue<std::pair<std::string, uint32_t>>& pending) const;

    // ---- Memory limit control ----

    // 0 when the VF may take a new install (or this is an update).
    uint32_t CheckMemoryLimit();
    uint32_t CheckMemoryUsage(uint64_t& limit) const;
    uint32_t ReadMemControlValue(const std::string& file, uint64_t& value) const;
    uint32_t SetMemoryControlValue(uint64_t limit) const;
    // Moves the VF's limit by the change from `oldSize` to `newSize`.
    uint32_t RestoreMemUsage(uint64_t oldSize, uint64_t newSize);

  private:
    explicit PackageWorker(int32_t vfId);

    // ---- One install, on the package as it was opened (PackageInstall) ----

    // The steps above on a package already opened.
    uint32_t DecompressionAicpuPackage(PackageInstall& install);
    uint32_t UnzipAndSetMemLimit(PackageInstall& install);
    // False, logged, for a package longer than a kernel package may be or
    // than the VF's memory limit.
    bool WithinSizeBounds(const PackageInstall& install) const;
    // Moves a dropped package into the staging directory, by descriptors; a
    // path planted there by another process is removed first. 0 or 1.
    uint32_t MoveIntoStaging(PackageInstall& install, const std::string& dir,
                             const std::string& fileName, std::string& dst);
    // The staging directory, open: a real directory only the daemon can
    // write, made anew when anything else is found in its place; -1 when it
    // cannot be had.
    int OpenStagingDirectory();
    // A package cut short by a shortage or a stop goes back where it was
    // dropped, unless a newer one of its name is there by now.
    void PutBack(PackageInstall& install);
    // Verifies the package and unpacks it into `staged`, where its names and
    // sand box are checked and filled; the installed kernels are untouched.
    // 0, 1 or 14.
    uint32_t PrepareKernels(PackageInstall& install, StagedKernels& staged);
    // Puts staged kernels in place and, in process mode, publishes their
    // check code in the same step. 0 or 1.
    uint32_t CommitKernels(PackageInstall& install, StagedKernels& staged);
    // What the sand box of an unpacked package may be: aicpu_kernels_device
    // and sand_box (if present) real directories, and only plain file names
    // in its "SandBoxSo=" line. False, with the reason, otherwise.
    bool CheckSandBox(const std::string& deviceDir, std::string* reason) const;
    // A step failed for want of descriptors, memory, processes or room.
    void NoteShortage(bool shortage) const { shortage_ = shortage_ || shortage; }

    // The VF's install directory, "/usr/lib64/aicpu_kernels/<vfId>".
    std::string InstallDir() const;

    bool stopped_ GUARDED_BY(workerMutex_) = false;
    const int32_t vfId_;
    uint32_t checkCode_ GUARDED_BY(workerMutex_) = 0;
    // Held only for moments: no install, removal or query holds it while it
    // works on files or runs a command.
    Mutex workerMutex_;
    CondVar checkCodeCond_{&workerMutex_};
    // Each removal of the VF's kernels from outside counts one; an install
    // that began before is not put in place.
    uint64_t generation_ GUARDED_BY(workerMutex_) = 0;
    int removals_ GUARDED_BY(workerMutex_) = 0;
    // An install's final swap is under way; removals wait for it.
    bool committing_ GUARDED_BY(workerMutex_) = false;
    CondVar commitCond_{&workerMutex_};
    // Set by Stop and CancelAllInstalls: the install under way ends at its
    // next step. A new install clears what CancelAllInstalls set.
    std::atomic<bool> cancel_{false};
    // Set by a step of the install under way that failed for a reason that
    // may pass; only the thread running the install touches it.
    mutable bool shortage_ = false;

    static Mutex mutexForPackageWorkerMap_;
    static std::map<int32_t, std::shared_ptr<PackageWorker>> packageWorkerMap_
        GUARDED_BY(mutexForPackageWorkerMap_);
};

}  // namespace orv

#endif  // ORV_PACKAGE_PACKAGE_WORKER_H
