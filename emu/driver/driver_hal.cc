// Emulated driver HAL: each call is one request to the card emulator.
#include <driver_hal.h>

#include <algorithm>
#include <cstring>

#include "emu/driver/card_client.h"

using orv::emu::CardClient;
using orv::emu::CardReply;
using orv::emu::CardRequest;

extern "C" {

drvError_t drvGetDevNum(uint32_t* num) {
    if (num == nullptr) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    request.mutable_drv_get_dev_num();
    CardReply reply;
    drvError_t rc = CardClient::Instance().Call(request, &reply);
    if (rc == DRV_ERROR_NONE) {
        *num = static_cast<uint32_t>(reply.value());
    }
    return rc;
}

drvError_t halGetDeviceInfo(uint32_t devId, int32_t moduleType, int32_t infoType, int64_t* value) {
    if (value == nullptr) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_hal_get_device_info();
    call->set_dev_id(devId);
    call->set_module_type(moduleType);
    call->set_info_type(infoType);
    CardReply reply;
    drvError_t rc = CardClient::Instance().Call(request, &reply);
    if (rc == DRV_ERROR_NONE) {
        *value = reply.value();
    }
    return rc;
}

drvError_t halGetChipFromDevice(int32_t devId, int32_t* chipId) {
    if (chipId == nullptr) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    request.mutable_hal_get_chip_from_device()->set_dev_id(devId);
    CardReply reply;
    drvError_t rc = CardClient::Instance().Call(request, &reply);
    if (rc == DRV_ERROR_NONE) {
        *chipId = static_cast<int32_t>(reply.value());
    }
    return rc;
}

drvError_t halGrpCreate(const char* name, uint64_t memSize) {
    if (name == nullptr) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_hal_grp_create();
    call->set_name(name);
    call->set_mem_size(memSize);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halGrpAttach(const char* name, int32_t timeout) {
    if (name == nullptr) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_hal_grp_attach();
    call->set_name(name);
    call->set_timeout(timeout);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halGrpAddProc(const char* name, int32_t pid, uint32_t permissions) {
    if (name == nullptr) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_hal_grp_add_proc();
    call->set_name(name);
    call->set_pid(pid);
    call->set_permissions(permissions);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halGrpQuery(int32_t cmd, void* inBuff, uint32_t inLen, void* outBuff, uint32_t* outLen) {
    if ((inBuff == nullptr && inLen > 0) || outBuff == nullptr || outLen == nullptr) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_hal_grp_query();
    call->set_cmd(cmd);
    call->set_input(inBuff, inLen);
    call->set_out_capacity(*outLen);
    CardReply reply;
    drvError_t rc = CardClient::Instance().Call(request, &reply);
    if (rc != DRV_ERROR_NONE) {
        return rc;
    }
    if (reply.data().size() > *outLen) {
        return DRV_ERROR_INVALID_VALUE;
    }
    std::memcpy(outBuff, reply.data().data(), reply.data().size());
    *outLen = static_cast<uint32_t>(reply.data().size());
    return DRV_ERROR_NONE;
}

drvError_t drvGetProcessSign(struct process_sign* sign) {
    if (sign == nullptr) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    request.mutable_drv_get_process_sign();
    CardReply reply;
    drvError_t rc = CardClient::Instance().Call(request, &reply);
    if (rc == DRV_ERROR_NONE) {
        std::memset(sign, 0, sizeof(*sign));
        sign->tgid = static_cast<int32_t>(reply.value());
        std::memcpy(sign->sign, reply.data().data(),
                    std::min(reply.data().size(), sizeof(sign->sign) - 1));
    }
    return rc;
}

drvError_t drvBindHostPid(struct drvBindHostpidInfo info) {
    if (info.len > sizeof(info.sign)) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_drv_bind_host_pid();
    call->set_host_pid(info.host_pid);
    call->set_vfid(info.vfid);
    call->set_mode(info.mode);
    call->set_cp_type(info.cp_type);
    call->set_sign(std::string(info.sign, strnlen(info.sign, info.len)));
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halBuffRecycleByPid(int32_t pid) {
    CardRequest request;
    request.mutable_hal_buff_recycle_by_pid()->set_pid(pid);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t drvHdcGetTrustedBasePath(uint32_t peerNode, uint32_t devId, char* basePath,
                                    uint32_t pathLen) {
    if (basePath == nullptr || pathLen == 0) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_drv_hdc_get_trusted_base_path();
    call->set_peer_node(peerNode);
    call->set_dev_id(devId);
    call->set_path_len(pathLen);
    CardReply reply;
    drvError_t rc = CardClient::Instance().Call(request, &reply);
    if (rc == DRV_ERROR_NONE) {
        if (reply.text().size() + 1 > pathLen) {
            return DRV_ERROR_INVALID_VALUE;
        }
        std::memcpy(basePath, reply.text().c_str(), reply.text().size() + 1);
    }
    return rc;
}

drvError_t halEschedAttachDevice(uint32_t devId) {
    CardRequest request;
    request.mutable_hal_esched_attach_device()->set_dev_id(devId);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halEschedDettachDevice(uint32_t devId) {
    CardRequest request;
    request.mutable_hal_esched_dettach_device()->set_dev_id(devId);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halEschedCreateGrp(uint32_t devId, uint32_t grpId, uint32_t type) {
    CardRequest request;
    auto* call = request.mutable_hal_esched_create_grp();
    call->set_dev_id(devId);
    call->set_grp_id(grpId);
    call->set_type(type);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halEschedSubscribeEvent(uint32_t devId, uint32_t grpId, uint32_t threadId,
                                   uint64_t eventBitmap) {
    CardRequest request;
    auto* call = request.mutable_hal_esched_subscribe_event();
    call->set_dev_id(devId);
    call->set_grp_id(grpId);
    call->set_thread_id(threadId);
    call->set_event_bitmap(eventBitmap);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halEschedWaitEvent(uint32_t devId, uint32_t grpId, uint32_t threadId, int32_t timeout,
                              struct event_info* event) {
    if (event == nullptr) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_hal_esched_wait_event();
    call->set_dev_id(devId);
    call->set_grp_id(grpId);
    call->set_thread_id(threadId);
    call->set_timeout(timeout);
    CardReply reply;
    drvError_t rc = CardClient::Instance().Call(request, &reply);
    if (rc == DRV_ERROR_NONE) {
        const orv::emu::EventRecord& record = reply.event();
        std::memset(event, 0, sizeof(*event));
        event->event_id = record.event_id();
        event->subevent_id = record.subevent_id();
        event->src_pid = record.src_pid();
        event->grp_id = record.grp_id();
        event->msg_len =
            static_cast<uint32_t>(std::min<size_t>(record.msg().size(), EVENT_MAX_MSG_LEN));
        std::memcpy(event->msg, record.msg().data(), event->msg_len);
    }
    return rc;
}

drvError_t halEschedSubmitEvent(uint32_t devId, struct event_summary* event) {
    if (event == nullptr || (event->msg == nullptr && event->msg_len > 0)) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_hal_esched_submit_event();
    call->set_dev_id(devId);
    call->set_dst_pid(event->dst_pid);
    call->set_grp_id(event->grp_id);
    call->set_event_id(event->event_id);
    call->set_subevent_id(event->subevent_id);
    call->set_msg(event->msg, event->msg_len);
    call->set_dst_engine(event->dst_engine);
    call->set_policy(event->policy);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halEschedAckEvent(uint32_t devId, uint32_t eventId, uint32_t subeventId, char* msg,
                             uint32_t msgLen) {
    if (msg == nullptr && msgLen > 0) {
        return DRV_ERROR_INVALID_VALUE;
    }
    CardRequest request;
    auto* call = request.mutable_hal_esched_ack_event();
    call->set_dev_id(devId);
    call->set_event_id(eventId);
    call->set_subevent_id(subeventId);
    call->set_msg(msg, msgLen);
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

drvError_t halRegisterVmngClient(void) {
    CardRequest request;
    request.mutable_hal_register_vmng_client();
    CardReply reply;
    return CardClient::Instance().Call(request, &reply);
}

}  // extern "C"
