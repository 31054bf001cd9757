// InotifyWatcher watches a VF's trusted package directories on every device
// and hands each finished kernel package to the VF's package worker. One
// watcher per VF id (0 for the physical function) lives in a class-wide map.
//
// This build carries the registry of watchers; watching comes with the
// kernel-package installer.
#ifndef ORV_PACKAGE_INOTIFY_WATCHER_H
#define ORV_PACKAGE_INOTIFY_WATCHER_H

#include <cstdint>
#include <map>
#include <memory>

#include "platform/mutex.h"

namespace orv {

class InotifyWatcher {
public:
    // The watcher of `vfId`, created when there is none; null when it cannot
    // be allocated.
    static std::shared_ptr<InotifyWatcher> GetInstance(int32_t vfId);

    // The watcher of `vfId` if one exists; never creates one.
    static std::shared_ptr<InotifyWatcher> FindInstance(int32_t vfId);

    ~InotifyWatcher() = default;
    InotifyWatcher(const InotifyWatcher&) = delete;
    InotifyWatcher& operator=(const InotifyWatcher&) = delete;

    // Stops watching and removes this watcher from the registry.
    uint32_t Destory();

private:
    explicit InotifyWatcher(int32_t vfId);

    // Removes this watcher from the class map. 0 on success.
    uint32_t ClearWatcherPtr();

    const int32_t vfId_;

    static Mutex mutexForInotifyWatcherMap_;
    static std::map<int32_t, std::shared_ptr<InotifyWatcher>> inotifyWatcherMap_
        GUARDED_BY(mutexForInotifyWatcherMap_);
};

}  // namespace orv

#endif  // ORV_PACKAGE_INOTIFY_WATCHER_H
