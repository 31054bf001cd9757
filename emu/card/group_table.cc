#include "emu/card/group_table.h"

#include <cstring>
#include <sstream>

#include <driver_hal.h>

namespace orv::emu {

namespace {

bool ValidName(const std::string& name) {
    return !name.empty() && name.size() < BUFF_GRP_NAME_LEN;
}

}  // namespace

GroupTable::GroupTable() {
    MutexLock lock(&mutex_);
    groups_[kDefaultMemGroup] = Group{};
}

int32_t GroupTable::Create(pid_t owner, const std::string& name, uint64_t memSize,
                           uint32_t tenantDevice, uint32_t tenantVf) {
    if (!ValidName(name)) {
        return DRV_ERROR_INVALID_VALUE;
    }
    MutexLock lock(&mutex_);
    if (groups_.count(name) != 0) {
        return DRV_ERROR_REPEATED_INIT;
    }
    Group group;
    group.owner = owner;
    group.tenant = GroupOwner{tenantDevice, tenantVf};
    group.memSize = memSize;
    group.members[owner] = GRP_PERM_ADMIN | GRP_PERM_READ | GRP_PERM_WRITE | GRP_PERM_ALLOC;
    groups_[name] = std::move(group);
    return DRV_ERROR_NONE;
}

int32_t GroupTable::Attach(pid_t pid, const std::string& name) {
    if (!ValidName(name)) {
        return DRV_ERROR_INVALID_VALUE;
    }
    MutexLock lock(&mutex_);
    auto it = groups_.find(name);
    if (it == groups_.end()) {
        return DRV_ERROR_NOT_EXIST;
    }
    it->second.attached.insert(pid);
    return DRV_ERROR_NONE;
}

int32_t GroupTable::AddProc(const std::string& name, pid_t pid, uint32_t permissions) {
    if (!ValidName(name) || pid <= 0) {
        return DRV_ERROR_INVALID_VALUE;
    }
    MutexLock lock(&mutex_);
    auto it = groups_.find(name);
    if (it == groups_.end()) {
        return DRV_ERROR_NOT_EXIST;
    }
    auto member = it->second.members.find(pid);
    if (member != it->second.members.end() && member->second == permissions) {
        return DRV_ERROR_REPEATED_INIT;
    }
    it->second.members[pid] = permissions;
    return DRV_ERROR_NONE;
}

int32_t GroupTable::QueryGroupsOfProcess(pid_t pid, uint32_t capacity, std::string* out) const {
    MutexLock lock(&mutex_);
    out->clear();
    for (const auto& [name, group] : groups_) {
        auto member = group.members.find(pid);
        if (member == group.members.end()) {
            continue;
        }
        GroupQueryEntry entry{};
        std::memcpy(entry.name, name.c_str(), name.size() + 1);
        entry.permissions = member->second;
        if (out->size() + sizeof(entry) > capacity) {
            return DRV_ERROR_OUT_OF_MEMORY;
        }
        out->append(reinterpret_cast<const char*>(&entry), sizeof(entry));
    }
    return DRV_ERROR_NONE;
}

int32_t GroupTable::QueryOwner(const std::string& name, GroupOwner* owner) const {
    MutexLock lock(&mutex_);
    auto it = groups_.find(name);
    if (it == groups_.end()) {
        return DRV_ERROR_NOT_EXIST;
    }
    *owner = it->second.tenant;
    return DRV_ERROR_NONE;
}

int32_t GroupTable::RecycleByPid(pid_t pid) {
    if (pid <= 0) {
        return DRV_ERROR_INVALID_VALUE;
    }
    MutexLock lock(&mutex_);
    ++recycles_[pid];
    return DRV_ERROR_NONE;
}

std::string GroupTable::Describe() const {
    MutexLock lock(&mutex_);
    std::ostringstream out;
    for (const auto& [name, group] : groups_) {
        out << "group " << name << " owner " << group.owner;
        if (group.tenant.devId != GRP_OWNER_CARD) {
            out << " tenant device " << group.tenant.devId << " vf " << group.tenant.vfId;
        }
        out << " members";
        for (const auto& [pid, perms] : group.members) {
            out << " " << pid << ":" << perms;
        }
        out << " attached";
        for (pid_t pid : group.attached) {
            out << " " << pid;
        }
        out << "\n";
    }
    for (const auto& [pid, count] : recycles_) {
        out << "recycled " << pid << " times " << count << "\n";
    }
    return out.str();
}

}  // namespace orv::emu
