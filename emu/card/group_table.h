// The card's shared-memory buffer groups: who owns each group, which processes
// were granted access (and with which permissions), which attached to it, and
// how often a process's buffers were recycled.
#ifndef ORV_EMU_CARD_GROUP_TABLE_H
#define ORV_EMU_CARD_GROUP_TABLE_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include <driver_hal.h>

#include "platform/mutex.h"

namespace orv::emu {

// Exists from boot, owned by no process.
inline constexpr char kDefaultMemGroup[] = "DEFAULT_MEM_GROUP";

class GroupTable {
  public:
    GroupTable();
    GroupTable(const GroupTable&) = delete;
    GroupTable& operator=(const GroupTable&) = delete;

    // Each returns a driver result code. A group belongs to the tenant
    // (device and VF) it is made for, or to the card (GRP_OWNER_CARD).
    int32_t Create(pid_t owner, const std::string& name, uint64_t memSize,
                   uint32_t tenantDevice = GRP_OWNER_CARD, uint32_t tenantVf = GRP_OWNER_CARD);
    int32_t Attach(pid_t pid, const std::string& name);
    int32_t AddProc(const std::string& name, pid_t pid, uint32_t permissions);
    // Fills `out` with 36-byte entries of the groups `pid` owns or was added to.
    int32_t QueryGroupsOfProcess(pid_t pid, uint32_t capacity, std::string* out) const;
    // Fills `owner` with the tenant of group `name`.
    int32_t QueryOwner(const std::string& name, GroupOwner* owner) const;
    int32_t RecycleByPid(pid_t pid);

    // One line per group: name, owner, members with permissions, attached pids;
    // then one line per recycled pid.
    std::string Describe() const;

  private:
    struct Group {
        pid_t owner = 0;
        GroupOwner tenant{GRP_OWNER_CARD, GRP_OWNER_CARD};
        uint64_t memSize = 0;
        std::map<pid_t, uint32_t> members;  // pid -> GRP_PERM_* bits
        std::set<pid_t> attached;
    };

    mutable Mutex mutex_;
    std::map<std::string, Group> groups_ GUARDED_BY(mutex_);
    std::map<pid_t, uint32_t> recycles_ GUARDED_BY(mutex_);
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_GROUP_TABLE_H
