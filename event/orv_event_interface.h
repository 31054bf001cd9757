// The records the daemon and its sub-processes exchange through the driver's
// event scheduler, and OrvEventInterface, the receiving side's subscription
// and wait-and-dispatch step.
#ifndef ORV_EVENT_ORV_EVENT_INTERFACE_H
#define ORV_EVENT_ORV_EVENT_INTERFACE_H

#include <cstddef>
#include <cstdint>

#include <driver_hal.h>

namespace orv {

// The only event the daemon subscribes to and submits (bit 19 of the mask).
inline constexpr uint32_t kEventCcpuCtrlMsg = EVENT_CCPU_CTRL_MSG;
inline constexpr uint64_t kEventCcpuCtrlMask = 0x80000ULL;

// Sub-event ids of kEventCcpuCtrlMsg.
enum OrvSubEventType : uint32_t {
    ORV_SUB_EVENT_START = 0,         // a sub-process reports it has started
    ORV_SUB_EVENT_CLOSE = 1,         // a sub-process reports it has closed
    ORV_SUB_EVENT_CUST_START = 2,    // the compute process asks for the custom compute process
    ORV_SUB_EVENT_CUST_STARTED = 3,  // to the compute process: the custom process runs
    ORV_SUB_EVENT_ABNORMAL = 4,   // a sub-process reports a kernel time-out (its own abnormal end)
    ORV_SUB_EVENT_CLOSE_REQ = 5,  // to a sub-process: close
    ORV_SUB_EVENT_LOAD_SO =
        6,  // the compute process asks the custom process to load a shared object
    ORV_SUB_EVENT_VF_CREATE = 100,   // from the driver: a VF was created
    ORV_SUB_EVENT_VF_DESTROY = 101,  // from the driver: a VF was destroyed
};

// Length of every sub-process record.
inline constexpr uint32_t kOrvEventRecordLength = 128;

// The record exchanged with sub-processes in both directions; little-endian,
// fields at fixed offsets.
struct OrvSubEventInfo {
    uint32_t deviceId;  // device index in the operating system
    uint32_t srcPid;    // the sending process
    uint32_t dstPid;    // the process that must receive it
    uint32_t hostPid;   // the framework process that owns the session
    int32_t vfId;
    uint32_t procType;   // OrvSubProcessType of the sub-process concerned
    uint32_t eventType;  // OrvSubEventType; submitted as the sub-event id
    uint32_t
        payloadWord;  // first payload word (the custom process's pid in ORV_SUB_EVENT_CUST_STARTED)
    char payload[96];
};

// What the compute process sends with ORV_SUB_EVENT_CUST_START.
struct OrvCustStartEventInfo {
    uint32_t deviceId;
    uint32_t srcPid;
    uint32_t dstPid;
    uint32_t hostPid;
    int32_t vfId;
    uint32_t procType;
    uint32_t eventType;
    uint32_t groupNum;       // buffer-group names in groupNameList
    char groupNameList[96];  // NUL-terminated, comma-separated
};

static_assert(sizeof(OrvSubEventInfo) == kOrvEventRecordLength, "sub-process record layout");
static_assert(sizeof(OrvCustStartEventInfo) == kOrvEventRecordLength, "custom-start record layout");
static_assert(offsetof(OrvSubEventInfo, payloadWord) == 28 &&
                  offsetof(OrvSubEventInfo, payload) == 32,
              "sub-process record offsets");
static_assert(offsetof(OrvCustStartEventInfo, groupNum) == 28 &&
                  offsetof(OrvCustStartEventInfo, groupNameList) == 32,
              "custom-start record offsets");

}  // namespace orv

#endif  // ORV_EVENT_ORV_EVENT_INTERFACE_H
