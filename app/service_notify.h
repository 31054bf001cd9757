// ServiceNotifier: tells a service manager how the daemon's life goes, in the
// datagram protocol that systemd documents for Type=notify services: one
// AF_UNIX datagram of newline-separated "NAME=VALUE" assignments, sent to the
// socket an environment variable names (a file system path, or an abstract
// socket name written with a leading '@'). The same protocol carries the
// emulated card's sandbox its readiness notices.
//
// The address is taken from the environment once, and the variable removed,
// so that nothing the daemon starts (sub-processes, sudo scripts) inherits
// it and speaks for the daemon. Without the variable nothing is ever sent.
#ifndef ORV_APP_SERVICE_NOTIFY_H
#define ORV_APP_SERVICE_NOTIFY_H

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace orv {

class ServiceNotifier {
  public:
    // Takes the socket name out of environment variable `variable`. Call
    // before any thread starts: it changes the environment.
    static ServiceNotifier FromEnvironment(const char* variable);

    // A notifier for socket `name`; an empty or unusable name sends nothing.
    explicit ServiceNotifier(const std::string& name);

    // Whether a usable socket name was given.
    bool Enabled() const { return length_ != 0; }

    // Sends `assignments` ("READY=1", "STOPPING=1\nSTATUS=...") as one
    // datagram. False when disabled or when it could not be sent.
    bool Notify(const std::string& assignments) const;

  private:
    sockaddr_un address_{};
    socklen_t length_ = 0;  // 0: disabled
};

// Fills `address` for socket `name`: an absolute path, or "@name" for the
// abstract namespace. False for an empty, relative or too long name.
bool NotifySocketAddress(const std::string& name, sockaddr_un* address, socklen_t* length);

}  // namespace orv

#endif  // ORV_APP_SERVICE_NOTIFY_H
