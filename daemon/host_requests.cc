// OrvDaemon's handlers of host requests: the framework's start, close and
// profiling requests, a host's dropped link, and the link and package queries.
#include "daemon/orvdaemon.h"

#include <algorithm>

#include <bounds_checked.h>
#include <driver_hal.h>

#include "event/orv_event_server.h"
#include "package/package_worker.h"
#include "platform/log.h"
#include "platform/orv_limits.h"

namespace orv {

namespace {

// "10" followed by the error level: sub-processes log errors only.
constexpr char kDefaultLogLevel[] = "103";

// A request reduced to the values the handlers use.
struct FmkRequest {
    uint32_t deviceId;
    uint32_t realDeviceId;
    uint32_t hostPid;
    std::string procSign;
    uint32_t profilingMode;
    uint32_t rankSize;
    bool startZarn;
    bool startCp;
    uint32_t checkCode;
    std::string logLevel;
    int32_t vfId;
    uint32_t deviceMode;
    std::string qsGroupName;
};

using limits::kMaxGroupNameLength;
using limits::kMaxLogLevelLength;
using limits::kMaxProcSignLength;
static_assert(kMaxGroupNameLength < BUFF_GRP_NAME_LEN, "a group name must fit the driver's");

// The answer type of a framework request.
HDCMessage::MsgType ReplyTypeOf(HDCMessage::MsgType type) {
    switch (type) {
        case HDCMessage::ORV_CLOSE_PROC_MSG:
            return HDCMessage::ORV_CLOSE_PROC_RSP;
        case HDCMessage::ORV_UPDATE_PROIFILING_MSG:
            return HDCMessage::ORV_UPDATE_PROIFILING_RSP;
        default:
            return HDCMessage::ORV_START_PROC_RSP;
    }
}

// Answers a request that is refused before any session is made: code 1, and
// the reason as its error text.
void SendRefusal(uint32_t deviceId, uint32_t sessionId, uint32_t realDeviceId,
                 HDCMessage::MsgType replyType, const std::string& text) {
    HDCMessage reply;
    reply.set_type(replyType);
    reply.set_device_id(deviceId);
    reply.set_real_device_id(realDeviceId);
    reply.set_orv_rsp_code(1);
    reply.mutable_error_info()->set_message(text);
    (void)OrvDaemon::GetInstance()->SendHdcMsg(deviceId, sessionId, reply);
}

// Why buffer group `name` may not go to a queue scheduler of (deviceId,
// vfId): it belongs to another tenant, as the driver says. Empty when it may:
// it is the card's own (shared by every tenant), or the driver does not say.
std::string ForeignGroup(const std::string& name, uint32_t deviceId, int32_t vfId) {
    char input[BUFF_GRP_NAME_LEN] = {0};
    (void)memcpy_s(input, sizeof(input), name.data(), std::min(name.size(), sizeof(input) - 1));
    GroupOwner owner{};
    uint32_t length = sizeof(owner);
    drvError_t ret = halGrpQuery(GRP_QUERY_GROUP_OWNER, input, sizeof(input), &owner, &length);
    if (ret == DRV_ERROR_NOT_SUPPORT || ret == DRV_ERROR_NOT_EXIST) {
        // A driver that cannot tell grants as named; a group that does not
        // exist fails its attach, as ever.
        return "";
    }
    if (ret != DRV_ERROR_NONE || length != sizeof(owner)) {
        return "the owner of buffer group [" + name + "] cannot be asked (ret " +
               std::to_string(ret) + ")";
    }
    if (owner.devId == GRP_OWNER_CARD ||
        (owner.devId == deviceId && static_cast<int32_t>(owner.vfId) == vfId)) {
        return "";
    }
    return "buffer group [" + name + "] belongs to device " + std::to_string(owner.devId) + " VF " +
           std::to_string(owner.vfId) + ", not to device " + std::to_string(deviceId) + " VF " +
           std::to_string(vfId);
}

// Answers a request with a string field over its limit with code 1, naming
// the field; true when it did.
bool RefuseOverlongFields(uint32_t sessionId, const HDCMessage& msg) {
    const struct {
        const char* name;
        size_t length;
        size_t limit;
    } fields[] = {
        {"proc_sign", msg.proc_sign_pid().proc_sign().size(), kMaxProcSignLength},
        {"log_level", msg.log_level().log_level().size(), kMaxLogLevelLength},
        {"qs_init_group_name", msg.qs_init_group_name().qs_init_group_name().size(),
         kMaxGroupNameLength},
    };
    for (const auto& field : fields) {
        if (field.length <= field.limit) {
            continue;
        }
        std::string text = std::string(field.name) + " is " + std::to_string(field.length) +
                           " bytes long, longer than " + std::to_string(field.limit);
        ORV_LOG(
            ORV_ERROR, "[OrvDaemon] request type[%d] on sessionId[%u] from hostPid[%u] refused: %s",
            static_cast<int>(msg.type()), sessionId, msg.proc_sign_pid().proc_pid(), text.c_str());
        SendRefusal(msg.device_id(), sessionId, msg.real_device_id(), ReplyTypeOf(msg.type()),
                    text);
        return true;
    }
    return false;
}

}  // namespace

void FmkToOrvMsg(const uint32_t& sessionId, const HDCMessage& msg) {
    if (msg.device_id() >= MAX_DEVNUM_PER_OS) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc deviceId >= MAX_DEVNUM_PER_OS failed");
        return;
    }
    if (msg.real_device_id() >= kMaxRealDeviceId) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc realDeviceId out of range");
        return;
    }
    if (RefuseOverlongFields(sessionId, msg)) {
        return;
    }
    FmkRequest request{msg.device_id(),
                       msg.real_device_id(),
                       msg.proc_sign_pid().proc_pid(),
                       msg.proc_sign_pid().proc_sign(),
                       msg.profiling_mode(),
                       msg.rank_size(),
                       msg.start_zarn(),
                       msg.start_cp(),
                       msg.check_code(),
                       msg.log_level().log_level(),
                       msg.vf_id(),
                       msg.device_mode(),
                       msg.qs_init_group_name().qs_init_group_name()};
    if (request.logLevel.empty()) {
        request.logLevel = kDefaultLogLevel;
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] cat not get log level from orvclient, set to default ERROR log level");
    }
    ORV_LOG(ORV_INFO, "orvdaemon get process sign successfully, procpid:%u signSize:%u",
            request.hostPid, static_cast<uint32_t>(request.procSign.size()));
    ORV_LOG(ORV_INFO, "orvdaemon get qs init group name successfully, groupName:%s groupNameLen:%u",
            request.qsGroupName.c_str(), static_cast<uint32_t>(request.qsGroupName.size()));
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT]FmkToOrvMsg device index in os[%u] msg[%u] sessionId[%u] realDev[%u] "
            "fmkSignPid[%u] "
            "profilingMode[%u] rankSize[%u] startZarn[%u] startCp[%u] checkCode[%u] logLevel[%s] "
            "vfid[%d]",
            request.deviceId, static_cast<uint32_t>(msg.type()), sessionId, request.realDeviceId,
            request.hostPid, request.profilingMode, request.rankSize,
            static_cast<uint32_t>(request.startZarn), static_cast<uint32_t>(request.startCp),
            request.checkCode, request.logLevel.c_str(), request.vfId);
    OrvDaemon::GetInstance()->FmkToOrvMsgProc(
        sessionId, msg.type(), request.deviceId, request.realDeviceId, request.hostPid,
        request.procSign, request.profilingMode, request.rankSize, request.startZarn,
        request.startCp, request.checkCode, request.logLevel, request.vfId, request.deviceMode,
        request.qsGroupName);
}

void OrvDaemon::FmkToOrvMsgProc(uint32_t sessionId, HDCMessage::MsgType type, uint32_t deviceId,
                                uint32_t realDeviceId, uint32_t hostPid,
                                const std::string& procSign, uint32_t profilingMode,
                                uint32_t rankSize, bool startZarn, bool startCp, uint32_t checkCode,
                                const std::string& logLevel, int32_t vfId, uint32_t deviceMode,
                                const std::string& qsGroupName) {
    switch (type) {
        case HDCMessage::ORV_START_PROC_MSG:
            OrvStartProcess(sessionId, deviceId, realDeviceId, hostPid, procSign, profilingMode,
                            rankSize, startZarn, startCp, false, checkCode, logLevel, vfId,
                            deviceMode, qsGroupName);
            break;
        case HDCMessage::ORV_START_QS_MSG:
            // A queue-scheduler start never starts the other sub-processes.
            OrvStartProcess(sessionId, deviceId, realDeviceId, hostPid, procSign, profilingMode,
                            rankSize, false, false, true, checkCode, logLevel, vfId, deviceMode,
                            qsGroupName);
            break;
        case HDCMessage::ORV_CLOSE_PROC_MSG:
            OrvCloseProcess(sessionId, deviceId, realDeviceId, hostPid, rankSize, vfId);
            break;
        case HDCMessage::ORV_UPDATE_PROIFILING_MSG:
            OrvUpdateProfiling(sessionId, deviceId, realDeviceId, hostPid, profilingMode, rankSize,
                               vfId);
            break;
        default:
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT]From FMK unknown msg to ORV device index in os[%u] sessionId[%u] "
                    "realDev[%u] "
                    "fmkPid[%u] vfId[%d]",
                    deviceId, sessionId, realDeviceId, hostPid, vfId);
            break;
    }
}

void OrvDaemon::OrvStartProcess(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId,
                                uint32_t hostPid, const std::string& procSign,
                                uint32_t profilingMode, uint32_t rankSize, bool startZarn,
                                bool startCp, bool startQs, uint32_t checkCode,
                                const std::string& logLevel, int32_t vfId, uint32_t deviceMode,
                                const std::string& qsGroupName) {
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT]From FMK Start >>>>>>>>>> deviceId[%u] sessionId[%u] realDev[%u] fmkPid[%u] "
            "rankSize[%u] "
            "vfId[%d] startCp[%d] startZarn[%d] startQS[%d]",
            deviceId, sessionId, realDeviceId, hostPid, rankSize, vfId, static_cast<int>(startCp),
            static_cast<int>(startZarn), static_cast<int>(startQs));
    std::string refusal = StartRefusal(deviceId, vfId, startQs, qsGroupName);
    if (!refusal.empty()) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] start on sessionId[%u] for hostPid[%u] on deviceId[%u] vfId[%d] "
                "refused: %s",
                sessionId, hostPid, deviceId, vfId, refusal.c_str());
        SendRefusal(deviceId, sessionId, realDeviceId, HDCMessage::ORV_START_PROC_RSP, refusal);
        return;
    }
    std::shared_ptr<OrvImpl> session =
        CreateOrvImpl(deviceId, sessionId, rankSize, realDeviceId, hostPid, profilingMode, procSign,
                      checkCode, logLevel, vfId, deviceMode, startQs, qsGroupName);
    if (session != nullptr) {
        session->SetStartStatus(startZarn, startCp, startQs);
        session->StartSubProcess();
        return;
    }
    ORV_LOG(
        ORV_ERROR,
        "Create OrvImpl is nullptr in deviceId[%u] sessionId[%u] fmkPid[%u] rankSize[%u] vfId[%d]",
        deviceId, sessionId, hostPid, rankSize, vfId);
    if (SendRspToFmk(deviceId, sessionId, realDeviceId, 1, HDCMessage::ORV_START_PROC_RSP) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc SendRspToFmk failed");
    }
}

std::string OrvDaemon::StartRefusal(uint32_t deviceId, int32_t vfId, bool startQs,
                                    const std::string& qsGroupName) const {
    // Ids outside 0 to 16 are the registry's to refuse, with its own line.
    if (vfId > 0 && vfId <= static_cast<int32_t>(kMaxVfId) &&
        !OrvEventServer::GetInstance()->VfExists(vfId)) {
        return "vfId[" + std::to_string(vfId) + "] does not exist: the driver has not created it";
    }
    if (startQs && !qsGroupName.empty()) {
        return ForeignGroup(qsGroupName, deviceId, vfId);
    }
    return "";
}

void OrvDaemon::OrvCloseProcess(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId,
                                uint32_t hostPid, uint32_t rankSize, int32_t vfId) {
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT]From FMK Close <<<<<<<<<<< deviceId[%u] sessionId[%u] realDev[%u] "
            "fmkPid[%u] vfId[%d]",
            deviceId, sessionId, realDeviceId, hostPid, vfId);
    std::shared_ptr<OrvImpl> session = GetOrvImpl(deviceId, vfId, hostPid);
    if (session != nullptr) {
        session->CloseSubProcess();
        CleanResource(hostPid, vfId);
        return;
    }
    ORV_LOG(ORV_ERROR,
            "Get OrvImpl is nullptr in deviceId[%u] sessionId[%u] fmkPid[%u] rankSize[%u] vfId[%d]",
            deviceId, sessionId, hostPid, rankSize, vfId);
    if (SendRspToFmk(deviceId, sessionId, realDeviceId, 1, HDCMessage::ORV_CLOSE_PROC_RSP) != 0) {
        // Deliberately no clean-up when the host could not even be told.
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc SendRspToFmk failed");
        return;
    }
    CleanResource(hostPid, vfId);
}

void OrvDaemon::OrvUpdateProfiling(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId,
                                   uint32_t hostPid, uint32_t profilingMode, uint32_t rankSize,
                                   int32_t vfId) {
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT]From FMK UpdateProfiling <<<<<<<<<<< deviceId[%u] sessionId[%u] realDev[%u] "
            "fmkPid[%u] "
            "profilingMode[%u] vfId[%d]",
            deviceId, sessionId, realDeviceId, hostPid, profilingMode, vfId);
    std::shared_ptr<OrvImpl> session = GetOrvImpl(deviceId, vfId, hostPid);
    if (session != nullptr) {
        session->UpdateAicpuProfiling(profilingMode);
        return;
    }
    ORV_LOG(ORV_ERROR,
            "Get OrvImpl is nullptr in deviceId[%u] sessionId[%u] fmkPid[%u] rankSize[%u] vfId[%d]",
            deviceId, sessionId, hostPid, rankSize, vfId);
    if (SendRspToFmk(deviceId, sessionId, realDeviceId, 1, HDCMessage::ORV_UPDATE_PROIFILING_RSP) !=
        0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc SendRspToFmk failed");
    }
}

uint32_t OrvDaemon::SendRspToFmk(uint32_t deviceId, uint32_t sessionId, uint32_t realDeviceId,
                                 uint32_t rspCode, HDCMessage::MsgType type) {
    HDCMessage msg;
    msg.set_type(type);
    msg.set_device_id(deviceId);
    msg.set_real_device_id(realDeviceId);
    msg.set_orv_rsp_code(rspCode);
    ORV_LOG(
        ORV_EVENT,
        "[OrvEVENT] #### Send rsp to fmk directly ORV->FMK device index in os[%u] sessionId[%u] "
        "realDeviceId[%u] rspCode[%u] msgType[%u]####",
        deviceId, sessionId, realDeviceId, rspCode, static_cast<uint32_t>(type));
    return SendHdcMsg(deviceId, sessionId, msg);
}

void FmkToOrvAbnormalMsg(const uint32_t& sessionId, const HDCMessage& msg) {
    uint32_t deviceId = msg.device_id();
    int32_t vfId = msg.vf_id();
    uint32_t hostPid = msg.proc_sign_pid().proc_pid();
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] FmkToOrvAbnormalMsg in deviceId[%u] session[%u] vfId[%d] hostPid[%u]",
            deviceId, sessionId, vfId, hostPid);
    OrvDaemon::GetInstance()->HDCAbnormalMsgProc(deviceId, vfId, hostPid, sessionId);
}

void OrvDaemon::HDCAbnormalMsgProc(uint32_t deviceId, int32_t vfId, uint32_t hostPid,
                                   uint32_t sessionId) {
    ORV_LOG(ORV_INFO, "[OrvDaemon] HDCAbnormalMsgProc begin in deviceId[%u] vfId[%d] hostPid[%u]",
            deviceId, vfId, hostPid);
    std::shared_ptr<OrvImpl> session = EraseOrvImpl(deviceId, vfId, hostPid, sessionId);
    if (session == nullptr) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] Get OrvImpl in deviceId[%u] vfId[%d] hostPid[%u] is nullptr, skip "
                "HDCAbnormalMsgProc",
                deviceId, vfId, hostPid);
    } else {
        EndSessionOfDroppedLink(*session, deviceId, vfId, hostPid);
    }
    // The link's last request names one host process; any other it started
    // ends with it too, as its own link's end would have ended it.
    for (const RegisteredSession& other : EraseOrvImplsOfLink(sessionId)) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] HDC session[%u] that ended had also started hostPid[%u] in "
                "deviceId[%u] vfId[%d]: it "
                "ends too",
                sessionId, other.hostPid, other.deviceId, other.vfId);
        EndSessionOfDroppedLink(*other.session, other.deviceId, other.vfId, other.hostPid);
    }
}

void OrvDaemon::EndSessionOfDroppedLink(OrvImpl& session, uint32_t deviceId, int32_t vfId,
                                        uint32_t hostPid) {
    if (session.GetCloseHandle()) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] already receive close msg in deviceId[%u] vfId[%d] hostPid[%u], skip "
                "HDCAbnormalMsgProc.",
                deviceId, vfId, hostPid);
    } else {
        session.AbnormalMsgProc(false, false);
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] HDCAbnormalMsgProc end in deviceId[%u] vfId[%d] hostPid[%u]",
            deviceId, vfId, hostPid);
}

void ProcessTestMsg(const uint32_t& sessionId, const HDCMessage& msg) {
    ORV_LOG(ORV_EVENT, "server has recv test data, hostPid[%u],sessionId[%u]",
            msg.proc_sign_pid().proc_pid(), sessionId);
    std::shared_ptr<HdcServer> server =
        HdcServer::GetInstance(msg.device_id(), HDC_SERVICE_TYPE_PROCESS_MANAGER);
    if (server == nullptr) {
        ORV_LOG(ORV_ERROR, "Get hdcserver failed.");
        return;
    }
    std::shared_ptr<VersionVerify> version = server->GetVersionVerify(sessionId);
    if (version == nullptr) {
        ORV_LOG(ORV_ERROR, "VersionVerify is not exist");
        return;
    }
    version->ParseVersionInfo(msg.version_info());
    HDCMessage reply;
    reply.set_type(HDCMessage::TEST_HDC_RSP);
    version->SetVersionInfo(reply);
    if (OrvDaemon::GetInstance()->SendHdcMsg(msg.device_id(), sessionId, reply) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Send test rsponse to client failed");
    }
}

void OrvDaemon::ProcessPackageInfoMsg(const uint32_t& sessionId, const HDCMessage& msg) {
    ORV_LOG(ORV_EVENT, "server has recv package info request, sessionId[%u]", sessionId);
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(msg.vf_id());
    if (worker == nullptr) {
        return;
    }
    HDCMessage reply;
    reply.set_type(HDCMessage::ORV_CHECK_PACKAGE_RSP);
    reply.set_check_code(worker->GetCheckCode());
    reply.set_real_device_id(msg.real_device_id());
    OrvDaemon* daemon = GetInstance();
    uint32_t sent = daemon->SendHdcMsg(msg.device_id(), sessionId, reply);
    // A package query is a one-shot session.
    daemon->CloseHdcSession(msg.device_id(), sessionId);
    if (sent != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Send package check result to client failed");
    }
}

}  // namespace orv
