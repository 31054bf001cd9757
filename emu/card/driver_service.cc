#include "emu/card/driver_service.h"

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include <driver_hal.h>

namespace orv::emu {

namespace {

// In the request's oneof: the emulator's own requests from here on, and the
// control requests from further on.
constexpr int kFirstPrivateField = 90;
constexpr int kFirstControlField = 100;

// "hal_get_device_info" -> "halGetDeviceInfo".
std::string SnakeToCamel(const std::string& snake) {
    std::string camel;
    bool upper = false;
    for (char c : snake) {
        if (c == '_') {
            upper = true;
            continue;
        }
        camel += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
        upper = false;
    }
    return camel;
}

CardReply Reply(int32_t code, int64_t value = 0) {
    CardReply reply;
    reply.set_code(code);
    reply.set_value(value);
    return reply;
}

const google::protobuf::FieldDescriptor* CallField(const CardRequest& request) {
    return request.GetReflection()->GetOneofFieldDescriptor(
        request, CardRequest::descriptor()->FindOneofByName("call"));
}

}  // namespace

std::string DriverCallName(const CardRequest& request) {
    const auto* field = CallField(request);
    if (field == nullptr || field->number() >= kFirstPrivateField) {
        return std::string();
    }
    return SnakeToCamel(field->name());
}

bool IsDriverSocketRequest(const CardRequest& request) {
    const auto* field = CallField(request);
    return field != nullptr && field->number() < kFirstControlField;
}

bool IsFaultableCall(const std::string& name) {
    static const char* const kAppmonCalls[] = {"appmon_client_init", "appmon_client_register",
                                               "appmon_client_heartbeat",
                                               "appmon_client_deregister"};
    for (const char* call : kAppmonCalls) {
        if (name == call) {
            return true;
        }
    }
    return IsDriverCall(name);
}

bool IsDriverCall(const std::string& name) {
    const auto* oneof = CardRequest::descriptor()->FindOneofByName("call");
    for (int i = 0; i < oneof->field_count(); ++i) {
        const auto* field = oneof->field(i);
        if (field->number() < kFirstPrivateField && SnakeToCamel(field->name()) == name) {
            return true;
        }
    }
    return false;
}

const char* const StandinTable::kBehaviours[] = {
    "normal",            // reports start, closes on request
    "no-start",          // never reports start
    "delay-start",       // reports start after the delay
    "crash",             // reports start, then dies after the delay
    "stay-after-close",  // reports closed on request but does not exit
    "ignore-close",      // never answers a close request
    "kernel-timeout",    // reports start, then a kernel time-out after the delay
    "ask-custom",  // (compute) reports start, then asks for the custom process after the delay
    "flood",       // reports start, then as many start reports again as the "delay" says
    nullptr,
};

bool StandinTable::Set(uint32_t kind, const std::string& behaviour, uint32_t delayMs) {
    bool known = false;
    for (const char* const* b = kBehaviours; *b != nullptr; ++b) {
        known = known || behaviour == *b;
    }
    if (kind >= kKinds || !known) {
        return false;
    }
    MutexLock lock(&mutex_);
    behaviour_[kind] = behaviour;
    delayMs_[kind] = delayMs;
    Publish();
    return true;
}

void StandinTable::PublishTo(const std::string& path) {
    MutexLock lock(&mutex_);
    board_ = path;
    Publish();
}

void StandinTable::Publish() const {
    if (board_.empty()) {
        return;
    }
    std::string table;
    for (uint32_t kind = 0; kind < kKinds; ++kind) {
        table += std::to_string(kind) + " " + behaviour_[kind] + " " +
                 std::to_string(delayMs_[kind]) + "\n";
    }
    // Renamed into place: a stand-in starting meanwhile reads one table whole.
    std::string tmp = board_ + ".tmp";
    if (FILE* out = std::fopen(tmp.c_str(), "we")) {
        std::fputs(table.c_str(), out);
        std::fclose(out);
        std::rename(tmp.c_str(), board_.c_str());
    }
}

std::string StandinTable::Describe() const {
    static const char* const kNames[] = {"zarn", "compute", "custom", "queue"};
    MutexLock lock(&mutex_);
    std::string out;
    for (uint32_t kind = 0; kind < kKinds; ++kind) {
        out += std::string("standin ") + kNames[kind] + " " + behaviour_[kind] + " delay_ms " +
               std::to_string(delayMs_[kind]) + "\n";
    }
    return out;
}

DriverService::DriverService(const CardConfig* config, FaultTable* faults, GroupTable* groups,
                             ProcessTable* processes, EventScheduler* scheduler,
                             VerifyLog* verified)
    : config_(config),
      faults_(faults),
      groups_(groups),
      processes_(processes),
      scheduler_(scheduler),
      verified_(verified) {}

CardReply DriverService::Handle(pid_t caller, const CardRequest& request) {
    CardReply reply = Serve(caller, request);
    // A late answer: the call has done its work, only the caller waits longer.
    uint32_t delayMs = 0;
    if (!request.fault_exempt() && faults_->Armed() &&
        faults_->TakeDelay(DriverCallName(request), &delayMs)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    }
    return reply;
}

CardReply DriverService::Serve(pid_t caller, const CardRequest& request) {
    int32_t injected = 0;
    if (!request.fault_exempt() && faults_->Armed() &&
        faults_->Take(DriverCallName(request), &injected)) {
        return Reply(injected);
    }
    switch (request.call_case()) {
        case CardRequest::kDrvGetDevNum:
            return Reply(DRV_ERROR_NONE, static_cast<int64_t>(config_->devices.size()));
        case CardRequest::kHalGetDeviceInfo:
            return GetDeviceInfo(request.hal_get_device_info());
        case CardRequest::kHalGetChipFromDevice: {
            int32_t dev = request.hal_get_chip_from_device().dev_id();
            if (dev < 0 || static_cast<size_t>(dev) >= config_->devices.size()) {
                return Reply(DRV_ERROR_INVALID_DEVICE);
            }
            return Reply(DRV_ERROR_NONE, config_->devices[static_cast<size_t>(dev)].chipId);
        }
        case CardRequest::kHalGrpCreate:
            return Reply(groups_->Create(caller, request.hal_grp_create().name(),
                                         request.hal_grp_create().mem_size()));
        case CardRequest::kHalGrpAttach:
            return Reply(groups_->Attach(caller, request.hal_grp_attach().name()));
        case CardRequest::kHalGrpAddProc: {
            const HalGrpAddProc& call = request.hal_grp_add_proc();
            return Reply(groups_->AddProc(call.name(), call.pid(), call.permissions()));
        }
        case CardRequest::kHalGrpQuery: {
            const HalGrpQuery& call = request.hal_grp_query();
            if (call.cmd() == GRP_QUERY_GROUP_OWNER) {
                const std::string& input = call.input();
                if (input.size() != BUFF_GRP_NAME_LEN || call.out_capacity() < sizeof(GroupOwner)) {
                    return Reply(DRV_ERROR_INVALID_VALUE);
                }
                GroupOwner owner{};
                CardReply reply;
                reply.set_code(groups_->QueryOwner(std::string(input.c_str()), &owner));
                if (reply.code() == DRV_ERROR_NONE) {
                    reply.set_data(reinterpret_cast<const char*>(&owner), sizeof(owner));
                }
                return reply;
            }
            if (call.cmd() != GRP_QUERY_GROUPS_OF_PROCESS ||
                call.input().size() != sizeof(int32_t)) {
                return Reply(DRV_ERROR_INVALID_VALUE);
            }
            int32_t pid = 0;
            std::memcpy(&pid, call.input().data(), sizeof(pid));
            CardReply reply;
            reply.set_code(
                groups_->QueryGroupsOfProcess(pid, call.out_capacity(), reply.mutable_data()));
            return reply;
        }
        case CardRequest::kHalBuffRecycleByPid:
            return Reply(groups_->RecycleByPid(request.hal_buff_recycle_by_pid().pid()));
        case CardRequest::kDrvGetProcessSign: {
            CardReply reply = Reply(DRV_ERROR_NONE, caller);
            reply.set_data(processes_->SignOf(caller));
            return reply;
        }
        case CardRequest::kDrvBindHostPid: {
            const DrvBindHostPid& call = request.drv_bind_host_pid();
            return Reply(processes_->Bind(caller, call.host_pid(), call.vfid(), call.mode(),
                                          call.cp_type(), call.sign()));
        }
        case CardRequest::kDrvHdcGetTrustedBasePath: {
            const DrvHdcGetTrustedBasePath& call = request.drv_hdc_get_trusted_base_path();
            if (call.dev_id() >= config_->devices.size()) {
                return Reply(DRV_ERROR_INVALID_DEVICE);
            }
            std::string path = config_->trustedRoot + "/dev" + std::to_string(call.dev_id());
            if (call.peer_node() != HDC_LOCAL_PEER_NODE || path.size() + 1 > call.path_len()) {
                return Reply(DRV_ERROR_INVALID_VALUE);
            }
            CardReply reply = Reply(DRV_ERROR_NONE);
            reply.set_text(path);
            return reply;
        }
        case CardRequest::kHalVerifyImg:
            verified_->Record(request.hal_verify_img().path(), request.hal_verify_img().size());
            return Reply(DRV_ERROR_NONE);
        case CardRequest::kHalEschedAttachDevice:
        case CardRequest::kHalEschedDettachDevice:
        case CardRequest::kHalEschedCreateGrp:
        case CardRequest::kHalEschedSubscribeEvent:
        case CardRequest::kHalEschedWaitEvent:
        case CardRequest::kHalEschedSubmitEvent:
        case CardRequest::kHalEschedAckEvent:
        case CardRequest::kHalRegisterVmngClient:
            return EventCall(caller, request);
        default:
            return Reply(DRV_ERROR_NOT_SUPPORT);
    }
}

CardReply DriverService::EventCall(pid_t caller, const CardRequest& request) {
    switch (request.call_case()) {
        case CardRequest::kHalEschedAttachDevice:
            return Reply(scheduler_->Attach(caller, request.hal_esched_attach_device().dev_id()));
        case CardRequest::kHalEschedDettachDevice:
            return Reply(scheduler_->Detach(caller, request.hal_esched_dettach_device().dev_id()));
        case CardRequest::kHalEschedCreateGrp: {
            const HalEschedCreateGrp& call = request.hal_esched_create_grp();
            return Reply(
                scheduler_->CreateGroup(caller, call.dev_id(), call.grp_id(), call.type()));
        }
        case CardRequest::kHalEschedSubscribeEvent: {
            const HalEschedSubscribeEvent& call = request.hal_esched_subscribe_event();
            return Reply(scheduler_->Subscribe(caller, call.dev_id(), call.grp_id(),
                                               call.thread_id(), call.event_bitmap()));
        }
        case CardRequest::kHalEschedWaitEvent: {
            const HalEschedWaitEvent& call = request.hal_esched_wait_event();
            CardReply reply;
            reply.set_code(scheduler_->Wait(caller, call.dev_id(), call.grp_id(), call.thread_id(),
                                            call.timeout(), reply.mutable_event()));
            return reply;
        }
        case CardRequest::kHalEschedSubmitEvent:
            return Reply(scheduler_->Submit(caller, request.hal_esched_submit_event()));
        case CardRequest::kHalEschedAckEvent: {
            const HalEschedAckEvent& call = request.hal_esched_ack_event();
            return Reply(scheduler_->Ack(caller, call.dev_id(), call.event_id(), call.subevent_id(),
                                         call.msg()));
        }
        case CardRequest::kHalRegisterVmngClient:
            return Reply(scheduler_->RegisterVmngClient(caller));
        default:
            return Reply(DRV_ERROR_NOT_SUPPORT);
    }
}

CardReply DriverService::GetDeviceInfo(const HalGetDeviceInfo& call) const {
    if (call.dev_id() >= config_->devices.size()) {
        return Reply(DRV_ERROR_INVALID_DEVICE);
    }
    const DeviceConfig& device = config_->devices[call.dev_id()];
    if (call.module_type() == MODULE_TYPE_SYSTEM) {
        return call.info_type() == INFO_TYPE_VERSION
                   ? Reply(DRV_ERROR_NONE, config_->HardwareVersion())
                   : Reply(DRV_ERROR_NOT_SUPPORT);
    }
    const CpuGroup* group = call.module_type() == MODULE_TYPE_AICPU  ? &device.ai
                            : call.module_type() == MODULE_TYPE_CCPU ? &device.ctrl
                            : call.module_type() == MODULE_TYPE_DCPU ? &device.data
                                                                     : nullptr;
    if (group == nullptr) {
        return Reply(DRV_ERROR_INVALID_VALUE);
    }
    switch (call.info_type()) {
        case INFO_TYPE_CORE_NUM:
            return Reply(DRV_ERROR_NONE, group->count);
        case INFO_TYPE_OS_SCHED:
            return Reply(DRV_ERROR_NONE, group->osSched);
        default:
            return Reply(DRV_ERROR_NOT_SUPPORT);
    }
}

}  // namespace orv::emu
