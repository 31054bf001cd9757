#include "platform/appmon_client.h"

#include <chrono>

#include <bounds_checked.h>

#include "platform/log.h"
#include "platform/stop_signal.h"

namespace orv {

namespace {

constexpr unsigned long kRegisterTimeout = 30000;
constexpr uint32_t kMaxRegisterTimes = 10;
constexpr std::chrono::seconds kRegisterRetry{3};
constexpr std::chrono::seconds kHeartbeatPeriod{10};

}  // namespace

AppmonClient* AppmonClient::GetInstance() {
    static AppmonClient instance;
    return &instance;
}

AppmonClient::AppmonClient() {
    (void)ORVLog::GetInstance();
}

void AppmonClient::Init(const bool& zebFlag) {
    zebFlag_ = zebFlag;
    ORV_LOG(ORV_EVENT, "[OrvDaemon] set zeb flag : %s", zebFlag_ ? "true" : "false");
    if (zebFlag_) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] skip init appmon");
        return;
    }
    if (appmon_client_init(&handle_, kAppmonSocketPath) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon]init to appmon failed");
        OrvSetRegistAppmonStaus(ORV_APPMON_CONNECT_FAILED);
        return;
    }
    OrvSetRegistAppmonStaus(ORV_APPMON_CONNECTED);
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Init to appmon success");
}

bool AppmonClient::SendHeartbeat(uint32_t& registerTimes) {
    if (zebFlag_) {
        (void)StopSignal::Instance().Pause(kHeartbeatPeriod);
        return false;
    }
    if (IsOrvInitAppmonSuccess() && !IsOrvRegistAppmonSuccess() &&
        registerTimes < kMaxRegisterTimes) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] begin to register to appmon");
        if (appmon_client_register(&handle_, kRegisterTimeout, kAppmonMonitorScript) != 0) {
            ++registerTimes;
            OrvSetRegistAppmonStaus(ORV_APPMON_REGISTER_FAILED);
            ORV_LOG(ORV_EVENT, "[OrvDaemon]send orv heartbeat to appmon failed, try more");
            (void)StopSignal::Instance().Pause(kRegisterRetry);
            return false;
        }
        OrvSetRegistAppmonStaus(ORV_APPMON_REGISTERED);
        ORV_LOG(ORV_EVENT, "[OrvEVENT] register to appmon success");
    }
    SendHeartbeatToAppMon();
    return true;
}

void AppmonClient::SendHeartbeatToAppMon() {
    if (IsOrvRegistAppmonSuccess()) {
        if (appmon_client_heartbeat(&handle_) != 0) {
            OrvSetRegistAppmonStaus(ORV_APPMON_HEARTBEAT_FAILED);
            ORV_LOG(ORV_WARN, "[OrvDaemon]send heartbeat to appmon failed");
        } else {
            OrvSetRegistAppmonStaus(ORV_APPMON_HEARTBEAT_SENT);
        }
    }
    (void)StopSignal::Instance().Pause(kHeartbeatPeriod);
}

void AppmonClient::ClearOrvRegistAppmonInfo() {
    if (zebFlag_) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] skip deregister appmon");
        return;
    }
    if (IsOrvRegistAppmonSuccess()) {
        ORV_LOG(ORV_EVENT, "[OrvEVENT] deregister to appmon");
        if (appmon_client_deregister(&handle_, "orvdaemon monitor exit.") != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] appmon client deregister failed");
            return;
        }
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] exit to appmon");
    appmon_client_exit(&handle_);
    OrvSetRegistAppmonStaus(ORV_APPMON_NOT_CONNECTED);
    (void)memset_s(&handle_, sizeof(handle_), 0, sizeof(handle_));
}

bool AppmonClient::IsOrvInitAppmonSuccess() {
    MutexLock lock(&mutex_);
    return status_ >= ORV_APPMON_CONNECTED && status_ <= ORV_APPMON_HEARTBEAT_SENT;
}

bool AppmonClient::IsOrvRegistAppmonSuccess() {
    MutexLock lock(&mutex_);
    return status_ >= ORV_APPMON_REGISTERED && status_ <= ORV_APPMON_HEARTBEAT_SENT;
}

void AppmonClient::OrvSetRegistAppmonStaus(OrvRegistAppmonStatus status) {
    MutexLock lock(&mutex_);
    status_ = status;
}

OrvRegistAppmonStatus AppmonClient::GetRegistAppmonStatus() {
    MutexLock lock(&mutex_);
    return status_;
}

}  // namespace orv
