// OrvEventServer: the daemon's side of the driver's event scheduler. Worker
// threads, one per device, wait for the sub-processes' and the driver's events
// and hand them on; SubmitOrvEvent sends records to the sub-processes.
//
// This build carries the server's running state and shutdown only; its
// workers come with the sub-process event traffic.
#ifndef ORV_EVENT_ORV_EVENT_SERVER_H
#define ORV_EVENT_ORV_EVENT_SERVER_H

#include <atomic>
#include <cstdint>

namespace orv {

class OrvEventServer {
public:
    static OrvEventServer* GetInstance();

    OrvEventServer(const OrvEventServer&) = delete;
    OrvEventServer& operator=(const OrvEventServer&) = delete;

    // Starts the event workers for `devNum` devices. 0 on success.
    uint32_t Init(uint32_t devNum);

    // Stops and joins the workers.
    void Destroy();

    // The daemon's monitor treats a server that stopped running as fatal.
    bool IsRunning() const { return running_.load(); }
    void SetRunningFlag(bool running) { running_.store(running); }

private:
    OrvEventServer();

    std::atomic<bool> running_{true};
};

}  // namespace orv

#endif  // ORV_EVENT_ORV_EVENT_SERVER_H
