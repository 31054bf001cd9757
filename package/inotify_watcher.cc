#include "package/inotify_watcher.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include <driver_hal.h>

#include "package/internal_api.h"
#include "package/package_worker.h"
#include "platform/log.h"
#include "platform/orv_codes.h"
#include "platform/orv_limits.h"

namespace orv {

namespace {

// Watchers exist for the physical function and VFs 1 to 16 only.
constexpr uint32_t kTrustedPathSize = 256;
constexpr int kMaxEpollEvents = 512;
constexpr int kEpollTimeoutMs = 250;
constexpr size_t kReadBufferSize = 512;
// The fixed part of an inotify event; the buffer is walked in steps of it.
constexpr size_t kEventStep = sizeof(inotify_event);

}  // namespace

Mutex InotifyWatcher::mutexForInotifyWatcherMap_;
std::map<int32_t, std::shared_ptr<InotifyWatcher>> InotifyWatcher::inotifyWatcherMap_;

InotifyWatcher::InotifyWatcher(int32_t vfId) : vfId_(vfId) {}

InotifyWatcher::~InotifyWatcher() {
    if (running_) {
        Stop();
    }
    packageWorker_.reset();
}

std::shared_ptr<InotifyWatcher> InotifyWatcher::GetInstance(int32_t vfId) {
    if (vfId < 0 || vfId > static_cast<int32_t>(kMaxVfId)) {
        ORV_LOG(ORV_ERROR,
                "[InotifyWatcher] No inotify watcher for vfId[%d]: VF ids run from 0 to %d.", vfId,
                kMaxVfId);
        return nullptr;
    }
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

uint32_t InotifyWatcher::Init(uint32_t deviceCount) {
    if (initialized_) {
        ORV_LOG(ORV_EVENT, "Inotify watcher in fd[%d] has been initialized.", vfId_);
        return 0;
    }
    packageWorker_ = PackageWorker::GetInstance(vfId_);
    if (packageWorker_ == nullptr) {
        ORV_LOG(ORV_ERROR, "get package worker in vfId[%d] failed", vfId_);
        return 1;
    }
    // Close-on-exec: sub-processes that run user code must not hold them.
    epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd_ < 0) {
        ORV_LOG(ORV_ERROR, "epoll_create in vfId[%d] failed, ret = %d.", vfId_, epollFd_);
        return 1;
    }
    ORV_LOG(ORV_INFO, "epoll_create epoll_fd[%d] in vfId[%d] success", epollFd_, vfId_);
    inotifyFd_ = inotify_init1(IN_CLOEXEC);
    if (inotifyFd_ < 0) {
        ORV_LOG(ORV_ERROR, "inotify_init in vfId[%d] failed, ret = %d", vfId_, inotifyFd_);
        return 1;
    }
    ORV_LOG(ORV_INFO, "inotify_init inotify_fd[%d] in vfId[%d] epoll_fd[%d] success", inotifyFd_,
            vfId_, epollFd_);
    // Stop rings it, so that the watch thread ends at once rather than at
    // the end of its current wait.
    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        ORV_LOG(ORV_ERROR, "eventfd in vfId[%d] failed, %s", vfId_, SafeStrerror().c_str());
        return 1;
    }
    uint32_t ret = StartWatch(deviceCount);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "start watch thread in vfId[%d] failed, ret = %d", vfId_, inotifyFd_);
        return ret;
    }
    initialized_ = true;
    return 0;
}

uint32_t InotifyWatcher::StartWatch(const uint32_t& deviceCount) {
    for (uint32_t deviceId = 0; deviceId < deviceCount; ++deviceId) {
        char base[kTrustedPathSize] = {0};
        drvError_t ret =
            drvHdcGetTrustedBasePath(HDC_LOCAL_PEER_NODE, deviceId, base, kTrustedPathSize);
        if (ret != DRV_ERROR_NONE) {
            ORV_LOG(ORV_ERROR, "drvHdcGetTrustedBasePath get hdc device path failed, ret = %d",
                    ret);
            return 1;
        }
        std::string dir = base;
        if (vfId_ != 0) {
            dir += "/vfid" + std::to_string(vfId_);
        }
        if (access(dir.c_str(), F_OK) != 0) {
            ORV_LOG(ORV_ERROR, "access path[%s] failed", dir.c_str());
            return 1;
        }
        ORV_LOG(ORV_INFO, "Inoitfy path on vfid[%d] is %s", vfId_, dir.c_str());
        int32_t wd = inotify_add_watch(inotifyFd_, dir.c_str(), IN_CLOSE_WRITE);
        if (wd < 0) {
            ORV_LOG(ORV_ERROR, "inotify_add_watch fd[%d] path[%s] wd[%d] failed", inotifyFd_,
                    dir.c_str(), wd);
            return 1;
        }
        if (!wdPathMap_.emplace(wd, dir).second) {
            ORV_LOG(ORV_ERROR, "add wd[%d] path[%s] to map failed", wd, dir.c_str());
            return 1;
        }
        ORV_LOG(ORV_EVENT, "inotify_add_watch fd[%d] path[%s] wd[%d] succ", inotifyFd_, dir.c_str(),
                wd);
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = inotifyFd_;
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, inotifyFd_, &event) != 0) {
        ORV_LOG(ORV_ERROR, "epoll_ctl epoll_fd[%d] add inotify_fd[%d] failed, %s", epollFd_,
                inotifyFd_, SafeStrerror().c_str());
        return 1;
    }
    event.data.fd = wakeFd_;
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &event) != 0) {
        ORV_LOG(ORV_ERROR, "epoll_ctl epoll_fd[%d] add wake fd[%d] failed, %s", epollFd_, wakeFd_,
                SafeStrerror().c_str());
        return 1;
    }
    try {
        watchThread_ = std::thread([this] { Work(); });
    } catch (const std::exception& e) {
        ORV_LOG(ORV_ERROR, "create inotify watcher thread in vfId[%d] failed, %s", vfId_, e.what());
        return 1;
    }
    return 0;
}

void InotifyWatcher::Work() {
    epoll_event events[kMaxEpollEvents];
    while (running_) {
        RetryDuePackages();
        int count = epoll_wait(epollFd_, events, kMaxEpollEvents, WaitTimeoutMs());
        if (count < 0) {
            ORV_LOG(ORV_INFO,
                    "epoll_wait epoll_fd[%d] inotify_fd[%d] vfId[%d] receive a terminal signal, "
                    "err: %s.",
                    epollFd_, inotifyFd_, vfId_, SafeStrerror().c_str());
            continue;
        }
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd != inotifyFd_) {
                continue;
            }
            // One byte more than is read, always zero: a name read from a
            // position inside another name ends inside the buffer.
            alignas(inotify_event) char buffer[kReadBufferSize + 1] = {0};
            ssize_t length = read(inotifyFd_, buffer, kReadBufferSize);
            if (length < static_cast<ssize_t>(kEventStep)) {
                ORV_LOG(ORV_ERROR, "read inotify_fd[%d] failed, buf = %d", inotifyFd_,
                        static_cast<int>(length));
                return;
            }
            // The buffer is walked in steps of the fixed header only, so that
            // positions inside a name are looked at too; they fail the name
            // pattern and are skipped.
            for (size_t offset = 0; offset + kEventStep <= static_cast<size_t>(length);
                 offset += kEventStep) {
                HandleEvent(reinterpret_cast<const inotify_event*>(buffer + offset));
            }
        }
    }
    ORV_LOG(ORV_INFO, "exit epoll_wait thread epoll_fd[%d] inotify_fd[%d] vfId[%d]", epollFd_,
            inotifyFd_, vfId_);
}

void InotifyWatcher::HandleEvent(const inotify_event* event) {
    if (event->len == 0) {
        return;
    }
    std::string name(event->name, strnlen(event->name, event->len));
    if (!ValidateStr(name, kPackageNamePattern)) {
        ORV_LOG(ORV_INFO, "file[%s] not correct, skip", name.c_str());
        return;
    }
    ORV_LOG(ORV_EVENT, "find file[%s], ready to load", name.c_str());
    std::string dir;
    if (!GetInotifyPath(event->wd, dir)) {
        ORV_LOG(ORV_ERROR, "get inotify path map to wd[%d] faild", event->wd);
        return;
    }
    ORV_LOG(ORV_INFO, "get inotify path[%s] map to wd[%d] success", dir.c_str(), event->wd);
    dir += "/";
    ORV_LOG(ORV_EVENT, "begin load aicpu package path[%s] file[%s]", dir.c_str(), name.c_str());
    LoadPackage(dir, name, 0);
}

void InotifyWatcher::LoadPackage(const std::string& dir, const std::string& name,
                                 uint32_t attempts) {
    // A package of this name written anew is another package: it starts
    // its tries afresh.
    for (auto it = pending_.begin(); it != pending_.end(); ++it) {
        if (it->dir == dir && it->name == name) {
            pending_.erase(it);
            break;
        }
    }
    uint32_t ret = packageWorker_->LoadAICPUPackageForProcessMode(dir, name);
    if (ret == 0) {
        return;
    }
    ORV_LOG(ORV_ERROR, "Load aicpu package path[%s] file[%s] failed", dir.c_str(), name.c_str());
    if (ret != kInstallRetryLater || !running_) {
        return;
    }
    if (++attempts >= limits::kMaxInstallAttempts) {
        ORV_LOG(ORV_ERROR,
                "[InotifyWatcher] Package[%s%s] of vfId[%d] could not be installed in %u tries: "
                "it is left where it is.",
                dir.c_str(), name.c_str(), vfId_, attempts);
        return;
    }
    if (pending_.size() >= limits::kMaxPendingPackagesPerVf) {
        const PendingPackage& oldest = pending_.front();
        ORV_LOG(ORV_ERROR,
                "[InotifyWatcher] Package[%s%s] of vfId[%d] is left where it is without another "
                "try: %zu packages wait for one already.",
                oldest.dir.c_str(), oldest.name.c_str(), vfId_, pending_.size());
        pending_.pop_front();
    }
    // The pause doubles with each try, from the first to the last.
    auto pause = limits::kFirstRetryPause * (1u << std::min<uint32_t>(attempts - 1, 16));
    pause = std::min(pause, limits::kLastRetryPause);
    pending_.push_back({dir, name, attempts, std::chrono::steady_clock::now() + pause});
    ORV_LOG(ORV_WARN, "[InotifyWatcher] Package[%s%s] of vfId[%d] is tried again in %lld ms.",
            dir.c_str(), name.c_str(), vfId_, static_cast<long long>(pause.count()));
}

void InotifyWatcher::RetryDuePackages() {
    auto now = std::chrono::steady_clock::now();
    for (size_t left = pending_.size(); left > 0 && running_; --left) {
        auto due = std::min_element(
            pending_.begin(), pending_.end(),
            [](const PendingPackage& a, const PendingPackage& b) { return a.due < b.due; });
        if (due->due > now) {
            return;
        }
        PendingPackage package = *due;
        pending_.erase(due);
        ORV_LOG(ORV_EVENT, "begin load aicpu package path[%s] file[%s]", package.dir.c_str(),
                package.name.c_str());
        LoadPackage(package.dir, package.name, package.attempts);
    }
}

int InotifyWatcher::WaitTimeoutMs() const {
    int timeout = kEpollTimeoutMs;
    auto now = std::chrono::steady_clock::now();
    for (const PendingPackage& package : pending_) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(package.due - now).count();
        timeout = static_cast<int>(std::clamp<int64_t>(left, 0, timeout));
    }
    return timeout;
}

bool InotifyWatcher::GetInotifyPath(int32_t wd, std::string& path) {
    auto it = wdPathMap_.find(wd);
    if (it == wdPathMap_.end()) {
        ORV_LOG(ORV_ERROR, "can not find path map to epoll_fd[%d] inotify_fd[%d] wd[%d].", epollFd_,
                inotifyFd_, wd);
        return false;
    }
    path = it->second;
    ORV_LOG(ORV_INFO, "find path[%s] map to epoll_fd[%d] inotify_fd[%d] wd[%d]", path.c_str(),
            epollFd_, inotifyFd_, wd);
    return CheckRealPath(path);
}

void InotifyWatcher::Stop() {
    if (!running_) {
        ORV_LOG(ORV_INFO, "vfId[%d] working thread has already stopped", vfId_);
        return;
    }
    running_ = false;
    // An install under way ends at its next step; the thread is then free.
    if (packageWorker_ != nullptr) {
        packageWorker_->Stop();
    }
    if (watchThread_.joinable()) {
        uint64_t one = 1;
        if (write(wakeFd_, &one, sizeof(one)) < 0) {
            // The thread still notices within its wait's time-out.
            ORV_LOG(ORV_WARN, "wake the watch thread of vfId[%d] failed, %s", vfId_,
                    SafeStrerror().c_str());
        }
        watchThread_.join();
    }
    ORV_LOG(ORV_INFO, "begin stop epoll_fd[%d] inotify_fd[%d] vfId[%d]", epollFd_, inotifyFd_,
            vfId_);
    for (const auto& entry : wdPathMap_) {
        inotify_rm_watch(inotifyFd_, entry.first);
    }
    wdPathMap_.clear();
    // Descriptor 0 means "never opened" here; closing it would close the
    // daemon's standard input.
    if (epollFd_ > 0 && inotifyFd_ > 0) {
        epoll_ctl(epollFd_, EPOLL_CTL_DEL, inotifyFd_, nullptr);
    }
    if (inotifyFd_ > 0) {
        close(inotifyFd_);
    }
    inotifyFd_ = 0;
    if (epollFd_ > 0) {
        close(epollFd_);
    }
    epollFd_ = 0;
    if (wakeFd_ >= 0) {
        close(wakeFd_);
    }
    wakeFd_ = -1;
    ORV_LOG(ORV_INFO, "finish stop epoll_fd[%d] inotify_fd[%d] vfId[%d]", epollFd_, inotifyFd_,
            vfId_);
}

uint32_t InotifyWatcher::Destory() {
    Stop();
    if (packageWorker_ != nullptr) {
        packageWorker_->Destory();
    }
    uint32_t ret = ClearWatcherPtr();
    initialized_ = false;
    return ret;
}

uint32_t InotifyWatcher::ClearWatcherPtr() {
    std::shared_ptr<InotifyWatcher> self;  // let go outside the lock
    MutexLock lock(&mutexForInotifyWatcherMap_);
    auto it = inotifyWatcherMap_.find(vfId_);
    if (it == inotifyWatcherMap_.end()) {
        ORV_LOG(ORV_ERROR, "delete the %d inotifyWatcherPtr from inotifyWatcherMap_ failed", vfId_);
        return 1;
    }
    self = std::move(it->second);
    inotifyWatcherMap_.erase(it);
    return 0;
}

}  // namespace orv
