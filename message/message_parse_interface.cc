#include "message/message_parse_interface.h"

#include "daemon/orvdaemon.h"
#include "platform/log.h"

namespace orv {

void MessageParseInterface::RegisterMsgProcess(HDCMessage::MsgType type, MsgProcessFunc func) {
    msgProcessMap_[type] = func;
}

void MessageParseInterface::ProcessMessage(uint32_t sessionId, const HDCMessage& msg) const {
    auto it = msgProcessMap_.find(msg.type());
    if (it == msgProcessMap_.end()) {
        ORV_LOG(ORV_ERROR, "Version is not matched(message_type:%u), you need update the software",
                static_cast<uint32_t>(msg.type()));
        return;
    }
    if (it->second != nullptr) {
        it->second(sessionId, msg);
    }
}

MessageParseServer* MessageParseServer::GetInstance() {
    static MessageParseServer instance;
    return &instance;
}

MsgParseReg::MsgParseReg(HDCMessage::MsgType type, MsgProcessFunc func) {
    MessageParseServer::GetInstance()->RegisterMsgProcess(type, func);
}

namespace {

const MsgParseReg kStartReg(HDCMessage::ORV_START_PROC_MSG, FmkToOrvMsg);
const MsgParseReg kCloseReg(HDCMessage::ORV_CLOSE_PROC_MSG, FmkToOrvMsg);
const MsgParseReg kProfilingReg(HDCMessage::ORV_UPDATE_PROIFILING_MSG, FmkToOrvMsg);
const MsgParseReg kStartQsReg(HDCMessage::ORV_START_QS_MSG, FmkToOrvMsg);
const MsgParseReg kSocketClosedReg(HDCMessage::SOCKET_CLOSED, FmkToOrvAbnormalMsg);
const MsgParseReg kCheckPackageReg(HDCMessage::ORV_CHECK_PACKAGE, OrvDaemon::ProcessPackageInfoMsg);
const MsgParseReg kTestReg(HDCMessage::TEST_HDC_SEND, ProcessTestMsg);

}  // namespace

}  // namespace orv
