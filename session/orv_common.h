// OrvImpl: the session of one host framework process on one device and VF.
//
// A session decides which sub-processes run for its host process, starts them
// on worker threads, collects their started and closed reports (events from
// the event server), answers the host exactly once per start or close request,
// declares a start failed when the sub-processes do not all report within the
// monitor's start time-out, and tears everything down when the host closes,
// the host's link drops, or a sub-process dies.
#ifndef ORV_SESSION_ORV_COMMON_H
#define ORV_SESSION_ORV_COMMON_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "event/orv_event_interface.h"
#include "orv_message.pb.h"
#include "platform/mutex.h"
#include "session/process_util.h"

namespace orv {

// The four kinds of sub-process; the same numbers travel in events and alarms.
enum OrvSubProcessType : uint32_t {
    ZARN = 0,            // collective-communication service, /var/zarn_service.bin
    COMPUTE = 1,         // compute scheduler, /var/aicpu_runner
    CUSTOM_COMPUTE = 2,  // custom-kernel compute scheduler, /var/aicpu_custom_runner
    QUEUE_SCHEDULE = 3,  // queue scheduler, /var/queue_runner
};

// The kind of response sent to the host.
enum RcvFmkFlg : uint32_t {
    RCV_FMK_START = 0,
    RCV_FMK_CLOSE = 1,
    RCV_FMK_UPDATE_PROFILING = 2,
};

// State of a pending start.
enum OrvStartStatus : uint32_t {
    START_STATUS_NONE = 0,
    START_STATUS_TIMEOUT = 1,         // the failure response went out; later reports do not answer
    START_STATUS_ANSWERED = 2,        // the success response went out
    START_STATUS_CHECKING_PACKAGE = 3,
    START_STATUS_PACKAGE_CHECKED = 4,
};

// A thread of a session and whether its work is done: finished threads are
// joined as new ones start, so that a long session keeps only those at work.
struct SessionThread {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
};

// One entry of a start list.
struct ProcessConfig {
    std::string path;
    std::string name;
    OrvSubProcessType type;
};

// The command-line pieces of one launch, each a whole "--flag=value" (or path).
struct ProcessInfo {
    std::string deviceIdArg;
    std::string pidArg;
    std::string pidSignArg;
    std::string profilingModeArg;
    std::string logLevelArg;
    std::string vfIdArg;
    std::string kernelsPath;
    std::string sandboxPath;
    std::string ldLibraryPathEnv;
    std::string groupNameListArg;
    std::string groupNameNumArg;
    std::string dataMasterRunModeEnv;
    std::string deviceModeArg;
    std::string custSoPathArg;
    std::string aicpuPidArg;
    std::string deployModeArg;
    std::string qsInitGroupNameArg;
    std::string groupName;
    std::string reschedIntervalArg;
    uint32_t groupNum = 0;
};

// Paths and names of the sub-process executables.
extern const std::string kZarnPath;
extern const std::string kComputePath;
extern const std::string kCustomComputePath;
extern const std::string kQueuePath;

// The buffer group the queue scheduler joins when none is named.
inline constexpr char kDefaultMemGroup[] = "DEFAULT_MEM_GROUP";
// Custom-kernel files of a session: kCustSoRoot + kCustSoPrefix + vf and host pid.
inline constexpr char kCustSoRoot[] = "/home/QelvarUser/";
inline constexpr char kCustSoPrefix[] = "cust_aicpu_";

class OrvImpl {
public:
    OrvImpl(uint32_t deviceIdInOs, uint32_t sessionId, uint32_t rankSize, uint32_t realDeviceId, uint32_t fmkPid,
            uint32_t profilingMode, std::string pidSign, uint32_t checkCode, std::string logLevelInPid, int32_t vfId,
            uint32_t deviceMode, std::string qsGroupName);
    virtual ~OrvImpl();
    OrvImpl(const OrvImpl&) = delete;
    OrvImpl& operator=(const OrvImpl&) = delete;

    // ---- Start orchestration and responses ----

    // A start request for an existing session refreshes exactly these fields.
    void UpdateOrvImpl(uint32_t rankSize, uint32_t profilingMode, uint32_t checkCode, const std::string& logLevelInPid);

    // The HDC session that created this session; responses go there.
    uint32_t GetSessionId() const { return sessionId_; }

    // Records which sub-processes a start request asks for; answers at once
    // when the request is invalid or everything asked for already runs.
    void SetStartStatus(bool startZarn, bool startCp, bool startQs);

    // Starts the configured sub-processes on worker threads.
    void StartSubProcess();

    // Body of one start worker thread.
    void ExecuteStart(const std::string& path, const std::string& name, OrvSubProcessType type);

    // A sub-process reported that it started / closed.
    uint32_t StartRspProc(uint32_t subPid, uint32_t procType);
    uint32_t CloseRspProc(uint32_t subPid, uint32_t procType);

    // Builds and sends one response to the host. 0 on success.
    uint32_t SendRspMsgToFmk(RcvFmkFlg flag, uint32_t rspCode, const std::string& errMsg);

    // Once per monitor tick: answers a start that did not finish in time.
    void CheckAndHandleTimeout();

    // Waits (at most 6 s) for the start workers to finish.
    void WaitForkTaskDone();

    // Every kind asked for runs (the custom process aside).
    bool IsAllSubProcRunRegular() const;
    // No kind runs.
    bool IsAllSubProcCloseRegular() const;
    void SetProcessCloseFlag(uint32_t procType);
    void SetSubProcPid(int32_t pid, uint32_t procType);
    // Records a sub-process just forked, still held before its exec, unless
    // closing began since its worker looked; then no clean-up will see it,
    // and it is killed here. True when it was recorded.
    bool RecordForkedSubProcess(std::shared_ptr<ProcessHandle> child, uint32_t procType);
    void SetCloseHandle(bool closeHandle);
    bool GetCloseHandle();
    // Closing has begun and every sub-process has closed.
    bool IsClose();

    // ---- Sub-process launch ----

    // Forks and executes one sub-process bound to `ctrlCpus`; its pid, or a
    // value below 1. With a `gate`, the child execs only once it is released.
    int32_t ForkSubProcess(const std::string& path, const std::string& name, OrvSubProcessType type,
                           const std::vector<uint32_t>& ctrlCpus, StartGate* gate = nullptr);
    uint32_t GetProcessInfo(ProcessInfo& info, OrvSubProcessType type);
    uint32_t CheckProcessInputParam(const std::string& path, const std::string& name) const;
    // Chip id of the session's device, or all ones.
    uint32_t GetChipId() const;
    // True when the hardware is the ZEB platform.
    static bool GetIsZebFlag();

    // ---- Buffer groups ----

    uint32_t GetHostGrpName();
    uint32_t GetGroupInfo(uint32_t& groupNum, std::string& groupName, OrvSubProcessType type);

    // ---- Supervision, close and clean-up ----

    // Orderly close of every sub-process (the host's close request).
    void CloseSubProcess();
    void ExecuteClose(uint32_t subPid, OrvSubProcessType type);
    // 0 when the process exited by itself, 1 when it had to be killed.
    uint32_t CheckAndWaitSubProcessExit(uint32_t subPid, uint32_t type);
    void KillProcess(const std::vector<uint32_t>& pids);
    // The pid field of a kind, or null for an unknown kind.
    int32_t* SubProcPid(uint32_t procType) EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    void CheckSubProcessExit(int32_t& pid, uint32_t type) EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    void CheckAicpuSubProcessExit(const int32_t& pid, bool zebFlag) EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    void InnerProcClean(bool closeHdc);
    void CustomProcClean();
    void CleanSubProcResource();
    // Clean-up after the host or its link failed.
    void AbnormalMsgProc(bool customOnly, bool closeHdc);
    void CleanOrvRcvEventThreads();
    void CleanOrvRcvHdcThreads();
    void Destory();

    // ---- Event traffic ----

    // True when `pid` is a sub-process this session runs now, of kind
    // `procType` unless that is kAnyProcType.
    static constexpr uint32_t kAnyProcType = UINT32_MAX;
    bool IsOwnSubProcess(uint32_t pid, uint32_t procType = kAnyProcType) LOCKS_EXCLUDED(pidMutex_);
    void ProcessEventServerInfo(uint32_t subPid, uint32_t eventType, uint32_t procType, const void* payload);
    bool CheckSubProcPid(uint32_t subPid, uint32_t procType);
    void NotifyAicpuInfoProc(const OrvCustStartEventInfo& info);
    void NotifySoNameToCustAicpu(const OrvSubEventInfo& info) const;
    void UpdateAicpuProfiling(uint32_t profilingMode);
    uint32_t NotifyUpdateProfilingToAicpu(uint32_t pid, uint32_t profilingMode, OrvSubProcessType type) const;
    // Once per monitor tick: notices sub-processes that died.
    void CheckEventClientHeartbeat(int32_t& pid, bool zebFlag);

private:
    // Hands a profiling mode to the compute and custom processes that run;
    // the code for the host's reply.
    uint32_t NotifyProfilingToRunningProcs(uint32_t profilingMode);
    // The handle on a sub-process this session started, or null.
    std::shared_ptr<ProcessHandle> SubProcHandle(int32_t pid) const LOCKS_EXCLUDED(pidMutex_);
    std::shared_ptr<ProcessHandle> SubProcHandleLocked(int32_t pid) const EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    // Drops the handles of sub-processes that ended and are recorded no more.
    void ForgetEndedSubProcesses() EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    // Builds the start list, in the fixed order zarn, compute, queue.
    void SaveProcessConfig(std::vector<ProcessConfig>& configs);
    // Starts `work` on a thread kept in eventThreads_; false (logged, naming
    // `what`) when too many are at work or no thread can be started.
    bool StartEventThread(std::function<void()> work, const char* what);
    // Starts `work` on a thread kept in forkTasks_; false as above.
    bool StartForkTask(std::function<void()> work, const char* what);
    // A sub-process could not be started, or its exec failed: the alarm and
    // the lines of a failed fork.
    void StartFailed(OrvSubProcessType type, int32_t pid);
    // Sends the start time-out's failure answer, off the monitor thread.
    void SendTimeoutRsp(const std::string& reason);
    // The custom process asked for did not report its start in time.
    void GiveUpCustomStart();
    std::string LogLevel();

    // Constant after construction.
    const uint32_t sessionId_;
    const uint32_t deviceIdInOs_;
    std::atomic<uint32_t> rankSize_;
    const uint32_t realDeviceId_;
    const uint32_t fmkPid_;
    std::atomic<uint32_t> profilingMode_;
    const std::string pidSign_;

    mutable Mutex pidMutex_;
    int32_t computePid_ GUARDED_BY(pidMutex_) = -1;
    int32_t queuePid_ GUARDED_BY(pidMutex_) = -1;
    int32_t zarnPid_ GUARDED_BY(pidMutex_) = -1;

    Mutex forkTaskMutex_;
    // The start workers and, despite the name, the close workers.
    std::list<SessionThread> forkTasks_ GUARDED_BY(forkTaskMutex_);
    Mutex eventThreadMutex_;
    std::list<SessionThread> eventThreads_ GUARDED_BY(eventThreadMutex_);

    Mutex closeMutex_;
    bool closeHandle_ GUARDED_BY(closeMutex_) = false;
    int32_t customComputePid_ GUARDED_BY(pidMutex_) = -1;

    std::atomic<bool> startZarn_{false};
    std::atomic<bool> startCompute_{false};
    std::atomic<bool> startCustomCompute_{false};
    std::atomic<bool> startQueue_{false};
    std::atomic<bool> zarnRunning_{false};
    std::atomic<bool> computeRunning_{false};
    std::atomic<bool> customComputeRunning_{false};
    std::atomic<bool> queueRunning_{false};

    std::map<uint32_t, std::vector<std::string>> soNameMap_;
    std::string custSoPath_;
    Mutex custStartMutex_;
    CondVar custStartCond_{&custStartMutex_};
    Mutex custStartReqMutex_;

    std::atomic<uint32_t> closeRspSent_{0};
    std::atomic<uint32_t> computeStartedOnce_{0};
    std::atomic<uint32_t> zarnStartedOnce_{0};
    std::atomic<uint32_t> queueStartedOnce_{0};
    std::atomic<uint32_t> forkTaskCount_{0};

    std::atomic<uint32_t> checkCode_;
    Mutex logLevelMutex_;
    std::string logLevelInPid_ GUARDED_BY(logLevelMutex_);
    const int32_t vfId_;
    const uint32_t deviceMode_;

    std::atomic<uint32_t> startStatus_{START_STATUS_NONE};
    std::atomic<uint32_t> startTick_{0};
    Mutex startStatusMutex_;

    // Used by the launch of the compute and queue processes, one at a time.
    Mutex groupMutex_;
    std::vector<std::string> groupNames_ GUARDED_BY(groupMutex_);
    std::string qsGroupName_ GUARDED_BY(groupMutex_);
    std::string custGroupNameList_ GUARDED_BY(groupMutex_);
    uint32_t custGroupNum_ GUARDED_BY(groupMutex_) = 0;

    // Every sub-process this session started and may still have to signal or
    // wait for, by pid: the recorded ones, and those ended but not yet reaped.
    std::map<int32_t, std::shared_ptr<ProcessHandle>> subProcHandles_ GUARDED_BY(pidMutex_);
    // A start request waits for its answer; the answer it gets is its only one.
    bool startAnswerPending_ GUARDED_BY(startStatusMutex_) = false;
};

}  // namespace orv

#endif  // ORV_SESSION_ORV_COMMON_H
