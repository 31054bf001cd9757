// The dispatch registry: maps each HDCMessage type to the one handler that
// serves it. Handlers register themselves while the library loads (MsgParseReg
// tokens), before any HDC session can exist; the HDC server library then hands
// every received message to MessageParseServer::ProcessMessage on the
// session's receive thread.
#ifndef ORV_MESSAGE_MESSAGE_PARSE_INTERFACE_H
#define ORV_MESSAGE_MESSAGE_PARSE_INTERFACE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "orv_message.pb.h"

namespace orv {

// A handler: the HDC session the message came on, and the message.
using MsgProcessFunc = void (*)(const uint32_t& sessionId, const HDCMessage& msg);

class MessageParseInterface {
  public:
    MessageParseInterface() = default;
    virtual ~MessageParseInterface() = default;
    MessageParseInterface(const MessageParseInterface&) = delete;
    MessageParseInterface& operator=(const MessageParseInterface&) = delete;

    // Sets the handler of `type`; a later registration replaces an earlier one.
    // Only while the library loads: the map is read without a lock afterwards.
    void RegisterMsgProcess(HDCMessage::MsgType type, MsgProcessFunc func);

    // Calls the handler of msg.type(); an unknown type is logged and dropped.
    void ProcessMessage(uint32_t sessionId, const HDCMessage& msg) const;

    size_t HandlerCount() const { return msgProcessMap_.size(); }

  private:
    std::map<HDCMessage::MsgType, MsgProcessFunc> msgProcessMap_;
};

class MessageParseServer : public MessageParseInterface {
  public:
    static MessageParseServer* GetInstance();

  private:
    MessageParseServer() = default;
};

// Registers one handler when constructed (as a static object).
class MsgParseReg {
  public:
    MsgParseReg(HDCMessage::MsgType type, MsgProcessFunc func);
    ~MsgParseReg() {}
};

}  // namespace orv

#endif  // ORV_MESSAGE_MESSAGE_PARSE_INTERFACE_H
