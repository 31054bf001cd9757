#include "emu/ctl/status_render.h"

#include <time.h>

#include <cstdio>
#include <sstream>

namespace orv::emu {

namespace {

std::string StateName(char state) {
    switch (state) {
        case 'R':
            return "running";
        case 'S':
            return "sleeping";
        case 'D':
            return "waiting (disk)";
        case 'Z':
            return "zombie";
        case 'T':
        case 't':
            return "stopped";
        case 'X':
        case 'x':
            return "dead";
        case 'I':
            return "idle";
        default:
            return std::string(1, state);
    }
}

std::string ClockTime(int64_t ms) {
    time_t seconds = static_cast<time_t>(ms / 1000);
    struct tm local {};
    char text[16] = "?";
    if (::localtime_r(&seconds, &local) != nullptr) {
        ::strftime(text, sizeof(text), "%H:%M:%S", &local);
    }
    return text;
}

// "since 12:03:04 (1m05s)", or empty for an unknown time.
std::string Since(int64_t ms, int64_t now) {
    return ms > 0 ? "since " + ClockTime(ms) + " (" + HumanAge(now - ms) + ")" : std::string();
}

std::string Join(const std::vector<std::string>& items, const char* separator) {
    std::string out;
    for (const std::string& item : items) {
        out += (out.empty() ? "" : separator) + item;
    }
    return out;
}

std::string Quote(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string SubProcessLine(const SubProcessView& sub, int64_t now) {
    char text[256];
    std::snprintf(text, sizeof(text), "%-8s pid %d (outside %d)  %s", sub.kind.c_str(), sub.pid,
                  sub.outerPid, StateName(sub.state).c_str());
    std::string line = text;
    if (sub.orphan) {
        line += ", not the daemon's child";
    }
    std::string since = Since(sub.sinceMs, now);
    return since.empty() ? line : line + "  " + since;
}

std::string SubProcessJson(const SubProcessView& sub) {
    std::ostringstream out;
    out << "{\"kind\":" << Quote(sub.kind) << ",\"pid\":" << sub.pid
        << ",\"outer_pid\":" << sub.outerPid << ",\"state\":" << Quote(std::string(1, sub.state))
        << ",\"state_name\":" << Quote(StateName(sub.state))
        << ",\"daemon_child\":" << (sub.orphan ? "false" : "true")
        << ",\"since_ms\":" << sub.sinceMs << ",\"host_pid\":" << sub.hostPid << "}";
    return out.str();
}

template <typename T, typename Fn>
std::string JsonList(const std::vector<T>& items, Fn each) {
    std::string out = "[";
    for (size_t i = 0; i < items.size(); ++i) {
        out += (i == 0 ? "" : ",") + each(items[i]);
    }
    return out + "]";
}

std::string HostJson(const HostView& host) {
    std::ostringstream out;
    out << "{\"host_pid\":" << host.hostPid
        << ",\"sessions\":" << JsonList(host.sessions, [](uint32_t s) { return std::to_string(s); })
        << ",\"runs\":" << JsonList(host.Runs(), Quote) << ",\"since_ms\":" << host.sinceMs
        << ",\"sub_processes\":" << JsonList(host.subProcesses, SubProcessJson) << "}";
    return out.str();
}

std::string VfJson(const VfView& vf) {
    std::ostringstream out;
    out << "{\"vf\":" << vf.id << ",\"watcher\":" << (vf.watcher ? "true" : "false")
        << ",\"package\":";
    if (vf.package) {
        out << "{\"name\":" << Quote(vf.package->name) << ",\"check_code\":"
            << (vf.package->checkCode ? std::to_string(*vf.package->checkCode)
                                      : std::string("null"))
            << ",\"installed_ms\":" << vf.package->installedMs << "}";
    } else {
        out << "null";
    }
    out << ",\"memory\":";
    if (vf.memory) {
        out << "{\"limit\":" << vf.memory->limit << ",\"usage\":" << vf.memory->usage << "}";
    } else {
        out << "null";
    }
    out << ",\"hosts\":" << JsonList(vf.hosts, HostJson) << "}";
    return out.str();
}

std::string DeviceJson(const DeviceView& device) {
    std::ostringstream out;
    out << "{\"index\":" << device.index << ",\"chip_id\":" << device.chipId << ",\"ctrl_cpus\":"
        << JsonList(device.ctrlCpus, [](uint32_t cpu) { return std::to_string(cpu); })
        << ",\"anonymous_links\":" << device.anonymousLinks
        << ",\"vfs\":" << JsonList(device.vfs, VfJson) << "}";
    return out.str();
}

}  // namespace

std::string HumanBytes(uint64_t bytes) {
    static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    double value = static_cast<double>(bytes);
    int unit = -1;
    while (value >= 1024 && unit < 3) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof(text), value < 10 ? "%.1f %s" : "%.0f %s", value, kUnits[unit]);
    return text;
}

std::string HumanAge(int64_t ms) {
    int64_t s = ms < 0 ? 0 : ms / 1000;
    char text[32];
    if (s < 60) {
        std::snprintf(text, sizeof(text), "%llds", static_cast<long long>(s));
    } else if (s < 3600) {
        std::snprintf(text, sizeof(text), "%lldm%02llds", static_cast<long long>(s / 60),
                      static_cast<long long>(s % 60));
    } else if (s < 86400) {
        std::snprintf(text, sizeof(text), "%lldh%02lldm", static_cast<long long>(s / 3600),
                      static_cast<long long>(s / 60 % 60));
    } else {
        std::snprintf(text, sizeof(text), "%lldd%02lldh", static_cast<long long>(s / 86400),
                      static_cast<long long>(s / 3600 % 24));
    }
    return text;
}

std::string RenderStatusTree(const CardView& view) {
    std::ostringstream out;
    if (!view.error.empty()) {
        out << "card " << view.stateDir << ": " << view.error << "\n";
        return out.str();
    }
    out << "card " << view.stateDir << ": " << view.devices.size()
        << (view.devices.size() == 1 ? " device" : " devices") << ", chip type " << view.chipType;
    if (view.daemonPid > 0) {
        out << ", daemon pid " << view.daemonPid << " (outside " << view.daemonOuterPid << ") "
            << Since(view.daemonSinceMs, view.timeMs) << "\n";
    } else {
        out << ", no daemon running\n";
    }
    for (size_t d = 0; d < view.devices.size(); ++d) {
        const DeviceView& device = view.devices[d];
        bool lastDevice = d + 1 == view.devices.size();
        std::vector<std::string> cpus;
        for (uint32_t cpu : device.ctrlCpus) {
            cpus.push_back(std::to_string(cpu));
        }
        out << (lastDevice ? "└── " : "├── ") << "device " << device.index << " (chip "
            << device.chipId << "), control CPUs "
            << (cpus.empty() ? std::string("none") : Join(cpus, ","));
        if (device.anonymousLinks > 0) {
            out << ", " << device.anonymousLinks << " HDC link(s) without a request yet";
        }
        out << "\n";
        std::string devicePad = lastDevice ? "    " : "│   ";
        for (size_t v = 0; v < device.vfs.size(); ++v) {
            const VfView& vf = device.vfs[v];
            bool lastVf = v + 1 == device.vfs.size();
            out << devicePad << (lastVf ? "└── " : "├── ") << "VF " << vf.id << ": watcher "
                << (vf.watcher ? "yes" : "no") << ", ";
            if (vf.package) {
                out << "package " << vf.package->name << " (check code "
                    << (vf.package->checkCode ? std::to_string(*vf.package->checkCode)
                                              : std::string("unknown"))
                    << ", installed " << ClockTime(vf.package->installedMs) << ")";
            } else {
                out << "no package";
            }
            if (vf.memory) {
                out << ", memory " << HumanBytes(vf.memory->usage) << " used of "
                    << HumanBytes(vf.memory->limit);
            }
            out << "\n";
            std::string vfPad = devicePad + (lastVf ? "    " : "│   ");
            for (size_t h = 0; h < vf.hosts.size(); ++h) {
                const HostView& host = vf.hosts[h];
                bool lastHost = h + 1 == vf.hosts.size();
                std::vector<std::string> sessions;
                for (uint32_t session : host.sessions) {
                    sessions.push_back(std::to_string(session));
                }
                std::vector<std::string> runs = host.Runs();
                out << vfPad << (lastHost ? "└── " : "├── ") << "host " << host.hostPid
                    << ": HDC session "
                    << (sessions.empty() ? std::string("none") : Join(sessions, ",")) << ", runs "
                    << (runs.empty() ? std::string("nothing") : Join(runs, ", "));
                std::string since = Since(host.sinceMs, view.timeMs);
                out << (since.empty() ? "" : ", ") << since << "\n";
                std::string hostPad = vfPad + (lastHost ? "    " : "│   ");
                for (size_t s = 0; s < host.subProcesses.size(); ++s) {
                    out << hostPad << (s + 1 == host.subProcesses.size() ? "└── " : "├── ")
                        << SubProcessLine(host.subProcesses[s], view.timeMs) << "\n";
                }
            }
        }
    }
    if (!view.unplaced.empty()) {
        out << "sub-processes of no device or VF above:\n";
        for (const SubProcessView& sub : view.unplaced) {
            out << "    " << SubProcessLine(sub, view.timeMs) << ", host " << sub.hostPid << "\n";
        }
    }
    return out.str();
}

std::string RenderStatusJson(const CardView& view) {
    std::ostringstream out;
    out << "{\"state_dir\":" << Quote(view.stateDir) << ",\"time_ms\":" << view.timeMs;
    if (!view.error.empty()) {
        out << ",\"error\":" << Quote(view.error) << "}\n";
        return out.str();
    }
    out << ",\"sandbox_pid\":" << view.sandboxPid << ",\"chip_type\":" << view.chipType
        << ",\"daemon\":";
    if (view.daemonPid > 0) {
        out << "{\"pid\":" << view.daemonPid << ",\"outer_pid\":" << view.daemonOuterPid
            << ",\"since_ms\":" << view.daemonSinceMs << "}";
    } else {
        out << "null";
    }
    out << ",\"devices\":" << JsonList(view.devices, DeviceJson);
    out << ",\"unplaced_sub_processes\":" << JsonList(view.unplaced, SubProcessJson) << "}\n";
    return out.str();
}

}  // namespace orv::emu
