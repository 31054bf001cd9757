// OrvDaemon: the daemon's root object. Start() brings the device side up in a
// fixed order and stops at the first failing step; two monitor threads then
// watch the daemon's health (heartbeat thread) and the sessions' health
// (event-client heartbeat thread). Destroy() takes it all down again.
//
// It also holds the registry of sessions, the start-up housekeeping, and the
// small services sessions and the event server call (buffer groups, buffer
// release, alarms).
#ifndef ORV_DAEMON_ORVDAEMON_H
#define ORV_DAEMON_ORVDAEMON_H

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <hdc_server.h>

#include "daemon/orv_pexa_client.h"
#include "daemon/session_reaper.h"
#include "orv_message.pb.h"
#include "platform/mutex.h"
#include "platform/orv_drv_manager.h"
#include "session/orv_common.h"

namespace orv {

// (device id, vf id) -> host pid -> session.
using OrvImplKey = std::pair<uint32_t, int32_t>;
using OrvImplMap = std::map<OrvImplKey, std::map<uint32_t, std::shared_ptr<OrvImpl>>>;

// Largest VF id; 0 is the physical function.
inline constexpr uint32_t kMaxVfId = 16;
// Physical device ids lie below this.
inline constexpr uint32_t kMaxRealDeviceId = 128;

// Handlers of host requests, registered with the dispatch registry.
// Start, close, profiling update and queue-scheduler start (6, 7, 30, 37).
void FmkToOrvMsg(const uint32_t& sessionId, const HDCMessage& msg);
// A host's HDC session went away (10).
void FmkToOrvAbnormalMsg(const uint32_t& sessionId, const HDCMessage& msg);
// Link and version test (32).
void ProcessTestMsg(const uint32_t& sessionId, const HDCMessage& msg);

class OrvDaemon {
public:
    static OrvDaemon* GetInstance();

    OrvDaemon(const OrvDaemon&) = delete;
    OrvDaemon& operator=(const OrvDaemon&) = delete;

    // ---- Lifecycle ----

    // Brings the daemon up. 0 on success, else the failing step's code. A call
    // while started returns 0 at once; a failed start stays "started".
    uint32_t Start();

    // Takes the daemon down; does nothing when it is not started.
    void Destroy();

    // Signal dispositions and the device count.
    void InitState();

    // Starts the event server for every device.
    uint32_t StartOrvEventServer();

    // Bodies of the two monitor threads.
    void SendOrvHeartbeat();
    void CheckEventClientHeartbeat();

    // Joins both monitor threads.
    void JoinProcess();

    // Sends one message to the host on one HDC session: 4 when the device has
    // no HDC server, else the library's result.
    uint32_t SendHdcMsg(uint32_t deviceId, uint32_t sessionId, const HDCMessage& msg);

    // Closes one HDC session of a device, if the device has a server.
    void CloseHdcSession(uint32_t deviceId, uint32_t sessionId);

    // ---- Host requests ----

    void FmkToOrvMsgProc(uint32_t sessionId, HDCMessage::MsgType type, uint32_t deviceId, uint32_t realDeviceId,
                         uint32_t hostPid, const std::string& procSign, uint32_t profilingMode, uint32_t rankSize,
                         bool startZarn, bool startCp, uint32_t checkCode, const std::string& logLevel, int32_t vfId,
                         uint32_t deviceMode, const std::string& qsGroupName);
    void OrvStartProcess(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId, uint32_t hostPid,
                         const std::string& procSign, uint32_t profilingMode, uint32_t rankSize, bool startZarn,
                         bool startCp, bool startQs, uint32_t checkCode, const std::string& logLevel, int32_t vfId,
                         uint32_t deviceMode, const std::string& qsGroupName);
    void OrvCloseProcess(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId, uint32_t hostPid,
                         uint32_t rankSize, int32_t vfId);
    void OrvUpdateProfiling(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId, uint32_t hostPid,
                            uint32_t profilingMode, uint32_t rankSize, int32_t vfId);
    // A response built here, when no session can answer.
    uint32_t SendRspToFmk(uint32_t deviceId, uint32_t sessionId, uint32_t realDeviceId, uint32_t rspCode,
                          HDCMessage::MsgType type);
    // Tears down the session of a host whose HDC session went away, if that
    // HDC session created it, and every other session that HDC session created.
    void HDCAbnormalMsgProc(uint32_t deviceId, int32_t vfId, uint32_t hostPid, uint32_t sessionId);
    // Ends a session whose link dropped, unless it is closing already.
    void EndSessionOfDroppedLink(OrvImpl& session, uint32_t deviceId, int32_t vfId, uint32_t hostPid);
    // Check-code query (35); answers and closes the query's HDC session.
    static void ProcessPackageInfoMsg(const uint32_t& sessionId, const HDCMessage& msg);

    uint32_t GetDeviceNum() const { return deviceNum_; }
    bool GetZebFlag() const { return zebFlag_; }

    // ---- Session registry ----

    // Reads the per-(device, vf) session limit from AICPU_MAX_NUM.
    void SetMaxProcessPerDevice();
    uint32_t GetMaxProcessPerDevice() const { return maxProcessPerDevice_; }

    // The session of a host process, new or existing; null for an invalid
    // device or VF id, or when the (device, vf) entry is full.
    std::shared_ptr<OrvImpl> CreateOrvImpl(uint32_t deviceId, uint32_t sessionId, uint32_t rankSize,
                                           uint32_t realDeviceId, uint32_t hostPid, uint32_t profilingMode,
                                           const std::string& procSign, uint32_t checkCode,
                                           const std::string& logLevel, int32_t vfId, uint32_t deviceMode,
                                           bool startQs, const std::string& qsGroupName)
        LOCKS_EXCLUDED(orvImplMapMutex_);

    // Makes and registers a session; null when its construction throws.
    std::shared_ptr<OrvImpl> MakeOrvImplNoThrow(uint32_t deviceId, uint32_t sessionId, uint32_t rankSize,
                                                uint32_t realDeviceId, uint32_t hostPid, uint32_t profilingMode,
                                                const std::string& procSign, uint32_t checkCode,
                                                const std::string& logLevel, int32_t vfId, uint32_t deviceMode,
                                                const std::string& qsGroupName)
        EXCLUSIVE_LOCKS_REQUIRED(orvImplMapMutex_);

    std::shared_ptr<OrvImpl> GetOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid)
        LOCKS_EXCLUDED(orvImplMapMutex_);

    // Forgets a session whose end the event path learnt of.
    void DeleteOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid) LOCKS_EXCLUDED(orvImplMapMutex_);

    // Forgets and returns a session, only if HDC session `sessionId` created it.
    std::shared_ptr<OrvImpl> EraseOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid, uint32_t sessionId)
        LOCKS_EXCLUDED(orvImplMapMutex_);

    // A session together with its place in the registry.
    struct RegisteredSession {
        uint32_t deviceId;
        int32_t vfId;
        uint32_t hostPid;
        std::shared_ptr<OrvImpl> session;
    };
    // Forgets and returns every session HDC session `sessionId` created.
    std::vector<RegisteredSession> EraseOrvImplsOfLink(uint32_t sessionId) LOCKS_EXCLUDED(orvImplMapMutex_);

    // Empties the registry; sessions die with their last reference.
    void ClearOrvMap() LOCKS_EXCLUDED(orvImplMapMutex_);

    // ---- Start-up housekeeping ----

    // Sets the environment variables of the first 20 lines of
    // /var/orvdaemon_add_env_variable.sh ("export NAME=VALUE").
    void LoadFileAndSetEnv() const;

    // Sets the ZEB flag when REGISTER_TO_VELKANMONITOR is exactly "0".
    void GetZebFlagFromEnv();

    // Registers the daemon's identity with the system log library.
    void SetLogLevel() const;

    // Kills sub-processes left over by an earlier daemon. 0 on success.
    uint32_t CheckAndCleanProcess();

    // Appends the pids `pidof` reports for each name. 0 on success.
    uint32_t GetProcessPidByName(const std::vector<std::string>& names, std::vector<int32_t>& pids);

    // Opens the kernel's process-termination channel; a failure is logged only.
    void InitSysMonitor();

    // Reads one termination notice, if one is waiting; never blocks.
    uint32_t PidTerminate() const;

    // Pins the calling thread to every device's control CPUs.
    uint32_t BindCtrlCpu() const;

    // Binds this process's driver identity to VF 0.
    uint32_t SendVfId2Drv() const;

    // Creates and starts one HDC server per device.
    uint32_t InitOrvHdcSer();

    // Starts the package watchers of the physical function and existing VFs.
    uint32_t InitInotifyWatcher() const;

    // ---- Events, alarms and resources ----

    // Routes one sub-process event (sub-events 0, 1, 2, 6 and kind 4) to its session.
    void ProcessEventServerInfo(const void* info, uint32_t subEventId);

    // Returns a dead sub-process's buffers to the driver.
    static void FreeProcessBuff(uint32_t subProcPid);

    // Removes a host process's custom-kernel directory, if it exists.
    static void CleanResource(uint32_t hostPid, int32_t vfId);

    // Raises an alarm for a sub-process with the device-management service.
    void GenerateAlarmMessage(uint32_t procType, uint32_t pid, uint32_t deviceId, AlarmReason reason) const;

    // "aicpu_rn_<pid>" and the like.
    void GetPidAppName(uint32_t procType, uint32_t pid, std::string& appName) const;

    // Attaches the daemon to a buffer group, once per name. 0 or the driver's error.
    uint32_t AttachBuffGroup(const std::string& groupName, int32_t timeout) LOCKS_EXCLUDED(attachedGroupsMutex_);

    // The one switch every long-running loop of the daemon tests.
    static std::atomic<bool> orvdaemonStartFlag_;

private:
    OrvDaemon();
    ~OrvDaemon();

    std::thread heartbeatThread_;
    // Written only by Start and Destroy; read without a lock.
    std::array<std::shared_ptr<HdcServer>, MAX_DEVNUM_PER_OS> hdcServers_;
    uint32_t deviceNum_ = 0;
    std::thread eventClientHeartbeatThread_;

    Mutex orvImplMapMutex_;
    OrvImplMap orvImplMap_ GUARDED_BY(orvImplMapMutex_);

    bool zebFlag_ = false;
    int32_t sysMonitorFd_ = -1;
    uint32_t maxProcessPerDevice_ = 32;

    // Two first attaches of the same group may both reach the driver; the
    // mutex only keeps the set itself consistent.
    Mutex attachedGroupsMutex_;
    std::set<std::string> attachedGroups_ GUARDED_BY(attachedGroupsMutex_);

    // Sessions dropped by the event workers and the monitor end here.
    SessionReaper reaper_;
};

}  // namespace orv

#endif  // ORV_DAEMON_ORVDAEMON_H
