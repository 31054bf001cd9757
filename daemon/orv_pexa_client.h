// OrvPexaClient: the daemon's client of the device-management service, which
// receives its alarms and process registrations. The service is not part of
// this system: in this build the client accepts every request and drops it.
#ifndef ORV_DAEMON_ORV_PEXA_CLIENT_H
#define ORV_DAEMON_ORV_PEXA_CLIENT_H

#include <cstdint>
#include <string>

namespace orv {

enum AlarmReason : uint32_t {
    ALARM_REASON_NONE = 0,
    ALARM_REASON_ABNORMAL_EXIT = 1,  // a sub-process ended without being asked to
    ALARM_REASON_FORK_FAILED = 2,    // a sub-process could not be started
};

// Kinds of request.
inline constexpr uint32_t kPexaKindProcess = 1;  // a sub-process was started
inline constexpr uint32_t kPexaKindAlarm = 2;
inline constexpr uint32_t kPexaKindStartup = 3;  // the daemon came up

// One request to the service. For an alarm: the sub-process's application
// name, kind 2, its module code, level 2, its pid, the reason, 0, the device.
struct Orv2dmReqMsg {
    std::string text;
    uint32_t kind = 0;
    uint32_t moduleCode = 0;
    uint32_t level = 0;
    uint32_t pid = 0;
    uint32_t reason = ALARM_REASON_NONE;
    uint32_t reserved = 0;
    uint32_t deviceId = 0;
};

class OrvPexaClient {
  public:
    static OrvPexaClient* GetInstance();

    OrvPexaClient(const OrvPexaClient&) = delete;
    OrvPexaClient& operator=(const OrvPexaClient&) = delete;
    ~OrvPexaClient() = default;

    void SendMessageToPexaServer(const Orv2dmReqMsg& request);

    // Registers a process name with the identity service; called in a freshly
    // forked child, so it must stay async-signal-safe.
    void SendMessageToIAM(const std::string& name) const;

  private:
    OrvPexaClient() = default;
};

}  // namespace orv

#endif  // ORV_DAEMON_ORV_PEXA_CLIENT_H
