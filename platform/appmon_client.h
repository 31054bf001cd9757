// AppmonClient registers the daemon with the platform's application monitor,
// beats every ten seconds, and deregisters on orderly exit. On the ZEB
// platform the daemon is not monitored and every step is skipped.
#ifndef ORV_PLATFORM_APPMON_CLIENT_H
#define ORV_PLATFORM_APPMON_CLIENT_H

#include <cstdint>

#include <appmon_client.h>
#include "platform/mutex.h"

namespace orv {

enum OrvRegistAppmonStatus : uint32_t {
    ORV_APPMON_NOT_CONNECTED = 0,
    ORV_APPMON_CONNECT_FAILED = 1,
    ORV_APPMON_CONNECTED = 2,
    ORV_APPMON_REGISTER_FAILED = 3,
    ORV_APPMON_REGISTERED = 4,
    ORV_APPMON_HEARTBEAT_FAILED = 5,
    ORV_APPMON_HEARTBEAT_SENT = 6,
};

inline constexpr char kAppmonSocketPath[] = "/var/driver/appmon.socket";
inline constexpr char kAppmonMonitorScript[] = "/var/orvdaemon_monitor.sh";

class AppmonClient {
  public:
    static AppmonClient* GetInstance();

    AppmonClient(const AppmonClient&) = delete;
    AppmonClient& operator=(const AppmonClient&) = delete;

    // Keeps the ZEB flag and, unless it is set, connects to the monitor.
    void Init(const bool& zebFlag);

    // One step of the heartbeat thread: registers while attempts remain, then
    // beats and sleeps the heartbeat period. `registerTimes` is the caller's
    // count of failed registrations, kept across calls. False when this step
    // failed to register or the daemon is not monitored.
    bool SendHeartbeat(uint32_t& registerTimes);

    // One heartbeat (when registered) and the 10-second pause.
    void SendHeartbeatToAppMon();

    // Deregisters and disconnects. The heartbeat thread must have stopped.
    void ClearOrvRegistAppmonInfo();

    // Connected: status 2..6. Registered: status 4..6.
    bool IsOrvInitAppmonSuccess();
    bool IsOrvRegistAppmonSuccess();

    void OrvSetRegistAppmonStaus(OrvRegistAppmonStatus status);
    OrvRegistAppmonStatus GetRegistAppmonStatus();

  private:
    AppmonClient();

    bool zebFlag_ = false;
    Mutex mutex_;
    OrvRegistAppmonStatus status_ GUARDED_BY(mutex_) = ORV_APPMON_NOT_CONNECTED;
    // Used without the lock: Init and Clear run on the main thread, the
    // heartbeat on its own thread, never at the same time.
    appmon_client_t handle_{};
};

}  // namespace orv

#endif  // ORV_PLATFORM_APPMON_CLIENT_H
