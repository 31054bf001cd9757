// HDC server library of the card platform: the device end of the host-device
// channel.
//
// A server listens for one device and one service type. Each connection a host
// opens is one HDC session, numbered uniquely within the process. Every whole
// HDCMessage received on a session is handed, in arrival order and on that
// session's receive thread, to orv::MessageParseServer::ProcessMessage. When a
// session ends for any reason other than Destroy, exactly one message of type
// SOCKET_CLOSED is delivered for it the same way.
#ifndef ORV_SDK_HDC_SERVER_H
#define ORV_SDK_HDC_SERVER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orv {

class HDCMessage;
class HDCMessage_VersionInfo;

enum HDCServiceType : uint32_t {
    HDC_SERVICE_TYPE_FILE_TRANS = 0,
    HDC_SERVICE_TYPE_LOG = 1,
    HDC_SERVICE_TYPE_PROCESS_MANAGER = 2,
};

// Version handshake state of one session: what the peer announced, and what
// this side announces.
class VersionVerify {
  public:
    VersionVerify();
    ~VersionVerify();
    VersionVerify(const VersionVerify&) = delete;
    VersionVerify& operator=(const VersionVerify&) = delete;

    // Records the version and feature list the peer sent.
    void ParseVersionInfo(const HDCMessage_VersionInfo& peerInfo);

    // Fills msg.version_info with this side's version and feature list.
    void SetVersionInfo(HDCMessage& msg) const;

    // What the peer announced; 0 and empty before ParseVersionInfo.
    uint32_t GetPeerVersion() const;
    std::vector<std::string> GetPeerFeatures() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

class HdcServer {
  public:
    // The server of one device and service type, created on first request;
    // null for a device the card does not have.
    static std::shared_ptr<HdcServer> GetInstance(uint32_t deviceId, HDCServiceType type);

    ~HdcServer();
    HdcServer(const HdcServer&) = delete;
    HdcServer& operator=(const HdcServer&) = delete;

    // Starts accepting host connections. 0 on success; a second call is a no-op.
    uint32_t Init();

    // Stops accepting, ends every session without delivering SOCKET_CLOSED, and
    // forgets this server (a later GetInstance makes a new one). 0 on success.
    uint32_t Destroy();

    // Closes one session once what was sent on it before has been written.
    // Safe from any thread, the session's own receive thread included.
    uint32_t ClearSingleSession(uint32_t sessionId);

    // The version handshake state of one of this server's live sessions, or null.
    std::shared_ptr<VersionVerify> GetVersionVerify(uint32_t sessionId);

    uint32_t GetDeviceId() const;

    class Impl;

  private:
    explicit HdcServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

class HdcCommon {
  public:
    // Serialises and sends one message on a session, whole, before returning.
    // 0 on success, non-zero when the session is unknown or the write failed.
    static uint32_t SendMsg(uint32_t sessionId, const HDCMessage& msg);
};

}  // namespace orv

#endif  // ORV_SDK_HDC_SERVER_H
