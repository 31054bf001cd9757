#include "emu/driver/card_client.h"

#include <unistd.h>

#include <algorithm>

#include "emu/common/emu_paths.h"
#include "emu/common/process_ids.h"
#include "emu/common/socket_io.h"

namespace orv::emu {

CardClient& CardClient::Instance() {
    static CardClient client(EnvOr(kCardSocketEnv, kDefaultCardSocket));
    return client;
}

CardClient::CardClient(std::string socketPath)
    : socketPath_(std::move(socketPath)), ownerPid_(CurrentPid()) {}

void CardClient::ForgetParentsConnections() {
    if (ownerPid_ != CurrentPid()) {
        // The descriptors are shared with the parent; using them would mix the streams.
        for (UniqueFd& fd : idle_) {
            fd.Release();
        }
        idle_.clear();
        ownerPid_ = CurrentPid();
    }
}

UniqueFd CardClient::Borrow() {
    {
        MutexLock lock(&mutex_);
        ForgetParentsConnections();
        if (!idle_.empty()) {
            UniqueFd fd = std::move(idle_.back());
            idle_.pop_back();
            return fd;
        }
    }
    return ConnectUnix(socketPath_);
}

void CardClient::Return(UniqueFd fd) {
    MutexLock lock(&mutex_);
    if (ownerPid_ == CurrentPid() && idle_.size() < kMaxIdle) {
        idle_.push_back(std::move(fd));
    }
}

void CardClient::Reserve(size_t count) {
    std::vector<UniqueFd> opened;
    {
        MutexLock lock(&mutex_);
        ForgetParentsConnections();
        count = std::min(count, kMaxIdle) - std::min(count, idle_.size());
    }
    for (size_t i = 0; i < count; ++i) {
        UniqueFd fd = ConnectUnix(socketPath_);
        if (!fd.Valid()) {
            break;
        }
        opened.push_back(std::move(fd));
    }
    for (UniqueFd& fd : opened) {
        Return(std::move(fd));
    }
}

drvError_t CardClient::Call(const CardRequest& request, CardReply* reply) {
    UniqueFd fd = Borrow();
    if (!fd.Valid()) {
        return DRV_ERROR_IOCRL_FAIL;
    }
    CardRequest exempt;
    if (exempt_) {
        exempt = request;
        exempt.set_fault_exempt(true);
    }
    if (!ExchangeMessages(fd.Get(), exempt_ ? exempt : request, reply)) {
        return DRV_ERROR_IOCRL_FAIL;
    }
    Return(std::move(fd));
    return reply->code();
}

}  // namespace orv::emu
