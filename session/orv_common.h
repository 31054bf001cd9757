// OrvImpl: the session of one host framework process on one device and VF.
// It plans, launches, supervises and closes that process's sub-processes and
// answers the host.
//
// This build carries the session's place in the daemon's monitor loop; its
// requests and sub-processes come with the host link.
#ifndef ORV_SESSION_ORV_COMMON_H
#define ORV_SESSION_ORV_COMMON_H

#include <cstdint>

namespace orv {

class OrvImpl {
public:
    OrvImpl() = default;
    virtual ~OrvImpl() = default;
    OrvImpl(const OrvImpl&) = delete;
    OrvImpl& operator=(const OrvImpl&) = delete;

    // Called once per monitor tick: answers a start that did not finish in time.
    void CheckAndHandleTimeout() {}

    // Called once per monitor tick: notices sub-processes that died.
    void CheckEventClientHeartbeat(int32_t& /*terminatedPid*/, bool /*zebFlag*/) {}
};

}  // namespace orv

#endif  // ORV_SESSION_ORV_COMMON_H
