#include "package/inotify_watcher.h"

#include <new>

#include "platform/log.h"

namespace orv {

Mutex InotifyWatcher::mutexForInotifyWatcherMap_;
std::map<int32_t, std::shared_ptr<InotifyWatcher>> InotifyWatcher::inotifyWatcherMap_;

InotifyWatcher::InotifyWatcher(int32_t vfId) : vfId_(vfId) {}

std::shared_ptr<InotifyWatcher> InotifyWatcher::GetInstance(int32_t vfId) {
    MutexLock lock(&mutexForInotifyWatcherMap_);
    auto it = inotifyWatcherMap_.find(vfId);
    if (it != inotifyWatcherMap_.end()) {
        return it->second;
    }
    std::shared_ptr<InotifyWatcher> watcher(new (std::nothrow) InotifyWatcher(vfId));
    inotifyWatcherMap_[vfId] = watcher;
    return watcher;
}

std::shared_ptr<InotifyWatcher> InotifyWatcher::FindInstance(int32_t vfId) {
    MutexLock lock(&mutexForInotifyWatcherMap_);
    auto it = inotifyWatcherMap_.find(vfId);
    return it != inotifyWatcherMap_.end() ? it->second : nullptr;
}

uint32_t InotifyWatcher::Destory() {
    return ClearWatcherPtr();
}

uint32_t InotifyWatcher::ClearWatcherPtr() {
    MutexLock lock(&mutexForInotifyWatcherMap_);
    if (inotifyWatcherMap_.erase(vfId_) == 0) {
        ORV_LOG(ORV_ERROR, "delete the %d inotifyWatcherPtr from inotifyWatcherMap_ failed", vfId_);
        return 1;
    }
    return 0;
}

}  // namespace orv
