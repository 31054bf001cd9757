// OrvDaemon's registry of sessions: one per host process, by (device, VF),
// with at most AICPU_MAX_NUM of them in each entry.
#include "daemon/orvdaemon.h"

#include <cstdlib>

#include "platform/log.h"
#include "platform/orv_limits.h"
#include "platform/scope_guard.h"

namespace orv {

namespace {

constexpr uint32_t kMaxProcessDefault = limits::kDefaultSessionsPerVf;
constexpr uint32_t kMaxProcessLimit = limits::kMaxSessionsPerVf;

// Joins the host pids of one (device, vf) entry: "1, 2, 3".
std::string JoinHostPids(const std::map<uint32_t, std::shared_ptr<OrvImpl>>& sessions) {
    std::string text;
    for (const auto& session : sessions) {
        text += (text.empty() ? "" : ", ") + std::to_string(session.first);
    }
    return text;
}

}  // namespace

void OrvDaemon::SetMaxProcessPerDevice() {
    const char* text = getenv("AICPU_MAX_NUM");
    if (text == nullptr || *text == '\0') {
        ORV_LOG(ORV_EVENT, "Not found AICPU_MAX_NUM in env");
        maxProcessPerDevice_ = kMaxProcessDefault;
        return;
    }
    ORV_LOG(ORV_EVENT, "Get AICPU_MAX_NUM is %s", text);
    uint32_t limit = static_cast<uint32_t>(strtol(text, nullptr, 10));
    if (limit < 1 || limit > kMaxProcessLimit) {
        ORV_LOG(ORV_WARN, "[OrvDaemon] Get AICPU_MAX_NUM is %u out of range, please check it",
                limit);
        maxProcessPerDevice_ = kMaxProcessDefault;
        return;
    }
    maxProcessPerDevice_ = limit;
}

std::shared_ptr<OrvImpl> OrvDaemon::CreateOrvImpl(uint32_t deviceId, uint32_t sessionId,
                                                  uint32_t rankSize, uint32_t realDeviceId,
                                                  uint32_t hostPid, uint32_t profilingMode,
                                                  const std::string& procSign, uint32_t checkCode,
                                                  const std::string& logLevel, int32_t vfId,
                                                  uint32_t deviceMode, bool startQs,
                                                  const std::string& qsGroupName) {
    // Negative VF ids are refused by the same test.
    if (static_cast<uint32_t>(vfId) > kMaxVfId) {
        ORV_LOG(ORV_ERROR, "Invalid vfId[%d] in os[%u] session[%u]", vfId, deviceId, sessionId);
        return nullptr;
    }
    if (deviceId >= MAX_DEVNUM_PER_OS) {
        ORV_LOG(ORV_ERROR, "Invalid deviceId[%d] in session[%u]", static_cast<int32_t>(deviceId),
                sessionId);
        return nullptr;
    }
    MutexLock lock(&orvImplMapMutex_);
    std::map<uint32_t, std::shared_ptr<OrvImpl>>& sessions = orvImplMap_[{deviceId, vfId}];
    std::string hostPids = JoinHostPids(sessions);
    auto existing = sessions.find(hostPid);
    if (existing != sessions.end()) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] OrvImpl with deviceId[%u] vfId[%d] hostPid[%u] has already exist!",
                deviceId, vfId, hostPid);
        if (!startQs) {
            existing->second->UpdateOrvImpl(rankSize, profilingMode, checkCode, logLevel);
        }
        return existing->second;
    }
    if (sessions.size() < maxProcessPerDevice_) {
        return MakeOrvImplNoThrow(deviceId, sessionId, rankSize, realDeviceId, hostPid,
                                  profilingMode, procSign, checkCode, logLevel, vfId, deviceMode,
                                  qsGroupName);
    }
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] OrvImpl with hostPid[%u] create failed on deviceId[%u] vfId[%d], reach "
            "max aicpu-runner per "
            "device %u, hostPids[%s]",
            hostPid, deviceId, vfId, maxProcessPerDevice_, hostPids.c_str());
    return nullptr;
}

std::shared_ptr<OrvImpl> OrvDaemon::MakeOrvImplNoThrow(
    uint32_t deviceId, uint32_t sessionId, uint32_t rankSize, uint32_t realDeviceId,
    uint32_t hostPid, uint32_t profilingMode, const std::string& procSign, uint32_t checkCode,
    const std::string& logLevel, int32_t vfId, uint32_t deviceMode,
    const std::string& qsGroupName) {
    orvImplMapMutex_.AssertHeld();
    std::shared_ptr<OrvImpl> session;
    try {
        session = std::make_shared<OrvImpl>(deviceId, sessionId, rankSize, realDeviceId, hostPid,
                                            profilingMode, procSign, checkCode, logLevel, vfId,
                                            deviceMode, qsGroupName);
    } catch (...) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Create OrvImpl failed on device index in os[%u] vfId[%d]",
                deviceId, vfId);
        return nullptr;
    }
    orvImplMap_[{deviceId, vfId}][hostPid] = session;
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] Insert OrvImpl device index in os[%u] sess[%u] rank size[%u] vfId[%d] "
            "hostPid[%u] in "
            "OrvImpl map",
            deviceId, sessionId, rankSize, vfId, hostPid);
    return session;
}

std::shared_ptr<OrvImpl> OrvDaemon::GetOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid) {
    ORV_LOG(ORV_INFO, "[OrvDaemon] Begin to get orvImpl with deviceId[%u] vfId[%d] hostPid[%u]",
            deviceId, vfId, hostPid);
    std::shared_ptr<OrvImpl> session;
    {
        MutexLock lock(&orvImplMapMutex_);
        auto entry = orvImplMap_.find({deviceId, vfId});
        if (entry != orvImplMap_.end()) {
            auto found = entry->second.find(hostPid);
            if (found != entry->second.end()) {
                session = found->second;
            }
        }
    }
    if (session == nullptr) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] orvImpl with deviceId[%u] vfId[%d] hostPid[%u] is not exist.",
                deviceId, vfId, hostPid);
    }
    return session;
}

void OrvDaemon::DeleteOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid) {
    std::shared_ptr<OrvImpl> removed;
    // The caller is an event worker: the session ends on the reaper's thread.
    ScopeGuard release([this, &removed] {
        if (removed != nullptr) {
            reaper_.Release(std::move(removed));
        }
    });
    MutexLock lock(&orvImplMapMutex_);
    ORV_LOG(ORV_INFO, "[OrvDaemon] Begin to delete OrvImpl with deviceId[%u] vfId[%d] hostPid[%u].",
            deviceId, vfId, hostPid);
    auto entry = orvImplMap_.find({deviceId, vfId});
    if (entry == orvImplMap_.end()) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] orvImpl with deviceId[%u] vfId[%d] hostPid[%u] is not exist in "
                "orvImplMap_.",
                deviceId, vfId, hostPid);
        return;
    }
    auto found = entry->second.find(hostPid);
    if (found != entry->second.end()) {
        removed = std::move(found->second);
        entry->second.erase(found);
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] Success to delete OrvImpl with deviceId[%u] vfId[%d] hostPid[%u].",
            deviceId, vfId, hostPid);
}

std::shared_ptr<OrvImpl> OrvDaemon::EraseOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid,
                                                 uint32_t sessionId) {
    MutexLock lock(&orvImplMapMutex_);
    ORV_LOG(ORV_INFO, "[OrvDaemon] Begin to erase OrvImpl with deviceId[%u] vfId[%d] hostPid[%u].",
            deviceId, vfId, hostPid);
    auto entry = orvImplMap_.find({deviceId, vfId});
    if (entry == orvImplMap_.end()) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] orvImpl with deviceId[%u] vfId[%d] hostPid[%u] sessionId[%u] is not "
                "exist in "
                "orvImplMap_.",
                deviceId, vfId, hostPid, sessionId);
        return nullptr;
    }
    auto found = entry->second.find(hostPid);
    if (found == entry->second.end()) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] orvImpl with deviceId[%u] vfId[%d] hostPid[%u] sessionId[%u] is not "
                "exist.",
                deviceId, vfId, hostPid, sessionId);
        return nullptr;
    }
    if (found->second->GetSessionId() != sessionId) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] OrvImpl is not exist, the OrvImpl we got is with session of [%u], but "
                "what we want to "
                "delete is with session of [%u], skip HDCAbnormalMsgProc",
                found->second->GetSessionId(), sessionId);
        return nullptr;
    }
    std::shared_ptr<OrvImpl> session = std::move(found->second);
    entry->second.erase(found);
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] Success to erase OrvImpl with deviceId[%u] vfId[%d] hostPid[%u].",
            deviceId, vfId, hostPid);
    return session;
}

std::vector<OrvDaemon::RegisteredSession> OrvDaemon::EraseOrvImplsOfLink(uint32_t sessionId) {
    std::vector<RegisteredSession> erased;
    MutexLock lock(&orvImplMapMutex_);
    for (auto& [key, sessions] : orvImplMap_) {
        for (auto it = sessions.begin(); it != sessions.end();) {
            if (it->second->GetSessionId() == sessionId) {
                erased.push_back({key.first, key.second, it->first, std::move(it->second)});
                it = sessions.erase(it);
            } else {
                ++it;
            }
        }
    }
    return erased;
}

void OrvDaemon::ClearOrvMap() {
    OrvImplMap sessions;
    {
        MutexLock lock(&orvImplMapMutex_);
        sessions.swap(orvImplMap_);
    }
    // The sessions' destructors join their threads; that happens here,
    // outside the lock that those threads may need.
}

}  // namespace orv
