// InotifyWatcher watches one VF's trusted package directory on every device
// (the base directory for VF 0, its "vfid<N>" subdirectory for VF N) and hands
// each kernel package that was written and closed there to the VF's package
// worker. One watcher per VF id lives in a class-wide map; each owns a thread.
#ifndef ORV_PACKAGE_INOTIFY_WATCHER_H
#define ORV_PACKAGE_INOTIFY_WATCHER_H

#include <sys/inotify.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "platform/mutex.h"

namespace orv {

class PackageWorker;

// Whole name of a kernel package file.
inline constexpr char kPackageNamePattern[] = "^[0-9]+_Velkan[0-9]{3}-aicpu_syskernels\\.tar\\.gz$";

class InotifyWatcher {
  public:
    // The watcher of `vfId` (0 to 16), created when there is none; null for
    // any other id, and when it cannot be allocated.
    static std::shared_ptr<InotifyWatcher> GetInstance(int32_t vfId);

    // The watcher of `vfId` if one exists; never creates one.
    static std::shared_ptr<InotifyWatcher> FindInstance(int32_t vfId);

    ~InotifyWatcher();
    InotifyWatcher(const InotifyWatcher&) = delete;
    InotifyWatcher& operator=(const InotifyWatcher&) = delete;

    // Opens the descriptors and starts watching the directories of
    // `deviceCount` devices. 0 on success; a second call does nothing.
    uint32_t Init(uint32_t deviceCount);

    // Adds the watches and starts the watch thread. 0 on success.
    uint32_t StartWatch(const uint32_t& deviceCount);

    // Body of the watch thread.
    void Work();

    // One inotify event: a finished kernel package goes to the worker.
    void HandleEvent(const inotify_event* event);

    // The directory a watch descriptor stands for, if it is still the real one.
    bool GetInotifyPath(int32_t wd, std::string& path);

    // Installs one package, and keeps it for another try when its install
    // was cut short by a shortage that may pass.
    void LoadPackage(const std::string& dir, const std::string& name, uint32_t attempts);

    // Stops the thread and closes the descriptors.
    void Stop();

    // Stop, destroy the VF's package worker and leave the registry.
    uint32_t Destory();

  private:
    // A package whose install was cut short, waiting for its next try.
    struct PendingPackage {
        std::string dir;
        std::string name;
        uint32_t attempts;
        std::chrono::steady_clock::time_point due;
    };

    explicit InotifyWatcher(int32_t vfId);

    // Tries again the packages whose time has come.
    void RetryDuePackages();
    // How long the watch thread may wait for events before a retry is due.
    int WaitTimeoutMs() const;

    // Removes this watcher from the class map. 0 on success.
    uint32_t ClearWatcherPtr();

    std::atomic<bool> running_{true};
    const int32_t vfId_;
    // The fields below belong to the thread calling Init, Stop and Destory,
    // and to the watch thread while it runs.
    int32_t epollFd_ = 0;
    int32_t inotifyFd_ = 0;
    // Rung by Stop to end the watch thread's wait; -1 when not open.
    int32_t wakeFd_ = -1;
    std::map<int32_t, std::string> wdPathMap_;
    std::thread watchThread_;
    std::shared_ptr<PackageWorker> packageWorker_;
    bool initialized_ = false;
    // The watch thread's alone.
    std::deque<PendingPackage> pending_;

    static Mutex mutexForInotifyWatcherMap_;
    static std::map<int32_t, std::shared_ptr<InotifyWatcher>> inotifyWatcherMap_
        GUARDED_BY(mutexForInotifyWatcherMap_);
};

}  // namespace orv

#endif  // ORV_PACKAGE_INOTIFY_WATCHER_H
