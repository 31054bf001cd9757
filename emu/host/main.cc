// orv-host: plays a host framework process against the daemon on the emulated
// card. It sends any request with any field values, waits for and prints the
// replies, runs the version handshake, drops links on purpose, feeds the
// transport malformed frames, and delivers kernel packages.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "emu/host/host_link.h"
#include "orv_version.h"

namespace {

using orv::HDCMessage;
using orv::host::HostLink;
using orv::host::Received;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoReply = 3;
constexpr int kExitClosed = 4;

const char kUsage[] =
    "Usage: orv-host [--state DIR | --socket PATH] [--device D] [--json] [--timeout MS] COMMAND [ARGS]\n"
    "\n"
    "The options above may also follow the command. Without --state or --socket, the device's socket\n"
    "and trusted directory come from ORV_HDC_SOCKET_<D> and ORV_TRUSTED_DIR_<D> in the environment\n"
    "(the names of DIR/sandbox.env), or, inside the sandbox, from where the sandbox lays them out.\n"
    "\n"
    "Requests (each on a link of its own; the matching reply is awaited and printed):\n"
    "  test                        link test with this host's version information (32, answered by 33)\n"
    "  start [FIELDS]              start sub-processes (6, answered by 8)\n"
    "  start-qs [FIELDS]           start the queue scheduler (37, answered by 8)\n"
    "  close [FIELDS]              close them (7, answered by 9)\n"
    "  profiling [FIELDS]          change the profiling mode (30, answered by 31)\n"
    "  check-package [FIELDS]      ask for the installed package's check code (35, answered by 36)\n"
    "  send --type N [FIELDS]      a message of any type; prints whatever comes back\n"
    "Malformed input:\n"
    "  frame --declare N [--send K]  a frame header announcing N bytes, then K bytes (default N) of zeros\n"
    "  frame --garbage N             a frame of N random bytes\n"
    "Several links:\n"
    "  session [FILE]              run the steps of FILE (or standard input), one per line:\n"
    "                                open NAME [--device D]\n"
    "                                send NAME REQUEST [FIELDS]     (REQUEST: a request above, or a type number)\n"
    "                                expect NAME TYPE [--code C] [--timeout MS]\n"
    "                                expect-none NAME [--timeout MS]\n"
    "                                expect-closed NAME [--timeout MS]\n"
    "                                drop NAME\n"
    "                                sleep MS\n"
    "Packages:\n"
    "  send-package FILE [--device D] [--vf N] [--trusted-dir DIR]\n"
    "                              write FILE into the device's (or VF N's) trusted directory under its own\n"
    "                              name, then close it, as the host framework does\n"
    "\n"
    "FIELDS: --pid N --sign TEXT --device-id N --real-device N --vf N --rank-size N --profiling N\n"
    "        --zarn --cp --check-code N --log-level TEXT --device-mode N --group NAME\n"
    "        Values go out as given, out-of-range ones included; --device-id defaults to --device.\n"
    "Waiting: --wait TYPE waits for that type instead; --no-wait only sends; --drop drops the link right\n"
    "        after sending.\n"
    "Exit status: 0 a reply came (or the request went out, with --no-wait or --drop); 3 no reply in time;\n"
    "        4 the daemon closed the link first; 1 other failures; 2 bad usage.\n";

struct Settings {
    std::string stateDir;
    std::string socket;
    std::string trustedDir;
    uint32_t device = 0;
    bool json = false;
    int timeoutMs = 5000;
};

struct UsageError {
    std::string what;
};

Settings g_settings;

long long Number(const std::string& text, const std::string& what) {
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0) {
        throw UsageError{what + " takes a number, got '" + text + "'"};
    }
    return value;
}

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

// A path that sandbox.env names: from the --state directory's file when one
// was given, else from this process's environment, else (run inside the
// sandbox) the path as the sandbox lays it out, `inside`.
std::string SandboxPath(const std::string& name, const std::string& inside, const std::string& option) {
    if (g_settings.stateDir.empty()) {
        const char* value = std::getenv(name.c_str());
        if (value != nullptr && *value != '\0') {
            return value;
        }
        if (::access(inside.c_str(), F_OK) == 0) {
            return inside;
        }
        throw UsageError{"give --state DIR or " + option + ", or set " + name};
    }
    std::map<std::string, std::string> env = ReadEnvFile(g_settings.stateDir);
    auto it = env.find(name);
    return it != env.end() ? it->second : g_settings.stateDir + inside;
}

std::string SocketFor(uint32_t device) {
    if (!g_settings.socket.empty()) {
        return g_settings.socket;
    }
    std::string dev = std::to_string(device);
    return SandboxPath("ORV_HDC_SOCKET_" + dev, "/run/orv-hdc/dev" + dev + ".sock", "--socket PATH");
}

// A request and how to wait for its answer.
struct Request {
    HDCMessage msg;
    int waitType = -1;  // -1: any message
    bool noWait = false;
    bool drop = false;
};

int ResponseTypeOf(HDCMessage::MsgType type) {
    switch (type) {
        case HDCMessage::TEST_HDC_SEND:
            return HDCMessage::TEST_HDC_RSP;
        case HDCMessage::ORV_START_PROC_MSG:
        case HDCMessage::ORV_START_QS_MSG:
            return HDCMessage::ORV_START_PROC_RSP;
        case HDCMessage::ORV_CLOSE_PROC_MSG:
            return HDCMessage::ORV_CLOSE_PROC_RSP;
        case HDCMessage::ORV_UPDATE_PROIFILING_MSG:
            return HDCMessage::ORV_UPDATE_PROIFILING_RSP;
        case HDCMessage::ORV_CHECK_PACKAGE:
            return HDCMessage::ORV_CHECK_PACKAGE_RSP;
        default:
            return -1;
    }
}

// Builds a request from its name and its FIELDS.
Request BuildRequest(const std::string& command, const std::vector<std::string>& args, uint32_t device) {
    Request request;
    HDCMessage& msg = request.msg;
    static const std::map<std::string, HDCMessage::MsgType> kTypes = {
        {"test", HDCMessage::TEST_HDC_SEND},         {"start", HDCMessage::ORV_START_PROC_MSG},
        {"start-qs", HDCMessage::ORV_START_QS_MSG},   {"close", HDCMessage::ORV_CLOSE_PROC_MSG},
        {"profiling", HDCMessage::ORV_UPDATE_PROIFILING_MSG}, {"check-package", HDCMessage::ORV_CHECK_PACKAGE},
    };
    auto known = kTypes.find(command);
    bool typeGiven = false;
    if (known != kTypes.end()) {
        msg.set_type(known->second);
        typeGiven = true;
    } else if (command != "send") {
        msg.set_type(static_cast<HDCMessage::MsgType>(Number(command, "a request")));
        typeGiven = true;
    }
    msg.set_device_id(device);
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> const std::string& {
            if (i + 1 >= args.size()) {
                throw UsageError{arg + " needs a value"};
            }
            return args[++i];
        };
        if (arg == "--type") {
            msg.set_type(static_cast<HDCMessage::MsgType>(Number(value(), arg)));
            typeGiven = true;
        } else if (arg == "--pid") {
            msg.mutable_proc_sign_pid()->set_proc_pid(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--sign") {
            msg.mutable_proc_sign_pid()->set_proc_sign(value());
        } else if (arg == "--device-id") {
            msg.set_device_id(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--real-device") {
            msg.set_real_device_id(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--vf") {
            msg.set_vf_id(static_cast<int32_t>(Number(value(), arg)));
        } else if (arg == "--rank-size") {
            msg.set_rank_size(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--profiling" || arg == "--mode") {
            msg.set_profiling_mode(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--zarn") {
            msg.set_start_zarn(true);
        } else if (arg == "--cp") {
            msg.set_start_cp(true);
        } else if (arg == "--check-code") {
            msg.set_check_code(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--log-level") {
            msg.mutable_log_level()->set_log_level(value());
        } else if (arg == "--device-mode") {
            msg.set_device_mode(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--group") {
            msg.mutable_qs_init_group_name()->set_qs_init_group_name(value());
        } else if (arg == "--wait") {
            request.waitType = static_cast<int>(Number(value(), arg));
        } else if (arg == "--no-wait") {
            request.noWait = true;
        } else if (arg == "--drop") {
            request.drop = true;
        } else {
            throw UsageError{"unknown field " + arg};
        }
    }
    if (!typeGiven) {
        throw UsageError{"send needs --type N"};
    }
    if (msg.type() == HDCMessage::TEST_HDC_SEND) {
        orv::host::SetHostVersionInfo(&msg);
    }
    if (request.waitType < 0) {
        request.waitType = ResponseTypeOf(msg.type());
    }
    return request;
}

void PrintMessage(const std::string& link, const HDCMessage& msg) {
    if (g_settings.json) {
        std::printf("{\"link\":\"%s\",\"event\":\"message\",\"type\":%d,\"message\":%s}\n", link.c_str(),
                    static_cast<int>(msg.type()), orv::host::ToJson(msg).c_str());
    } else {
        std::printf("[%s] %s\n", link.c_str(), orv::host::Describe(msg).c_str());
    }
    std::fflush(stdout);
}

void PrintEvent(const std::string& link, const std::string& event) {
    if (g_settings.json) {
        std::printf("{\"link\":\"%s\",\"event\":\"%s\"}\n", link.c_str(), event.c_str());
    } else {
        std::printf("[%s] %s\n", link.c_str(), event.c_str());
    }
    std::fflush(stdout);
}

// Waits for a message of `type` (-1: any), printing every message that comes.
int Await(HostLink& link, const std::string& name, int type, int timeoutMs, HDCMessage* got = nullptr) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
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

std::unique_ptr<HostLink> OpenLink(uint32_t device) {
    std::string error;
    std::unique_ptr<HostLink> link = HostLink::Connect(SocketFor(device), &error);
    if (link == nullptr) {
        std::fprintf(stderr, "orv-host: %s\n", error.c_str());
    }
    return link;
}

int RunRequest(const std::string& command, const std::vector<std::string>& args) {
    Request request = BuildRequest(command, args, g_settings.device);
    std::unique_ptr<HostLink> link = OpenLink(g_settings.device);
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
    return Await(*link, "link", request.waitType, g_settings.timeoutMs);
}

int RunFrame(const std::vector<std::string>& args) {
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
    std::unique_ptr<HostLink> link = OpenLink(g_settings.device);
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
        sent = link->SendRaw(header + std::string(static_cast<size_t>(send >= 0 ? send : declare), '\0'));
    }
    if (!sent) {
        PrintEvent("link", "broken");
        return kExitClosed;
    }
    return Await(*link, "link", -1, g_settings.timeoutMs);
}

std::vector<std::string> Words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

// Takes "--name VALUE" out of `words`; `fallback` when absent.
long long TakeOption(std::vector<std::string>* words, const std::string& name, long long fallback) {
    for (size_t i = 0; i + 1 < words->size(); ++i) {
        if ((*words)[i] == name) {
            long long value = Number((*words)[i + 1], name);
            words->erase(words->begin() + static_cast<long>(i), words->begin() + static_cast<long>(i) + 2);
            return value;
        }
    }
    return fallback;
}

int RunSession(std::istream& script) {
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
            std::fprintf(stderr, "orv-host: line %d (%s): %s\n", lineNumber, line.c_str(), why.c_str());
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
            uint32_t device = static_cast<uint32_t>(TakeOption(&words, "--device", g_settings.device));
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
            int timeout = static_cast<int>(TakeOption(&words, "--timeout", g_settings.timeoutMs));
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
            int timeout = static_cast<int>(TakeOption(&words, "--timeout", g_settings.timeoutMs));
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
            int timeout = static_cast<int>(TakeOption(&words, "--timeout", g_settings.timeoutMs));
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

int SendPackage(const std::vector<std::string>& args) {
    if (args.empty()) {
        throw UsageError{"send-package needs a FILE"};
    }
    std::vector<std::string> options(args.begin() + 1, args.end());
    long long vf = TakeOption(&options, "--vf", 0);
    if (!options.empty()) {
        throw UsageError{"send-package takes FILE [--device D] [--vf N] [--trusted-dir DIR], got " + options[0]};
    }
    std::string dir = g_settings.trustedDir;
    if (dir.empty()) {
        std::string dev = std::to_string(g_settings.device);
        dir = SandboxPath("ORV_TRUSTED_DIR_" + dev, "/home/hdc-trusted/dev" + dev, "--trusted-dir DIR");
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
        std::fprintf(stderr, "orv-host: cannot create %s: %s\n", target.c_str(), std::strerror(errno));
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

}  // namespace

int main(int argc, char** argv) {
    try {
        // The link options may stand before or after the command; what is
        // left is the command and its own arguments.
        std::vector<std::string> args;
        for (int i = 1; i < argc; ++i) {
            const std::string arg = argv[i];
            bool hasValue = i + 1 < argc;
            if (arg == "--state" && hasValue) {
                g_settings.stateDir = argv[++i];
            } else if (arg == "--socket" && hasValue) {
                g_settings.socket = argv[++i];
            } else if (arg == "--trusted-dir" && hasValue) {
                g_settings.trustedDir = argv[++i];
            } else if (arg == "--device" && hasValue) {
                g_settings.device = static_cast<uint32_t>(Number(argv[++i], arg));
            } else if (arg == "--timeout" && hasValue) {
                g_settings.timeoutMs = static_cast<int>(Number(argv[++i], arg));
            } else if (arg == "--json") {
                g_settings.json = true;
            } else if (arg == "--help" || arg == "-h") {
                std::fputs(kUsage, stdout);
                return kExitOk;
            } else if (arg == "--version") {
                std::printf("orv-host %s\n", ORV_VERSION);
                return kExitOk;
            } else {
                args.push_back(arg);
            }
        }
        if (args.empty()) {
            throw UsageError{"no command"};
        }
        const std::string command = args[0];
        std::vector<std::string> rest(args.begin() + 1, args.end());
        if (command == "frame") {
            return RunFrame(rest);
        }
        if (command == "session") {
            if (rest.empty() || rest[0] == "-") {
                return RunSession(std::cin);
            }
            std::ifstream script(rest[0]);
            if (!script.is_open()) {
                std::fprintf(stderr, "orv-host: cannot read %s\n", rest[0].c_str());
                return kExitFailure;
            }
            return RunSession(script);
        }
        if (command == "send-package") {
            return SendPackage(rest);
        }
        return RunRequest(command, rest);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "orv-host: %s\n\n%s", error.what.c_str(), kUsage);
        return kExitUsage;
    }
}
