#include "app/service_notify.h"

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace orv {

bool NotifySocketAddress(const std::string& name, sockaddr_un* address, socklen_t* length) {
    *address = sockaddr_un{};
    address->sun_family = AF_UNIX;
    if (name.size() < 2 || (name[0] != '/' && name[0] != '@') ||
        name.size() >= sizeof(address->sun_path)) {
        return false;
    }
    std::memcpy(address->sun_path, name.data(), name.size());
    if (name[0] == '@') {
        // An abstract name is exactly its bytes after the leading zero, with
        // no terminator counted.
        address->sun_path[0] = '\0';
        *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    } else {
        *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 1);
    }
    return true;
}

ServiceNotifier ServiceNotifier::FromEnvironment(const char* variable) {
    const char* value = std::getenv(variable);
    ServiceNotifier notifier(value != nullptr ? std::string(value) : std::string());
    ::unsetenv(variable);
    return notifier;
}

ServiceNotifier::ServiceNotifier(const std::string& name) {
    if (!NotifySocketAddress(name, &address_, &length_)) {
        length_ = 0;
    }
}

bool ServiceNotifier::Notify(const std::string& assignments) const {
    if (!Enabled()) {
        return false;
    }
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    ssize_t sent = ::sendto(fd, assignments.data(), assignments.size(), MSG_NOSIGNAL,
                            reinterpret_cast<const sockaddr*>(&address_), length_);
    ::close(fd);
    return sent == static_cast<ssize_t>(assignments.size());
}

}  // namespace orv
