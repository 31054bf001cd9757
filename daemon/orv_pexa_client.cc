#include "daemon/orv_pexa_client.h"

namespace orv {

OrvPexaClient* OrvPexaClient::GetInstance() {
    static OrvPexaClient instance;
    return &instance;
}

void OrvPexaClient::SendMessageToPexaServer(const Orv2dmReqMsg& /*request*/) {}

void OrvPexaClient::SendMessageToIAM(const std::string& /*name*/) const {}

}  // namespace orv
