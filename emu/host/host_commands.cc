#include "emu/host/host_commands.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "emu/common/socket_io.h"

namespace orv::host {

namespace {

std::map<std::string, std::string> ReadEnvFile(const std::string& stateDir) {
    std::map<std::string, std::string> env;
    std::ifstream in(stateDir + "/sandbox.env");
    for (std::string line; std::getline(in, line);) {
        size_t eq = line.find('=');
        if (eq != std::string::npos) {
            env[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    return env;
}

}  // namespace

std::string MessageLine(const std::string& link, const HDCMessage& msg, bool json) {
    if (json) {
        return "{\"link\":\"" + link +
               "\",\"event\":\"message\",\"type\":" + std::to_string(static_cast<int>(msg.type())) +
               ",\"message\":" + ToJson(msg) + "}";
    }
    return "[" + link + "] " + Describe(msg);
}

std::string EventLine(const std::string& link, const std::string& event, bool json) {
    if (json) {
        return "{\"link\":\"" + link + "\",\"event\":\"" + event + "\"}";
    }
    return "[" + link + "] " + event;
}

HostCommands::HostCommands(Settings settings) : settings_(std::move(settings)) {}

std::string HostCommands::SandboxPath(const std::string& name, const std::string& inside,
                                      const std::string& option) const {
    if (settings_.stateDir.empty()) {
        const char* value = std::getenv(name.c_str());
        if (value != nullptr && *value != '\0') {
            return value;
        }
        if (::access(inside.c_str(), F_OK) == 0) {
            return inside;
        }
        throw UsageError{"give --state DIR or " + option + ", or set " + name};
    }
    std::map<std::string, std::string> env = ReadEnvFile(settings_.stateDir);
    auto it = env.find(name);
    return it != env.end() ? it->second : settings_.stateDir + inside;
}

std::string HostCommands::SocketFor(uint32_t device) const {
    if (!settings_.socket.empty()) {
        return settings_.socket;
    }
    std::string dev = std::to_string(device);
    return SandboxPath("ORV_HDC_SOCKET_" + dev, "/run/orv-hdc/dev" + dev + ".sock",
                       "--socket PATH");
}

std::unique_ptr<HostLink> HostCommands::OpenLink(uint32_t device) const {
    std::string error;
    std::unique_ptr<HostLink> link = HostLink::Connect(SocketFor(device), &error);
    if (link == nullptr) {
        std::fprintf(stderr, "orv-host: %s\n", error.c_str());
    }
    return link;
}

void HostCommands::PrintMessage(const std::string& link, const HDCMessage& msg) const {
    std::printf("%s\n", MessageLine(link, msg, settings_.json).c_str());
    std::fflush(stdout);
}

void HostCommands::PrintEvent(const std::string& link, const std::string& event) const {
    std::printf("%s\n", EventLine(link, event, settings_.json).c_str());
    std::fflush(stdout);
}

int HostCommands::Await(HostLink& link, const std::string& name, int type, int timeoutMs,
                        HDCMessage* got) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) {
            left = std::chrono::milliseconds(0);
        }
        HDCMessage msg;
        switch (link.Next(&msg, left)) {
            case Received::kMessage:
                PrintMessage(name, msg);
                if (type < 0 || msg.type() == type) {
                    if (got != nullptr) {
                        *got = msg;
                    }
                    return kExitOk;
                }
                break;
            case Received::kTimeout:
                PrintEvent(name, "no reply");
                return kExitNoReply;
            case Received::kClosed:
                PrintEvent(name, "closed");
                return kExitClosed;
            case Received::kError:
                PrintEvent(name, "broken");
                return kExitClosed;
        }
    }
}

int HostCommands::RunRequest(const std::string& command, const std::vector<std::string>& args) {
    Request request = BuildRequest(command, args, settings_.device);
    std::unique_ptr<HostLink> link = OpenLink(settings_.device);
    if (link == nullptr) {
        return kExitFailure;
    }
    if (!link->Send(request.msg)) {
        std::fprintf(stderr, "orv-host: cannot send\n");
        return kExitFailure;
    }
    if (request.drop) {
        link->Drop();
        PrintEvent("link", "dropped");
        return kExitOk;
    }
    if (request.noWait) {
        return kExitOk;
    }
    return Await(*link, "link", request.waitType, settings_.timeoutMs);
}

int HostCommands::RunFrame(const std::vector<std::string>& args) {
    long long declare = -1;
    long long send = -1;
    long long garbage = -1;
    for (size_t i = 0; i + 1 < args.size(); i += 2) {
        long long value = Number(args[i + 1], args[i]);
        if (args[i] == "--declare") {
            declare = value;
        } else if (args[i] == "--send") {
            send = value;
        } else if (args[i] == "--garbage") {
            garbage = value;
        } else {
            throw UsageError{"unknown option " + args[i]};
        }
    }
    if (args.size() % 2 != 0 || (declare < 0) == (garbage < 0) || declare > 0xffffffffLL) {
        throw UsageError{"frame takes --declare N [--send K] or --garbage N"};
    }
    std::unique_ptr<HostLink> link = OpenLink(settings_.device);
    if (link == nullptr) {
        return kExitFailure;
    }
    bool sent;
    if (garbage >= 0) {
        std::string bytes(static_cast<size_t>(garbage), '\0');
        std::ifstream random("/dev/urandom", std::ios::binary);
        random.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        // A leading 0xff makes sure it does not parse as an HDCMessage.
        if (!bytes.empty()) {
            bytes[0] = '\xff';
        }
        sent = link->SendFrame(bytes);
    } else {
        uint32_t length = static_cast<uint32_t>(declare);
        std::string header = {static_cast<char>(length >> 24), static_cast<char>(length >> 16),
                              static_cast<char>(length >> 8), static_cast<char>(length)};
        sent = link->SendRaw(header +
                             std::string(static_cast<size_t>(send >= 0 ? send : declare), '\0'));
    }
    if (!sent) {
        PrintEvent("link", "broken");
        return kExitClosed;
    }
    return Await(*link, "link", -1, settings_.timeoutMs);
}

int HostCommands::RunLinks(const std::vector<std::string>& args) {
    if (args.empty()) {
        throw UsageError{"links needs a COUNT"};
    }
    const long long count = Number(args[0], "links");
    std::vector<std::string> options(args.begin() + 1, args.end());
    const long long declare = TakeOption(&options, "--declare", -1);
    const long long send = TakeOption(&options, "--send", 0);
    const long long holdMs = TakeOption(&options, "--hold", 0);
    if (!options.empty() || count < 0 || declare > 0xffffffffLL || send < 0) {
        throw UsageError{"links takes COUNT [--declare N] [--send K] [--hold MS]"};
    }
    std::string begun;
    if (declare >= 0) {
        uint32_t length = static_cast<uint32_t>(declare);
        begun = {static_cast<char>(length >> 24), static_cast<char>(length >> 16),
                 static_cast<char>(length >> 8), static_cast<char>(length)};
        begun += std::string(static_cast<size_t>(send), '\0');
    }
    // A link the daemon closed within this of its opening was refused, not
    // ended at a time-out.
    constexpr auto kRefusedWithin = std::chrono::milliseconds(500);
    using Clock = std::chrono::steady_clock;
    std::vector<emu::UniqueFd> links;
    std::vector<Clock::time_point> opened;
    for (long long i = 0; i < count; ++i) {
        emu::UniqueFd fd = emu::ConnectUnix(SocketFor(settings_.device));
        if (!fd.Valid()) {
            std::fprintf(stderr, "orv-host: link %lld cannot be opened: %s\n", i,
                         std::strerror(errno));
            break;
        }
        if (!begun.empty()) {
            (void)::send(fd.Get(), begun.data(), begun.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        }
        links.push_back(std::move(fd));
        opened.push_back(Clock::now());
    }
    size_t refused = 0;
    size_t ended = 0;
    size_t open = links.size();
    const auto until = Clock::now() + std::chrono::milliseconds(holdMs);
    while (open > 0 && (holdMs == 0 || Clock::now() < until)) {
        std::vector<pollfd> polled;
        for (const emu::UniqueFd& fd : links) {
            polled.push_back(pollfd{fd.Get(), POLLIN, 0});
        }
        if (::poll(polled.data(), polled.size(), 100) <= 0) {
            continue;
        }
        for (size_t i = 0; i < links.size(); ++i) {
            char byte;
            if (links[i].Valid() && polled[i].revents != 0 &&
                ::recv(links[i].Get(), &byte, 1, MSG_DONTWAIT) <= 0) {
                (Clock::now() - opened[i] < kRefusedWithin ? refused : ended) += 1;
                links[i].Reset();
                --open;
            }
        }
    }
    // A hold lasts its time, whatever the daemon ended meanwhile.
    if (holdMs != 0) {
        std::this_thread::sleep_until(until);
    }
    PrintEvent("links", std::to_string(links.size()) + " opened, " + std::to_string(refused) +
                            " refused at once, " + std::to_string(ended) + " ended while held, " +
                            std::to_string(open) + " open at the end");
    return kExitOk;
}

int HostCommands::RunSession(std::istream& script) {
    std::map<std::string, std::unique_ptr<HostLink>> links;
    std::map<std::string, uint32_t> devices;
    int lineNumber = 0;
    for (std::string line; std::getline(script, line);) {
        ++lineNumber;
        std::vector<std::string> words = Words(line.substr(0, line.find('#')));
        if (words.empty()) {
            continue;
        }
        auto fail = [&](const std::string& why) {
            std::fprintf(stderr, "orv-host: line %d (%s): %s\n", lineNumber, line.c_str(),
                         why.c_str());
            return kExitFailure;
        };
        const std::string verb = words[0];
        if (verb == "sleep" && words.size() == 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds(Number(words[1], "sleep")));
            continue;
        }
        if (words.size() < 2) {
            return fail("a step names its link");
        }
        const std::string name = words[1];
        if (verb == "open") {
            uint32_t device =
                static_cast<uint32_t>(TakeOption(&words, "--device", settings_.device));
            std::unique_ptr<HostLink> link = OpenLink(device);
            if (link == nullptr) {
                return fail("cannot open the link");
            }
            links[name] = std::move(link);
            devices[name] = device;
            continue;
        }
        auto found = links.find(name);
        if (found == links.end()) {
            return fail("no link named " + name);
        }
        HostLink& link = *found->second;
        if (verb == "send" && words.size() >= 3) {
            std::vector<std::string> fields(words.begin() + 3, words.end());
            Request request = BuildRequest(words[2], fields, devices[name]);
            if (!link.Send(request.msg)) {
                return fail("cannot send");
            }
        } else if (verb == "expect" && words.size() >= 3) {
            int timeout = static_cast<int>(TakeOption(&words, "--timeout", settings_.timeoutMs));
            long long code = TakeOption(&words, "--code", -1);
            HDCMessage got;
            int type = static_cast<int>(Number(words[2], "expect"));
            if (Await(link, name, type, timeout, &got) != kExitOk) {
                return fail("expected a message of type " + words[2]);
            }
            if (code >= 0 && got.orv_rsp_code() != code) {
                return fail("expected code " + std::to_string(code));
            }
        } else if (verb == "expect-none") {
            int timeout = static_cast<int>(TakeOption(&words, "--timeout", settings_.timeoutMs));
            HDCMessage got;
            Received received = link.Next(&got, std::chrono::milliseconds(timeout));
            if (received == Received::kMessage) {
                PrintMessage(name, got);
                return fail("expected nothing");
            }
            if (received != Received::kTimeout) {
                PrintEvent(name, "closed");
                return fail("expected nothing, but the link closed");
            }
            PrintEvent(name, "no reply");
        } else if (verb == "expect-closed") {
            int timeout = static_cast<int>(TakeOption(&words, "--timeout", settings_.timeoutMs));
            if (Await(link, name, -2, timeout) != kExitClosed) {
                return fail("expected the daemon to close the link");
            }
        } else if (verb == "drop") {
            link.Drop();
            PrintEvent(name, "dropped");
        } else {
            return fail("unknown step");
        }
    }
    return kExitOk;
}

int HostCommands::SendPackage(const std::vector<std::string>& args) {
    if (args.empty()) {
        throw UsageError{"send-package needs a FILE"};
    }
    std::vector<std::string> options(args.begin() + 1, args.end());
    long long vf = TakeOption(&options, "--vf", 0);
    if (!options.empty()) {
        throw UsageError{"send-package takes FILE [--device D] [--vf N] [--trusted-dir DIR], got " +
                         options[0]};
    }
    std::string dir = settings_.trustedDir;
    if (dir.empty()) {
        std::string dev = std::to_string(settings_.device);
        dir = SandboxPath("ORV_TRUSTED_DIR_" + dev, "/home/hdc-trusted/dev" + dev,
                          "--trusted-dir DIR");
    }
    if (vf != 0) {
        dir += "/vfid" + std::to_string(vf);
    }
    const std::string& file = args[0];
    std::ifstream in(file, std::ios::binary);
    if (!in.is_open()) {
        std::fprintf(stderr, "orv-host: cannot read %s\n", file.c_str());
        return kExitFailure;
    }
    std::stringstream content;
    content << in.rdbuf();
    std::string data = content.str();
    std::string target = dir + "/" + file.substr(file.find_last_of('/') + 1);
    // Written under its own name, then closed: the close after writing is
    // what the daemon's watcher reacts to.
    int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::fprintf(stderr, "orv-host: cannot create %s: %s\n", target.c_str(),
                     std::strerror(errno));
        return kExitFailure;
    }
    size_t written = 0;
    while (written < data.size()) {
        ssize_t n = ::write(fd, data.data() + written, data.size() - written);
        if (n <= 0) {
            ::close(fd);
            std::fprintf(stderr, "orv-host: cannot write %s\n", target.c_str());
            return kExitFailure;
        }
        written += static_cast<size_t>(n);
    }
    ::close(fd);
    PrintEvent("package", "delivered " + target + " (" + std::to_string(data.size()) + " bytes)");
    return kExitOk;
}

}  // namespace orv::host
