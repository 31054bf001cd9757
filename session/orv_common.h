// OrvImpl: the session of one host framework process on one device and VF.
//
// A session decides which sub-processes run for its host process, starts them
// on worker threads, collects their started and closed reports (events from
// the event server), answers the host exactly once per start or close request,
// declares a start failed when the sub-processes do not all report within the
// monitor's start time-out, and tears everything down when the host closes,
// the host's link drops, or a sub-process dies.
//
// The daemon owns the sessions (its registry, OrvDaemon) and calls the public
// methods below from the HDC receive threads (host requests and dropped
// links), the event server's workers (sub-process reports) and its monitor
// thread (start time-outs and deaths). The work is spread over four files:
// orv_common.cc (construction, start orchestration, replies), orv_launch.cc
// (launch and buffer groups), orv_close.cc (supervision, close, clean-up;
// it opens with a map of the close path) and orv_events.cc (event traffic).
#ifndef ORV_SESSION_ORV_COMMON_H
#define ORV_SESSION_ORV_COMMON_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "event/orv_event_interface.h"
#include "orv_message.pb.h"
#include "platform/mutex.h"
#include "platform/pooled_thread.h"
#include "session/launch_table.h"
#include "session/process_util.h"

namespace orv {

// The kind of response sent to the host.
enum RcvFmkFlg : uint32_t {
    RCV_FMK_START = 0,
    RCV_FMK_CLOSE = 1,
    RCV_FMK_UPDATE_PROFILING = 2,
};

// State of a pending start.
enum OrvStartStatus : uint32_t {
    START_STATUS_NONE = 0,
    START_STATUS_TIMEOUT = 1,   // the failure response went out; later reports do not answer
    START_STATUS_ANSWERED = 2,  // the success response went out
    START_STATUS_CHECKING_PACKAGE = 3,
    START_STATUS_PACKAGE_CHECKED = 4,
};

// A thread of a session and whether its work is done: finished threads are
// joined as new ones start, so that a long session keeps only those at work.
struct SessionThread {
    PooledThread thread;
    std::shared_ptr<std::atomic<bool>> done;
};

// One entry of a start list.
struct ProcessConfig {
    std::string path;
    std::string name;
    OrvSubProcessType type;
};

// The buffer group the queue scheduler joins when none is named.
inline constexpr char kDefaultMemGroup[] = "DEFAULT_MEM_GROUP";
// Custom-kernel files of a session: kCustSoRoot + kCustSoPrefix + vf and host pid.
inline constexpr char kCustSoRoot[] = "/home/QelvarUser/";
inline constexpr char kCustSoPrefix[] = "cust_aicpu_";

class OrvImpl {
  public:
    OrvImpl(uint32_t deviceIdInOs, uint32_t sessionId, uint32_t rankSize, uint32_t realDeviceId,
            uint32_t fmkPid, uint32_t profilingMode, std::string pidSign, uint32_t checkCode,
            std::string logLevelInPid, int32_t vfId, uint32_t deviceMode, std::string qsGroupName);
    // Tears the session down (Destory): joins its threads, ends its sub-processes.
    virtual ~OrvImpl();
    OrvImpl(const OrvImpl&) = delete;
    OrvImpl& operator=(const OrvImpl&) = delete;

    // ---- Host requests (HDC receive threads) ----

    // A start request for an existing session refreshes exactly these fields;
    // called under the daemon's session-map mutex.
    void UpdateOrvImpl(uint32_t rankSize, uint32_t profilingMode, uint32_t checkCode,
                       const std::string& logLevelInPid) LOCKS_EXCLUDED(logLevelMutex_);

    // The HDC session that created this session; responses go there.
    uint32_t GetSessionId() const { return sessionId_; }

    // Records which sub-processes a start request asks for; answers at once
    // when the request is invalid or everything asked for already runs.
    void SetStartStatus(bool startZarn, bool startCp, bool startQs)
        LOCKS_EXCLUDED(startStatusMutex_);

    // Checks the executables and starts the configured sub-processes on
    // start workers; the answer comes with their start reports.
    void StartSubProcess();

    // Orderly close of every sub-process (the host's close request): closing
    // begins, and a close worker per recorded sub-process asks it to close.
    void CloseSubProcess() LOCKS_EXCLUDED(pidMutex_);

    // Hands a new profiling mode to the compute processes and answers the host.
    void UpdateAicpuProfiling(uint32_t profilingMode);

    // ---- Link drops, reports and supervision ----

    // Clean-up after the host or its link failed: kills the sub-processes
    // (only the custom one with `customOnly`), closing the link first when
    // `closeHdc`.
    void AbnormalMsgProc(bool customOnly, bool closeHdc);

    // A sub-process reported a kernel time-out: AbnormalMsgProc (of the
    // custom process alone with `customOnly`), closing the link, runs on a
    // thread of the session, so that the event worker goes on at once.
    void KernelTimeoutProc(bool customOnly);

    // Closing has begun (see closeHandle_).
    bool GetCloseHandle() LOCKS_EXCLUDED(closeMutex_);

    // True when `pid` is a sub-process this session runs now, of kind
    // `procType` unless that is kAnyProcType.
    static constexpr uint32_t kAnyProcType = UINT32_MAX;
    bool IsOwnSubProcess(uint32_t pid, uint32_t procType = kAnyProcType) LOCKS_EXCLUDED(pidMutex_);

    // One report of one of this session's sub-processes (event server worker);
    // the work runs on a per-event thread.
    void ProcessEventServerInfo(uint32_t subPid, uint32_t eventType, uint32_t procType,
                                const void* payload);

    // Joins the per-event threads.
    void CleanOrvRcvEventThreads() LOCKS_EXCLUDED(eventThreadMutex_);

    // Once per monitor tick: answers a start that did not finish in time.
    void CheckAndHandleTimeout() LOCKS_EXCLUDED(startStatusMutex_);

    // Once per monitor tick, after a start was answered: notices sub-processes
    // that died. `pid` is the one the kernel reported terminated, if any.
    void CheckEventClientHeartbeat(int32_t& pid, bool zebFlag)
        LOCKS_EXCLUDED(startStatusMutex_, pidMutex_);

  private:
    // ---- Used only inside the session ----

    // Body of one start worker thread: forks, records and releases one
    // sub-process, and registers it with the device-management service.
    void ExecuteStart(const std::string& path, const std::string& name, OrvSubProcessType type);

    // A sub-process reported that it started / closed (per-event threads).
    uint32_t StartRspProc(uint32_t subPid, uint32_t procType) LOCKS_EXCLUDED(startStatusMutex_);
    uint32_t CloseRspProc(uint32_t subPid, uint32_t procType);

    // Builds and sends one response to the host; a close response also clears
    // the kind flags and closes the link. 0 on success.
    uint32_t SendRspMsgToFmk(RcvFmkFlg flag, uint32_t rspCode, const std::string& errMsg);

    // Waits (at most 6 s) for the start workers to finish.
    void WaitForkTaskDone();

    // Every kind asked for runs (the custom process aside).
    bool IsAllSubProcRunRegular() const;
    // No kind runs.
    bool IsAllSubProcCloseRegular() const;
    // Clears the running flag of a kind.
    void SetProcessCloseFlag(uint32_t procType);
    // Records the pid of a kind (-1: none).
    void SetSubProcPid(int32_t pid, uint32_t procType) LOCKS_EXCLUDED(pidMutex_);
    // Records a sub-process just forked, still held before its exec, unless
    // closing began since its worker looked; then no clean-up will see it,
    // and it is killed here. True when it was recorded.
    bool RecordForkedSubProcess(std::shared_ptr<ProcessHandle> child, uint32_t procType)
        LOCKS_EXCLUDED(pidMutex_);
    // Marks closing begun, and wakes a request waiting for the custom process.
    void SetCloseHandle(bool closeHandle) LOCKS_EXCLUDED(closeMutex_, custStartMutex_);
    // Closing has begun and every sub-process has closed.
    bool IsClose() LOCKS_EXCLUDED(pidMutex_);

    // Forks and executes one sub-process bound to `ctrlCpus` as the launch
    // table says; its pid, or a value below 1. With a `gate`, the child execs
    // only once it is released.
    int32_t ForkSubProcess(const std::string& path, const std::string& name, OrvSubProcessType type,
                           const std::vector<uint32_t>& ctrlCpus, StartGate* gate = nullptr);
    // Gathers what the launch of `inputs.type` needs beyond the session's own
    // fields (buffer groups, environment); non-zero for an unknown kind or
    // when a group cannot be had.
    uint32_t GetProcessInfo(LaunchInputs& inputs) LOCKS_EXCLUDED(pidMutex_, groupMutex_);
    // 0 when an executable's path and name are usable, else kInvalidParam.
    uint32_t CheckProcessInputParam(const std::string& path, const std::string& name) const;
    // Chip id of the session's device, or all ones.
    uint32_t GetChipId() const;
    // True when the hardware is the ZEB platform. Launches go by the daemon's
    // own flag instead (OrvDaemon::GetZebFlag).
    static bool GetIsZebFlag();

    // Attaches the daemon to the host process's buffer groups and keeps their
    // names in groupNames_. 0 on success.
    uint32_t GetHostGrpName() LOCKS_EXCLUDED(groupMutex_);
    // The buffer groups of a compute or queue launch: counts and joins the
    // host's groups (compute, when AICPU_ADD_BUFFERGROUP is 1), or attaches the
    // queue scheduler's group. 0 on success.
    uint32_t GetGroupInfo(uint32_t& groupNum, std::string& groupName, OrvSubProcessType type)
        LOCKS_EXCLUDED(groupMutex_);

    // Body of one close worker: asks one sub-process to close.
    void ExecuteClose(uint32_t subPid, OrvSubProcessType type);
    // Waits for a closing sub-process to exit, killing it after 5 s. 0 when
    // it exited by itself, 1 when it had to be killed.
    uint32_t CheckAndWaitSubProcessExit(uint32_t subPid, uint32_t type);
    // Kills and reaps those of `pids` that are this session's sub-processes.
    void KillProcess(const std::vector<uint32_t>& pids) LOCKS_EXCLUDED(pidMutex_);
    // The pid field of a kind, or null for an unknown kind.
    int32_t* SubProcPid(uint32_t procType) EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    // A death check of one kind: a sub-process that ended outside a close
    // closes the link (all but the custom process), and is accounted for.
    void CheckSubProcessExit(int32_t& pid, uint32_t type) EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    // The same for the compute process; without `zebFlag` it counts as ended
    // when `pid` is the one the kernel reported terminated, or it is gone.
    void CheckAicpuSubProcessExit(const int32_t& pid, bool zebFlag)
        EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    // Closing begins; kills the zarn, compute and queue processes, closing
    // the link first when `closeHdc`.
    void InnerProcClean(bool closeHdc) LOCKS_EXCLUDED(pidMutex_);
    // Kills the custom process and removes its custom-kernel files.
    void CustomProcClean() LOCKS_EXCLUDED(pidMutex_);
    // Kills every sub-process.
    void CleanSubProcResource();
    // Joins forkTasks_: the start and the close workers, not HDC threads.
    void CleanOrvRcvHdcThreads() LOCKS_EXCLUDED(forkTaskMutex_);
    // The teardown: closing begins, every thread is joined, every sub-process
    // killed.
    void Destory();

    // Logs the session's pids; true for a known kind.
    bool CheckSubProcPid(uint32_t subPid, uint32_t procType) LOCKS_EXCLUDED(pidMutex_);
    // The compute process asks for the custom process: starts it and waits
    // (at most 30 s, less when closing begins) for its start report.
    void NotifyAicpuInfoProc(const OrvCustStartEventInfo& info) LOCKS_EXCLUDED(custStartReqMutex_);
    // Passes a shared-object load request on to the custom process.
    void NotifySoNameToCustAicpu(const OrvSubEventInfo& info) const LOCKS_EXCLUDED(pidMutex_);
    // Sends a profiling mode to one compute process. 0 on success.
    uint32_t NotifyUpdateProfilingToAicpu(uint32_t pid, uint32_t profilingMode,
                                          OrvSubProcessType type) const;

    // ---- Helpers ----

    // Hands a profiling mode to the compute and custom processes that run;
    // the code for the host's reply.
    uint32_t NotifyProfilingToRunningProcs(uint32_t profilingMode) LOCKS_EXCLUDED(pidMutex_);
    // The handle on a sub-process this session started, or null.
    std::shared_ptr<ProcessHandle> SubProcHandle(int32_t pid) const LOCKS_EXCLUDED(pidMutex_);
    std::shared_ptr<ProcessHandle> SubProcHandleLocked(int32_t pid) const
        EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    // Drops the handles of sub-processes that ended and are recorded no more.
    void ForgetEndedSubProcesses() EXCLUSIVE_LOCKS_REQUIRED(pidMutex_);
    // Builds the start list, in the fixed order zarn, compute, queue.
    void SaveProcessConfig(std::vector<ProcessConfig>& configs) LOCKS_EXCLUDED(startStatusMutex_);
    // Starts `work` on a thread kept in eventThreads_; false (logged, naming
    // `what`) when too many are at work or no thread can be started.
    bool StartEventThread(std::function<void()> work, const char* what)
        LOCKS_EXCLUDED(eventThreadMutex_);
    // Starts `work` on a thread kept in forkTasks_; false as above.
    bool StartForkTask(std::function<void()> work, const char* what) LOCKS_EXCLUDED(forkTaskMutex_);
    // A sub-process could not be started, or its exec failed: the alarm and
    // the lines of a failed fork.
    void StartFailed(OrvSubProcessType type, int32_t pid);
    // Sends the start time-out's failure answer, off the monitor thread.
    void SendTimeoutRsp(const std::string& reason);
    // The custom process asked for did not report its start in time.
    void GiveUpCustomStart();
    // The log level the sub-processes are started with.
    std::string LogLevel() LOCKS_EXCLUDED(logLevelMutex_);

    // The daemon's session-map mutex comes before every mutex here (it is held
    // around UpdateOrvImpl only); the order among these is declared on them.

    // Constant after construction.
    const uint32_t sessionId_;
    const uint32_t deviceIdInOs_;
    // Refreshed by UpdateOrvImpl.
    std::atomic<uint32_t> rankSize_;
    // Constant after construction.
    const uint32_t realDeviceId_;
    const uint32_t fmkPid_;
    // Refreshed by UpdateOrvImpl.
    std::atomic<uint32_t> profilingMode_;
    // Constant after construction.
    const std::string pidSign_;

    // The pids of the kinds (-1: none), and subProcHandles_ below.
    mutable Mutex pidMutex_ ACQUIRED_AFTER(startStatusMutex_, custStartReqMutex_);
    int32_t computePid_ GUARDED_BY(pidMutex_) = -1;
    int32_t queuePid_ GUARDED_BY(pidMutex_) = -1;
    int32_t zarnPid_ GUARDED_BY(pidMutex_) = -1;

    Mutex forkTaskMutex_;
    // The start workers and, despite the name, the close workers.
    std::list<SessionThread> forkTasks_ GUARDED_BY(forkTaskMutex_);
    // The per-event threads.
    Mutex eventThreadMutex_ ACQUIRED_AFTER(startStatusMutex_);
    std::list<SessionThread> eventThreads_ GUARDED_BY(eventThreadMutex_);

    Mutex closeMutex_ ACQUIRED_AFTER(pidMutex_, custStartMutex_);
    // Closing has begun (a close request, a clean-up or the teardown); it is
    // never cleared, and no start worker forks once it is set.
    bool closeHandle_ GUARDED_BY(closeMutex_) = false;
    int32_t customComputePid_ GUARDED_BY(pidMutex_) = -1;

    // The kinds a start request asked for (the custom one: the compute
    // process's request), and those that reported their start.
    std::atomic<bool> startZarn_{false};
    std::atomic<bool> startCompute_{false};
    std::atomic<bool> startCustomCompute_{false};
    std::atomic<bool> startQueue_{false};
    std::atomic<bool> zarnRunning_{false};
    std::atomic<bool> computeRunning_{false};
    // Set under custStartMutex_ when the custom process reports, so that a
    // waiting request cannot miss the wake-up; cleared without it.
    std::atomic<bool> customComputeRunning_{false};
    std::atomic<bool> queueRunning_{false};

    // Unused: shared-object requests go straight to the custom process.
    std::map<uint32_t, std::vector<std::string>> soNameMap_;
    // Nothing sets it: the custom process is started with an empty --custSoPath=.
    std::string custSoPath_ GUARDED_BY(groupMutex_);
    // With custStartCond_, the wait for the custom process's start report.
    Mutex custStartMutex_ ACQUIRED_AFTER(custStartReqMutex_);
    CondVar custStartCond_{&custStartMutex_};
    // One request for the custom process at a time.
    Mutex custStartReqMutex_;

    // Of the close answer and the link closings of deaths and clean-ups, only
    // the first to count happens.
    std::atomic<uint32_t> closeRspSent_{0};
    // Each kind is started once per session (the first to count wins).
    std::atomic<uint32_t> computeStartedOnce_{0};
    std::atomic<uint32_t> zarnStartedOnce_{0};
    std::atomic<uint32_t> queueStartedOnce_{0};
    // Start workers at work, for WaitForkTaskDone.
    std::atomic<uint32_t> forkTaskCount_{0};

    // Refreshed by UpdateOrvImpl.
    std::atomic<uint32_t> checkCode_;
    Mutex logLevelMutex_;
    std::string logLevelInPid_ GUARDED_BY(logLevelMutex_);
    // Constant after construction.
    const int32_t vfId_;
    const uint32_t deviceMode_;

    // A START_STATUS_ value.
    uint32_t startStatus_ GUARDED_BY(startStatusMutex_) = START_STATUS_NONE;
    // Monitor ticks since the start request (0: no start yet).
    std::atomic<uint32_t> startTick_{0};
    Mutex startStatusMutex_;

    // The buffer groups of the compute, custom and queue launches.
    Mutex groupMutex_ ACQUIRED_AFTER(pidMutex_);
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
