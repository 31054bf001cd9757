#include "emu/card/driver_service.h"

#include <cctype>
#include <cstring>

#include <driver_hal.h>

namespace orv::emu {

namespace {

// Control requests are numbered from here on in the request's oneof.
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

}  // namespace

std::string DriverCallName(const CardRequest& request) {
    const auto* reflection = request.GetReflection();
    const auto* field =
        reflection->GetOneofFieldDescriptor(request, CardRequest::descriptor()->FindOneofByName("call"));
    if (field == nullptr || field->number() >= kFirstControlField) {
        return std::string();
    }
    return SnakeToCamel(field->name());
}

bool IsFaultableCall(const std::string& name) {
    static const char* const kAppmonCalls[] = {"appmon_client_init", "appmon_client_register",
                                               "appmon_client_heartbeat", "appmon_client_deregister"};
    for (const char* call : kAppmonCalls) {
        if (name == call) {
            return true;
        }
    }
    const auto* oneof = CardRequest::descriptor()->FindOneofByName("call");
    for (int i = 0; i < oneof->field_count(); ++i) {
        const auto* field = oneof->field(i);
        if (field->number() < kFirstControlField && SnakeToCamel(field->name()) == name) {
            return true;
        }
    }
    return false;
}

DriverService::DriverService(const CardConfig* config, FaultTable* faults, GroupTable* groups,
                             ProcessTable* processes)
    : config_(config), faults_(faults), groups_(groups), processes_(processes) {}

CardReply DriverService::Handle(pid_t caller, const CardRequest& request) {
    int32_t injected = 0;
    if (faults_->Take(DriverCallName(request), &injected)) {
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
            return Reply(groups_->Create(caller, request.hal_grp_create().name(), request.hal_grp_create().mem_size()));
        case CardRequest::kHalGrpAttach:
            return Reply(groups_->Attach(caller, request.hal_grp_attach().name()));
        case CardRequest::kHalGrpAddProc: {
            const HalGrpAddProc& call = request.hal_grp_add_proc();
            return Reply(groups_->AddProc(call.name(), call.pid(), call.permissions()));
        }
        case CardRequest::kHalGrpQuery: {
            const HalGrpQuery& call = request.hal_grp_query();
            if (call.cmd() != GRP_QUERY_GROUPS_OF_PROCESS || call.input().size() != sizeof(int32_t)) {
                return Reply(DRV_ERROR_INVALID_VALUE);
            }
            int32_t pid = 0;
            std::memcpy(&pid, call.input().data(), sizeof(pid));
            CardReply reply;
            reply.set_code(groups_->QueryGroupsOfProcess(pid, call.out_capacity(), reply.mutable_data()));
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
            return Reply(processes_->Bind(caller, call.host_pid(), call.vfid(), call.mode(), call.cp_type(),
                                          call.sign()));
        }
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
        return call.info_type() == INFO_TYPE_VERSION ? Reply(DRV_ERROR_NONE, config_->HardwareVersion())
                                                     : Reply(DRV_ERROR_NOT_SUPPORT);
    }
    const CpuGroup* group = call.module_type() == MODULE_TYPE_AICPU   ? &device.ai
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
