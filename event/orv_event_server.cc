#include "event/orv_event_server.h"

#include "platform/log.h"

namespace orv {

OrvEventServer* OrvEventServer::GetInstance() {
    static OrvEventServer instance;
    return &instance;
}

OrvEventServer::OrvEventServer() {
    (void)ORVLog::GetInstance();
}

uint32_t OrvEventServer::Init(uint32_t devNum) {
    ORV_LOG(ORV_INFO, "Begin init OrvEventSever devNum[%u]", devNum);
    return 0;
}

void OrvEventServer::Destroy() {
    ORV_LOG(ORV_EVENT, "[OrvEventServer] Destroy begin.");
    SetRunningFlag(false);
    ORV_LOG(ORV_EVENT, "[OrvEventServer] Destroy end.");
}

}  // namespace orv
