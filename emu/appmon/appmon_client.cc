// Emulated app-monitor client library: one Unix stream connection to the card
// emulator's app monitor per handle.
#include <appmon_client.h>

#include <cstdlib>
#include <new>
#include <string>

#include "emu/appmon/appmon_protocol.h"
#include "emu/common/socket_io.h"

struct appmon_connection {
    orv::emu::UniqueFd fd;
};

namespace {

constexpr int kTransportError = -1;

// Sends one request and turns the answer into the library's result.
int Exchange(appmon_client_t* client, const std::string& request) {
    if (client == nullptr || client->conn == nullptr) {
        return kTransportError;
    }
    int fd = client->conn->fd.Get();
    std::string answer;
    if (!orv::emu::WriteLine(fd, request) || !orv::emu::ReadLine(fd, &answer)) {
        return kTransportError;
    }
    if (answer == orv::emu::kAppmonOk) {
        return 0;
    }
    const std::string errPrefix = std::string(orv::emu::kAppmonErr) + " ";
    if (answer.compare(0, errPrefix.size(), errPrefix) == 0) {
        int code = std::atoi(answer.c_str() + errPrefix.size());
        return code != 0 ? code : kTransportError;
    }
    return kTransportError;
}

// Keeps a request on one line whatever the caller passed.
std::string OneLine(const char* text) {
    std::string s = text != nullptr ? text : "";
    for (char& c : s) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    return s;
}

}  // namespace

extern "C" {

int appmon_client_init(appmon_client_t* client, const char* serverPath) {
    if (client == nullptr || serverPath == nullptr) {
        return kTransportError;
    }
    client->conn = nullptr;
    orv::emu::UniqueFd fd = orv::emu::ConnectUnix(serverPath);
    if (!fd.Valid()) {
        return kTransportError;
    }
    auto* conn = new (std::nothrow) appmon_connection{std::move(fd)};
    if (conn == nullptr) {
        return kTransportError;
    }
    client->conn = conn;
    int rc = Exchange(client, orv::emu::kAppmonHello);
    if (rc != 0) {
        delete conn;
        client->conn = nullptr;
    }
    return rc;
}

int appmon_client_register(appmon_client_t* client, unsigned long timeoutMs, const char* command) {
    return Exchange(client, std::string(orv::emu::kAppmonRegister) + " " +
                                std::to_string(timeoutMs) + " " + OneLine(command));
}

int appmon_client_heartbeat(appmon_client_t* client) {
    return Exchange(client, orv::emu::kAppmonHeartbeat);
}

int appmon_client_deregister(appmon_client_t* client, const char* reason) {
    return Exchange(client, std::string(orv::emu::kAppmonDeregister) + " " + OneLine(reason));
}

void appmon_client_exit(appmon_client_t* client) {
    if (client == nullptr) {
        return;
    }
    delete client->conn;
    client->conn = nullptr;
}

}  // extern "C"
