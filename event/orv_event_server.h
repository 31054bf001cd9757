// OrvEventServer: the daemon's side of the driver's event scheduler.
//
// One worker thread per device owns one scheduler group and waits for events:
// sub-process records go to the daemon (and on to their session), driver VF
// notices are handled here. SubmitOrvEvent sends records to sub-processes.
#ifndef ORV_EVENT_ORV_EVENT_SERVER_H
#define ORV_EVENT_ORV_EVENT_SERVER_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <set>
#include <thread>
#include <vector>

#include <driver_hal.h>

#include "event/orv_event_interface.h"
#include "platform/mutex.h"

namespace orv {

// Subscription and the wait-and-dispatch step of an event receiver.
class OrvEventInterface {
  public:
    // Handles one received event; 0 when it was handled.
    virtual uint32_t ProcessEvent(event_info& event) = 0;

    // Subscribes a thread of a group to EVENT_CCPU_CTRL_MSG. 0 on success.
    uint32_t SubscribeEvent(uint32_t devId, uint32_t groupId, int32_t threadIndex);

    // Waits up to 3 s for one event and processes it. 0 to keep waiting, 1
    // when the scheduler says this waiter is done for.
    uint32_t WaitAndProcessEvent(uint32_t devId, uint32_t groupId, int32_t threadIndex);

  protected:
    OrvEventInterface() = default;
    ~OrvEventInterface() = default;
};

class OrvEventServer : public OrvEventInterface {
  public:
    static OrvEventServer* GetInstance();

    OrvEventServer(const OrvEventServer&) = delete;
    OrvEventServer& operator=(const OrvEventServer&) = delete;

    // Attaches to the scheduler, registers for VF notices and starts one
    // worker per device. 0 on success.
    uint32_t Init(uint32_t devNum);

    // Body of a worker; its index is its scheduler group.
    void Work(uint32_t groupId);

    uint32_t ProcessEvent(event_info& event) override;

    // Sends one record to the sub-process it names. 0 on success.
    uint32_t SubmitOrvEvent(OrvSubEventInfo& record) const;

    // Stops and joins the workers (each within its current 3 s wait).
    void Destroy();

    // The daemon's monitor treats a server that stopped running as fatal.
    bool IsRunning() const { return running_.load(); }
    void SetRunningFlag(bool running) { running_.store(running); }

    // ---- Driver and VF notices ----

    // A VF was created (sub-event 100) or destroyed (101); acknowledges the
    // driver unless the notice is malformed. 0 when handled.
    uint32_t ProcessDrvEvent(event_info& event, uint32_t subEventId);
    int ProcessCreatVfEvent(int vfId) LOCKS_EXCLUDED(vfMutex_);
    int ProcessDestoryVfEvevt(int vfId) LOCKS_EXCLUDED(vfMutex_);
    // The VFs that exist, from the per-VF custom compute programs in /var.
    bool CheckExistVf(std::vector<int>& vfIds) const;
    // Clears a VF's installed kernels and its custom-kernel user's files.
    void RemoveFile(int vfId) const;
    // Starts the package watcher of a VF. 0 on success.
    uint32_t CreatInotifyWatcher(int vfId) const;

    // ---- The VFs that exist ----

    // True for the physical function (0), and for a VF that existed at
    // start or that the driver created since and has not destroyed.
    bool VfExists(int32_t vfId) LOCKS_EXCLUDED(vfSetMutex_);
    // Records that a VF exists, or no longer does.
    void SetVfExists(int32_t vfId, bool exists) LOCKS_EXCLUDED(vfSetMutex_);

  private:
    // A driver notice waiting for the VF thread.
    struct VfNotice {
        event_info event;
        uint32_t subEventId;
    };

    OrvEventServer();

    // Hands a driver notice to the VF thread, or handles it at once when
    // that thread does not run (before Init). False when the queue is full.
    bool QueueDriverEvent(const event_info& event, uint32_t subEventId)
        LOCKS_EXCLUDED(vfQueueMutex_);
    // Handles one driver notice and logs how it went.
    void HandleDriverEvent(event_info& event, uint32_t subEventId);
    // Body of the VF thread: the driver's notices, one at a time, in order.
    // They run the VF scripts, which no event worker may wait for.
    void RunVfNotices() LOCKS_EXCLUDED(vfQueueMutex_);
    // Ends the VF thread once the notice it handles is done; those still
    // queued are dropped.
    void StopVfThread() LOCKS_EXCLUDED(vfQueueMutex_);

    std::atomic<bool> running_{true};
    std::vector<std::thread> workers_;  // the thread of Init and Destroy only
    Mutex vfMutex_;

    Mutex vfQueueMutex_;
    CondVar vfQueueChanged_{&vfQueueMutex_};
    std::deque<VfNotice> vfQueue_ GUARDED_BY(vfQueueMutex_);
    bool vfThreadRunning_ GUARDED_BY(vfQueueMutex_) = false;
    bool vfThreadStopping_ GUARDED_BY(vfQueueMutex_) = false;
    std::thread vfThread_;  // the thread of Init and Destroy only

    // A leaf: nothing is called while it is held.
    Mutex vfSetMutex_;
    std::set<int32_t> existingVfs_ GUARDED_BY(vfSetMutex_);
};

}  // namespace orv

#endif  // ORV_EVENT_ORV_EVENT_SERVER_H
