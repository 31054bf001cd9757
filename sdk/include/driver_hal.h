// Driver HAL of the card: device information, the event scheduler, buffer
// groups, process identity and the HDC trusted directories.
//
// Every call returns a drvError_t: DRV_ERROR_NONE on success, one of the codes
// below otherwise.
#ifndef ORV_SDK_DRIVER_HAL_H
#define ORV_SDK_DRIVER_HAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t drvError_t;

#define DRV_ERROR_NONE 0
#define DRV_ERROR_INVALID_VALUE 1   // an argument is out of range or malformed
#define DRV_ERROR_INVALID_DEVICE 2  // no such device
#define DRV_ERROR_NOT_EXIST 3       // the named object (group, VF, ...) does not exist
#define DRV_ERROR_IOCRL_FAIL 5      // the driver could not be reached
#define DRV_ERROR_NO_PERMISSION 6   // the caller may not do this
#define DRV_ERROR_UNINIT 7          // the caller has not attached / created what it uses
#define DRV_ERROR_PROCESS_EXIT 8    // the waiting process is being torn down
#define DRV_ERROR_REPEATED_INIT 10  // already done (group membership granted again, ...)
#define DRV_ERROR_OUT_OF_MEMORY 12
#define DRV_ERROR_WAIT_TIMEOUT 16  // a wait ended without an event
#define DRV_ERROR_BUSY 17
#define DRV_ERROR_NO_SUBSCRIBE 42    // the scheduler dropped the caller's subscription
#define DRV_ERROR_NOT_SUPPORT 65534  // this driver does not offer the call

// ---- Device information -------------------------------------------------

#define MAX_DEVICE_NUM_PER_HOST 64

// Module types of halGetDeviceInfo.
#define MODULE_TYPE_SYSTEM 0
#define MODULE_TYPE_AICPU 1
#define MODULE_TYPE_CCPU 2
#define MODULE_TYPE_DCPU 3

// Info types of halGetDeviceInfo.
#define INFO_TYPE_VERSION 1   // with MODULE_TYPE_SYSTEM: hardware version; chip type in bits 8..15
#define INFO_TYPE_CORE_NUM 3  // with a CPU module: number of cores
#define INFO_TYPE_OS_SCHED 5  // with a CPU module: 1 when the OS schedules those cores

// Number of devices this operating system manages.
drvError_t drvGetDevNum(uint32_t* num);

// One value of the device table.
drvError_t halGetDeviceInfo(uint32_t devId, int32_t moduleType, int32_t infoType, int64_t* value);

// Chip id of a device index.
drvError_t halGetChipFromDevice(int32_t devId, int32_t* chipId);

// ---- Process identity ---------------------------------------------------

#define PROCESS_SIGN_LENGTH 49

// The driver's identity of the calling process.
struct process_sign {
    int32_t tgid;                    // the process's pid
    char sign[PROCESS_SIGN_LENGTH];  // NUL-terminated signature text
    char reserved[3];
};

// Binding of a device process to the host process (and VF) it serves.
struct drvBindHostpidInfo {
    int32_t host_pid;
    uint32_t vfid;
    uint32_t mode;     // binding mode chosen by the caller
    uint32_t cp_type;  // kind of device process being bound
    uint32_t len;      // bytes of `sign` in use
    char sign[PROCESS_SIGN_LENGTH];
    char reserved[3];
};

drvError_t drvGetProcessSign(struct process_sign* sign);
drvError_t drvBindHostPid(struct drvBindHostpidInfo info);

// ---- HDC trusted directories ----------------------------------------------

// Peer node that stands for "this card" in HDC path queries.
#define HDC_LOCAL_PEER_NODE 0xFFFF

// Fills `basePath` (NUL-terminated, at most `pathLen` bytes) with the trusted
// directory into which hosts drop files for device `devId`.
drvError_t drvHdcGetTrustedBasePath(uint32_t peerNode, uint32_t devId, char* basePath,
                                    uint32_t pathLen);

// ---- Buffer groups ----------------------------------------------------------

#define BUFF_GRP_NAME_LEN 32

// Permission bits of halGrpAddProc.
#define GRP_PERM_ADMIN 0x1u
#define GRP_PERM_READ 0x2u
#define GRP_PERM_WRITE 0x4u
#define GRP_PERM_ALLOC 0x8u

// Query kinds of halGrpQuery.
#define GRP_QUERY_GROUPS_OF_PROCESS 1  // input: int32 pid; output: GroupQueryEntry[]
#define GRP_QUERY_GROUP_OWNER 2        // input: char[BUFF_GRP_NAME_LEN] name; output: GroupOwner

// One entry of a GRP_QUERY_GROUPS_OF_PROCESS answer (36 bytes).
struct GroupQueryEntry {
    char name[BUFF_GRP_NAME_LEN];  // NUL-terminated group name
    uint32_t permissions;          // GRP_PERM_* bits of the queried process
};

// Whose a group is: the device and VF of the tenant it was made for, or
// GRP_OWNER_CARD in both for the card's own groups, which every tenant
// shares. DRV_ERROR_NOT_EXIST for a group that does not exist.
#define GRP_OWNER_CARD 0xFFFFFFFFu
struct GroupOwner {
    uint32_t devId;
    uint32_t vfId;
};

// Creates a group of `memSize` bytes owned by the caller.
drvError_t halGrpCreate(const char* name, uint64_t memSize);

// Attaches the calling process to an existing group; `timeout` in ms, -1 waits.
drvError_t halGrpAttach(const char* name, int32_t timeout);

// Grants process `pid` the GRP_PERM_* `permissions` on a group.
// DRV_ERROR_REPEATED_INIT when it already had them.
drvError_t halGrpAddProc(const char* name, int32_t pid, uint32_t permissions);

// Answers a query of `cmd` kind; `*outLen` is the buffer size in and the bytes used out.
drvError_t halGrpQuery(int32_t cmd, void* inBuff, uint32_t inLen, void* outBuff, uint32_t* outLen);

// Returns the buffers a process held to its groups.
drvError_t halBuffRecycleByPid(int32_t pid);

// ---- Event scheduler ----------------------------------------------------------

#define EVENT_CPU_TASK_MSG 4    // tasks for a compute process (profiling, shared-object loads)
#define EVENT_CCPU_CTRL_MSG 19  // control messages between control-CPU processes
#define EVENT_MAX_NUM 64

// Largest message an event carries.
#define EVENT_MAX_MSG_LEN 256

// Group kinds of halEschedCreateGrp.
#define GRP_TYPE_BIND_DP_CPU 1
#define GRP_TYPE_BIND_CP_CPU 2

// Engines an event may be addressed to.
#define EVENT_DST_ENGINE_ACPU 1
#define EVENT_DST_ENGINE_CCPU 2

// An event to submit.
struct event_summary {
    int32_t dst_pid;  // process that receives it
    uint32_t grp_id;  // the receiver's group
    uint32_t event_id;
    uint32_t subevent_id;
    uint32_t msg_len;
    const char* msg;      // msg_len bytes
    uint32_t dst_engine;  // EVENT_DST_ENGINE_*
    uint32_t policy;      // scheduling hints; 0 for none
};

// A received event.
struct event_info {
    uint32_t event_id;
    uint32_t subevent_id;
    int32_t src_pid;  // the submitting process
    uint32_t grp_id;
    uint32_t msg_len;
    char msg[EVENT_MAX_MSG_LEN];
};

drvError_t halEschedAttachDevice(uint32_t devId);
drvError_t halEschedDettachDevice(uint32_t devId);

// Creates scheduler group `grpId` of the calling process.
drvError_t halEschedCreateGrp(uint32_t devId, uint32_t grpId, uint32_t type);

// Subscribes thread `threadId` of group `grpId` to the events of `eventBitmap`
// (bit n: event id n).
drvError_t halEschedSubscribeEvent(uint32_t devId, uint32_t grpId, uint32_t threadId,
                                   uint64_t eventBitmap);

// Waits up to `timeout` ms (-1: forever) for an event on the thread's
// subscription. DRV_ERROR_WAIT_TIMEOUT when none came.
drvError_t halEschedWaitEvent(uint32_t devId, uint32_t grpId, uint32_t threadId, int32_t timeout,
                              struct event_info* event);

// Queues an event for its destination process and group. DRV_ERROR_BUSY when
// that group already holds as many events from the caller, not yet taken, as
// the driver queues for one sender.
drvError_t halEschedSubmitEvent(uint32_t devId, struct event_summary* event);

// Answers an event that asks for an acknowledgement (the driver's VF notices).
drvError_t halEschedAckEvent(uint32_t devId, uint32_t eventId, uint32_t subeventId, char* msg,
                             uint32_t msgLen);

// Registers the caller as the VF management client of the driver.
drvError_t halRegisterVmngClient(void);

#ifdef __cplusplus
}
#endif

#endif  // ORV_SDK_DRIVER_HAL_H
