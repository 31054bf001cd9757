// OrvDaemon's lifecycle: start-up in its fixed order, the two monitor
// threads, tear-down, and the HDC link that sessions answer hosts on.
#include "daemon/orvdaemon.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <system_error>

#include "event/orv_event_server.h"
#include "package/inotify_watcher.h"
#include "package/internal_api.h"
#include "package/package_worker.h"
#include "platform/appmon_client.h"
#include "platform/log.h"
#include "platform/orv_codes.h"
#include "platform/stop_signal.h"

namespace orv {

std::atomic<bool> OrvDaemon::orvdaemonStartFlag_{false};

namespace {

constexpr std::chrono::seconds kMonitorPeriod{1};

// Starts `body` on `thread`; false, logged, when no thread can be started.
bool StartThread(std::thread* thread, std::function<void()> body, const char* name) {
    try {
        *thread = std::thread(std::move(body));
    } catch (const std::system_error& e) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] cannot start the %s thread: %s", name, e.what());
        return false;
    }
    return true;
}

}  // namespace

OrvDaemon* OrvDaemon::GetInstance() {
    static OrvDaemon instance;
    return &instance;
}

OrvDaemon::OrvDaemon() {
    // These singletons are used by the destructor; constructing them first
    // makes them outlive this one.
    (void)ORVLog::GetInstance();
    (void)OrvEventServer::GetInstance();
    (void)AppmonClient::GetInstance();
    (void)OrvDrvManager::GetInstance();
}

OrvDaemon::~OrvDaemon() {
    ORV_LOG(ORV_INFO, "OrvDaemon::~OrvDaemon() destructor function called.");
    Destroy();
}

uint32_t OrvDaemon::Start() {
    if (orvdaemonStartFlag_.exchange(true)) {
        return 0;
    }
    StopSignal::Instance().Lower();
    ORV_LOG(ORV_EVENT, "[OrvDaemon] ORV Start enter");

    const char* startupQs = getenv("STARTUP_QS");
    if (startupQs != nullptr && strcmp(startupQs, "1") == 0) {
        ORV_LOG(ORV_EVENT, "[OrvEVENT] orv need to attach default group in ZEB");
        if (AttachBuffGroup(kDefaultMemGroup, -1) != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon]Fail to halGrpAttach groupName[%s] when start",
                    kDefaultMemGroup);
            return 1;
        }
    }

    uint32_t ret = OrvDrvManager::GetInstance()->Init();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] OrvDrvManager init Failed.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] OrvDrvManager init success");

    ret = BindCtrlCpu();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] BindCtrlCpu Failed.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] BindCtrlCpu success");

    InitState();
    ORV_LOG(ORV_EVENT, "[OrvEVENT] InitState Finish.");

    ret = SendVfId2Drv();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] SendVfId2Drv Failed.");
        return ret;
    }

    GetZebFlagFromEnv();
    SetMaxProcessPerDevice();

    if (!IsZEBPG2FPGAEnv()) {
        ORV_LOG(ORV_EVENT, "[OrvEVENT] Begin CheckAndCleanProcess");
        ret = CheckAndCleanProcess();
        if (ret != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] CheckAndCleanProcess Failed.");
            return ret;
        }
        ORV_LOG(ORV_EVENT, "[OrvEVENT] CheckAndCleanProcess success");
    }

    if (!reaper_.Start()) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] cannot start the session reaper thread: sessions end on the thread "
                "that drops "
                "them");
    }
    ret = InitOrvHdcSer();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] InitOrvHdcSer() Failed.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Init HdcServer success");

    if (!zebFlag_) {
        ret = InitInotifyWatcher();
        if (ret != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] Init inotify watcher failed.");
            return ret;
        }
        ORV_LOG(ORV_EVENT, "[OrvEVENT] Init inotify watcher success");
    } else {
        // No watchers and no VF notices here; starts still go only to the
        // VFs the platform has.
        NoteExistingVfs();
    }

    InitSysMonitor();
    if (!StartThread(
            &eventClientHeartbeatThread_, [this] { CheckEventClientHeartbeat(); },
            "event-client heartbeat")) {
        return 1;
    }

    ret = StartOrvEventServer();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] OrvEventServer cannot be created.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Init OrvEventServer success");

    Orv2dmReqMsg startup;
    startup.kind = kPexaKindStartup;
    OrvPexaClient::GetInstance()->SendMessageToPexaServer(startup);

    if (!StartThread(
            &heartbeatThread_, [this] { SendOrvHeartbeat(); }, "heartbeat")) {
        return 1;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Start Monitor HdcServer and OrvEventServer!!!");
    LoadFileAndSetEnv();
    return 0;
}

void OrvDaemon::InitState() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ignore.sa_flags = SA_NOCLDWAIT;
    if (sigaction(SIGCHLD, &ignore, nullptr) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] get SIGCHLD handler failed");
    }
    if (sigaction(SIGPIPE, &ignore, nullptr) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] get SIGPIPE handler failed");
    }
    deviceNum_ = OrvDrvManager::GetInstance()->GetDeviceNum();
}

uint32_t OrvDaemon::StartOrvEventServer() {
    ORV_LOG(ORV_INFO, "OrvEventServer start");
    return OrvEventServer::GetInstance()->Init(deviceNum_);
}

void OrvDaemon::SendOrvHeartbeat() {
    ORV_LOG(ORV_INFO, "[OrvDaemon] SendOrvHeartbeat start");
    AppmonClient::GetInstance()->Init(zebFlag_);
    uint32_t registerTimes = 0;
    while (orvdaemonStartFlag_.load()) {
        if (!AppmonClient::GetInstance()->SendHeartbeat(registerTimes)) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon]register to appmon failed, prepare register again.");
            continue;
        }
        for (uint32_t deviceId = 0; deviceId < deviceNum_; ++deviceId) {
            if (hdcServers_[deviceId] == nullptr) {
                ORV_LOG(ORV_ERROR,
                        "[OrvDaemon] period check error: some hdcServer is not running,OrvDaemon "
                        "will Exit");
                return;
            }
        }
        if (!OrvEventServer::GetInstance()->IsRunning()) {
            ORV_LOG(
                ORV_ERROR,
                "[OrvDaemon] period check error:OrvEventServer is not running,OrvDaemon will Exit");
            return;
        }
    }
}

void OrvDaemon::CheckEventClientHeartbeat() {
    if (!orvdaemonStartFlag_.load()) {
        return;
    }
    do {
        int32_t terminatedPid = static_cast<int32_t>(PidTerminate());
        std::vector<std::shared_ptr<OrvImpl>> sessions;
        {
            MutexLock lock(&orvImplMapMutex_);
            for (auto& entry : orvImplMap_) {
                for (auto& session : entry.second) {
                    sessions.push_back(session.second);
                }
            }
        }
        // Each session is checked outside the map's lock: nothing one session
        // waits for holds up another host's request.
        for (const std::shared_ptr<OrvImpl>& orvImplPtr : sessions) {
            if (orvImplPtr == nullptr) {
                ORV_LOG(ORV_INFO, "orvImplPtr is null");
                continue;
            }
            orvImplPtr->CheckAndHandleTimeout();
            orvImplPtr->CheckEventClientHeartbeat(terminatedPid, zebFlag_);
        }
        // A session removed meanwhile may end with this round's reference.
        reaper_.Release(std::move(sessions));
        (void)StopSignal::Instance().Pause(kMonitorPeriod);
    } while (orvdaemonStartFlag_.load());
}

void OrvDaemon::JoinProcess() {
    if (eventClientHeartbeatThread_.joinable()) {
        eventClientHeartbeatThread_.join();
    }
    if (heartbeatThread_.joinable()) {
        heartbeatThread_.join();
    }
}

void OrvDaemon::Destroy() {
    if (!orvdaemonStartFlag_.exchange(false)) {
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] OrvDaemon::Destroy() enter");
    // The monitor threads are paced by pauses that this cuts short; package
    // installs under way end while the rest comes down.
    StopSignal::Instance().Raise();
    PackageWorker::CancelAllInstalls();
    JoinProcess();
    OrvEventServer::GetInstance()->Destroy();

    for (int32_t vfId = 0; vfId <= static_cast<int32_t>(kMaxVfId); ++vfId) {
        std::shared_ptr<InotifyWatcher> watcher = InotifyWatcher::FindInstance(vfId);
        if (watcher == nullptr) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Inotify watcher in vfId[%d] is nullptr, skip destroy",
                    vfId);
            continue;
        }
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Destroy Inotify watcher vfId[%d] begin", vfId);
        watcher->Destory();
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Destroy Inotify watcher vfId[%d] success", vfId);
    }

    for (uint32_t deviceId = 0; deviceId < deviceNum_ && deviceId < MAX_DEVNUM_PER_OS; ++deviceId) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Destroy deviceId[%u] call hdcSer's Destroy()", deviceId);
        if (hdcServers_[deviceId] == nullptr) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Destroy hdc instance nullptr");
            continue;
        }
        if (hdcServers_[deviceId]->Destroy() != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] hdcSer's Destroy() execute error");
        }
        hdcServers_[deviceId].reset();
    }

    AppmonClient::GetInstance()->ClearOrvRegistAppmonInfo();
    ClearOrvMap();
    reaper_.Stop();
    if (sysMonitorFd_ != -1) {
        close(sysMonitorFd_);
        sysMonitorFd_ = -1;
    }
    {
        MutexLock lock(&attachedGroupsMutex_);
        attachedGroups_.clear();
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] OrvDaemon::Destroy() exit");
}

// A device id beyond the array counts as a device without a server: the
// package query passes the host's id on unchecked.
void OrvDaemon::CloseHdcSession(uint32_t deviceId, uint32_t sessionId) {
    if (deviceId < MAX_DEVNUM_PER_OS && hdcServers_[deviceId] != nullptr) {
        hdcServers_[deviceId]->ClearSingleSession(sessionId);
    }
}

uint32_t OrvDaemon::SendHdcMsg(uint32_t deviceId, uint32_t sessionId, const HDCMessage& msg) {
    if (deviceId >= MAX_DEVNUM_PER_OS || hdcServers_[deviceId] == nullptr) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] SendHdcMsg: hdc instance nullptr");
        return kNoHdcServer;
    }
    return HdcCommon::SendMsg(sessionId, msg);
}

}  // namespace orv
