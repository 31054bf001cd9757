// OrvDaemon: the daemon's root object, one per process. Start() brings the
// device side up in a fixed order and stops at the first failing step; two
// monitor threads then watch the daemon's health (heartbeat thread) and the
// sessions' health (event-client heartbeat thread). Destroy() takes it all
// down again.
//
// While started it routes host requests to sessions, keeps the registry of
// sessions by (device, VF, host pid), and gives sessions and the event server
// the services that outlive any one session: the HDC link, buffer groups,
// buffer release and alarms.
//
// One unit per concern:
//   orvdaemon.cc             lifecycle, monitor loops and the HDC link
//   host_requests.cc         handlers of host requests
//   session_registry.cc      the registry of sessions
//   startup_housekeeping.cc  the steps of Start that prepare the process and the card
//   events_and_alarms.cc     sub-process events, alarms, buffer groups, buffer release
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
#include "platform/orv_codes.h"
#include "platform/orv_drv_manager.h"
#include "session/orv_common.h"

namespace orv {

// (device id, vf id) -> host pid -> session.
using OrvImplKey = std::pair<uint32_t, int32_t>;
using OrvImplMap = std::map<OrvImplKey, std::map<uint32_t, std::shared_ptr<OrvImpl>>>;

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

    // ---- Lifecycle (app/main.cc) ----

    // Brings the daemon up. 0 on success, else the failing step's code. A call
    // while started returns 0 at once; a failed start stays "started".
    uint32_t Start();

    // Takes the daemon down; does nothing when it is not started.
    void Destroy() LOCKS_EXCLUDED(orvImplMapMutex_, attachedGroupsMutex_);

    // The number of devices, known once Start has run.
    uint32_t GetDeviceNum() const { return deviceNum_; }

    // The ZEB flag (REGISTER_TO_VELKANMONITOR exactly "0"), known once Start has run.
    bool GetZebFlag() const { return zebFlag_; }

    // ---- The HDC link (sessions) ----

    // Sends one message to the host on one HDC session: 4 when the device has
    // no HDC server, else the library's result.
    uint32_t SendHdcMsg(uint32_t deviceId, uint32_t sessionId, const HDCMessage& msg);

    // Closes one HDC session of a device, if the device has a server.
    void CloseHdcSession(uint32_t deviceId, uint32_t sessionId);

    // ---- Host request handler (dispatch registry) ----

    // Check-code query (35); answers and closes the query's HDC session.
    static void ProcessPackageInfoMsg(const uint32_t& sessionId, const HDCMessage& msg);

    // ---- Sessions (event server, sessions, fuzz harnesses) ----

    // Routes one sub-process event (sub-events 0, 1, 2, 6 and kind 4) to its session.
    void ProcessEventServerInfo(const void* info, uint32_t subEventId)
        LOCKS_EXCLUDED(orvImplMapMutex_);

    // The registered session of a host process, or null.
    std::shared_ptr<OrvImpl> GetOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid)
        LOCKS_EXCLUDED(orvImplMapMutex_);

    // Empties the registry; sessions die with their last reference, outside the lock.
    void ClearOrvMap() LOCKS_EXCLUDED(orvImplMapMutex_);

    // ---- Resources and alarms (sessions) ----

    // Returns a dead sub-process's buffers to the driver.
    static void FreeProcessBuff(uint32_t subProcPid);

    // Frees only the custom-kernel directory of a host process, if it exists.
    static void CleanResource(uint32_t hostPid, int32_t vfId);

    // Raises an alarm for a sub-process with the device-management service.
    void GenerateAlarmMessage(uint32_t procType, uint32_t pid, uint32_t deviceId,
                              AlarmReason reason) const;

    // "aicpu_rn_<pid>" and the like.
    void GetPidAppName(uint32_t procType, uint32_t pid, std::string& appName) const;

    // Attaches the daemon to a buffer group, once per name. 0 or the driver's error.
    uint32_t AttachBuffGroup(const std::string& groupName, int32_t timeout)
        LOCKS_EXCLUDED(attachedGroupsMutex_);

    // ---- Start-up steps that tests and fuzz harnesses also run on their own ----

    // Sets the environment variables of the first 20 lines of
    // /var/orvdaemon_add_env_variable.sh ("export NAME=VALUE").
    void LoadFileAndSetEnv() const;

    // Sets, rather than gets: the ZEB flag, when REGISTER_TO_VELKANMONITOR is exactly "0".
    void GetZebFlagFromEnv();

    // Reads the per-(device, vf) session limit from AICPU_MAX_NUM.
    void SetMaxProcessPerDevice();
    uint32_t GetMaxProcessPerDevice() const { return maxProcessPerDevice_; }

    // Kills sub-processes left over by an earlier daemon and frees their
    // buffers, then removes every custom-kernel directory and empties the
    // registry. 0 on success.
    uint32_t CheckAndCleanProcess();

    // Binds this process's driver identity to VF 0, as the daemon's own.
    uint32_t SendVfId2Drv() const;

    // ---- Used only inside the daemon, and by the registry's tests ----

    // Passes a checked host request on to the handler of its type.
    void FmkToOrvMsgProc(uint32_t sessionId, HDCMessage::MsgType type, uint32_t deviceId,
                         uint32_t realDeviceId, uint32_t hostPid, const std::string& procSign,
                         uint32_t profilingMode, uint32_t rankSize, bool startZarn, bool startCp,
                         uint32_t checkCode, const std::string& logLevel, int32_t vfId,
                         uint32_t deviceMode, const std::string& qsGroupName);

    // Tears down the session of a host whose HDC session went away, if that
    // HDC session created it, and every other session that HDC session created.
    void HDCAbnormalMsgProc(uint32_t deviceId, int32_t vfId, uint32_t hostPid, uint32_t sessionId);

    // The session of a host process, new or existing; null for an invalid
    // device or VF id, or when the (device, vf) entry is full.
    std::shared_ptr<OrvImpl> CreateOrvImpl(uint32_t deviceId, uint32_t sessionId, uint32_t rankSize,
                                           uint32_t realDeviceId, uint32_t hostPid,
                                           uint32_t profilingMode, const std::string& procSign,
                                           uint32_t checkCode, const std::string& logLevel,
                                           int32_t vfId, uint32_t deviceMode, bool startQs,
                                           const std::string& qsGroupName)
        LOCKS_EXCLUDED(orvImplMapMutex_);

    // Forgets a session whose end the event path learnt of; the session ends
    // on the reaper's thread.
    void DeleteOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid)
        LOCKS_EXCLUDED(orvImplMapMutex_);

    // Forgets and returns a session, only if HDC session `sessionId` created it.
    std::shared_ptr<OrvImpl> EraseOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid,
                                          uint32_t sessionId) LOCKS_EXCLUDED(orvImplMapMutex_);

    // ---- Extra methods for tests ----

    // Whether the daemon counts as started.
    static bool TEST_Started() { return orvdaemonStartFlag_.load(); }

  private:
    OrvDaemon();
    ~OrvDaemon();

    // A session together with its place in the registry.
    struct RegisteredSession {
        uint32_t deviceId;
        int32_t vfId;
        uint32_t hostPid;
        std::shared_ptr<OrvImpl> session;
    };

    // ---- Lifecycle and monitor loops (orvdaemon.cc) ----

    // Lets the kernel reap children (SIGCHLD ignored), ignores SIGPIPE, and
    // reads the device count.
    void InitState();

    // Starts the event server for every device.
    uint32_t StartOrvEventServer();

    // Heartbeat thread: registers with the monitor service, then heartbeats and
    // checks that every HDC server and the event server run; returns when one does not.
    void SendOrvHeartbeat();

    // The session monitor thread, despite its name: once a second, reads the
    // termination channel, then checks each session's start timeout and sub-processes.
    void CheckEventClientHeartbeat() LOCKS_EXCLUDED(orvImplMapMutex_);

    // Joins both monitor threads (threads, not processes).
    void JoinProcess();

    // ---- Host requests (host_requests.cc) ----

    void OrvStartProcess(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId,
                         uint32_t hostPid, const std::string& procSign, uint32_t profilingMode,
                         uint32_t rankSize, bool startZarn, bool startCp, bool startQs,
                         uint32_t checkCode, const std::string& logLevel, int32_t vfId,
                         uint32_t deviceMode, const std::string& qsGroupName);
    void OrvCloseProcess(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId,
                         uint32_t hostPid, uint32_t rankSize, int32_t vfId);
    void OrvUpdateProfiling(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId,
                            uint32_t hostPid, uint32_t profilingMode, uint32_t rankSize,
                            int32_t vfId);

    // A response built here, when no session can answer.
    uint32_t SendRspToFmk(uint32_t deviceId, uint32_t sessionId, uint32_t realDeviceId,
                          uint32_t rspCode, HDCMessage::MsgType type);

    // Ends a session whose link dropped, unless it is closing already.
    void EndSessionOfDroppedLink(OrvImpl& session, uint32_t deviceId, int32_t vfId,
                                 uint32_t hostPid);

    // ---- Session registry (session_registry.cc) ----

    // Makes and registers a session; null when its construction throws.
    std::shared_ptr<OrvImpl> MakeOrvImplNoThrow(uint32_t deviceId, uint32_t sessionId,
                                                uint32_t rankSize, uint32_t realDeviceId,
                                                uint32_t hostPid, uint32_t profilingMode,
                                                const std::string& procSign, uint32_t checkCode,
                                                const std::string& logLevel, int32_t vfId,
                                                uint32_t deviceMode, const std::string& qsGroupName)
        EXCLUSIVE_LOCKS_REQUIRED(orvImplMapMutex_);

    // Forgets and returns every session HDC session `sessionId` created.
    std::vector<RegisteredSession> EraseOrvImplsOfLink(uint32_t sessionId)
        LOCKS_EXCLUDED(orvImplMapMutex_);

    // ---- Start-up housekeeping (startup_housekeeping.cc) ----

    // Sets no level: registers the daemon's pid and kind with the system log library.
    void SetLogLevel() const;

    // Appends the pids `pidof` reports for each name. 0 on success.
    uint32_t GetProcessPidByName(const std::vector<std::string>& names, std::vector<int32_t>& pids);

    // Opens the kernel's process-termination channel; a failure is logged only.
    void InitSysMonitor();

    // Terminates nothing: logs one waiting termination notice, if any, and
    // returns 0; never blocks.
    uint32_t PidTerminate() const;

    // Pins the calling thread to every device's control CPUs.
    uint32_t BindCtrlCpu() const;

    // Creates and starts one HDC server per device.
    uint32_t InitOrvHdcSer();

    // Starts the package watchers of the physical function and existing VFs.
    uint32_t InitInotifyWatcher() const;
    // Without watchers (ZEB): records which VFs exist, for starts.
    void NoteExistingVfs() const;

    // Why a start may not go ahead for a VF or buffer group that is not the
    // host's to use; empty when it may.
    std::string StartRefusal(uint32_t deviceId, int32_t vfId, bool startQs,
                             const std::string& qsGroupName) const;

    // True from the first Start until Destroy, a failed start included; every
    // long-running loop of the daemon tests it.
    static std::atomic<bool> orvdaemonStartFlag_;

    // Written only by Start and Destroy (and by tests running single steps), read
    // without a lock; Destroy joins the monitor threads before it resets anything.
    std::thread heartbeatThread_;
    std::array<std::shared_ptr<HdcServer>, MAX_DEVNUM_PER_OS> hdcServers_;
    uint32_t deviceNum_ = 0;
    std::thread eventClientHeartbeatThread_;
    bool zebFlag_ = false;
    int32_t sysMonitorFd_ = -1;
    uint32_t maxProcessPerDevice_ = 32;

    // Before the sessions' own locks (in OrvImpl): CreateOrvImpl updates an
    // existing session while holding it.
    Mutex orvImplMapMutex_;
    OrvImplMap orvImplMap_ GUARDED_BY(orvImplMapMutex_);

    // Last of all: sessions attach groups, and nothing is called while it is
    // held. Two first attaches of the same group may both reach the driver; the
    // mutex only keeps the set itself consistent.
    Mutex attachedGroupsMutex_ ACQUIRED_AFTER(orvImplMapMutex_);
    std::set<std::string> attachedGroups_ GUARDED_BY(attachedGroupsMutex_);

    // Sessions dropped by the event workers and the monitor end here. Its own
    // lock is a leaf: nothing is taken or called while it is held.
    SessionReaper reaper_;
};

}  // namespace orv

#endif  // ORV_DAEMON_ORVDAEMON_H
