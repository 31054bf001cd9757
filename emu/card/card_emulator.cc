#include "emu/card/card_emulator.h"

#include <errno.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>

#include <cstring>

#include <driver_hal.h>
#include "emu/card/emu_log.h"
#include "emu/common/emu_paths.h"
#include "emu/common/socket_io.h"
#include "platform/orv_limits.h"

namespace orv::emu {

namespace {

constexpr size_t kDriverSpares = 8;

// The card's sockets serve any process of the card, a hostile one included:
// none may take every connection, and a refusal says whose it was.
ConnectionLimits CardSocketLimits(const char* socket, size_t total, size_t perPeer,
                                  size_t reserved) {
    ConnectionLimits limits;
    limits.total = total;
    limits.perPeer = perPeer;
    limits.reservedForNewPeers = reserved;
    limits.refused = [socket](pid_t peer, const std::string& why) {
        EmuLog("%s socket: connection of pid %d refused: %s", socket, static_cast<int>(peer),
               why.c_str());
    };
    return limits;
}

CardReply TextReply(int32_t code, const std::string& text) {
    CardReply reply;
    reply.set_code(code);
    reply.set_text(text);
    return reply;
}

// The card's driver does a call's work on the calling thread's CPU; the
// thread serving a process's calls here runs where that process may run, so
// that handing an event from one of the card's processes to another wakes no
// other CPU than the card would. The process may bind itself after it
// connected (the daemon binds to its control CPUs once its first driver calls
// are done, and keeps those connections), so each call looks again; the
// thread moves only when the process's CPUs changed. It stays where it is when
// the connection ends: its next connection moves it if need be.
class CallersCpus {
  public:
    void Follow(pid_t caller) {
        cpu_set_t cpus;
        if (caller <= 0 || ::sched_getaffinity(caller, sizeof(cpus), &cpus) != 0 ||
            (known_ && CPU_EQUAL(&cpus, &current_))) {
            return;
        }
        if (::sched_setaffinity(0, sizeof(cpus), &cpus) == 0) {
            current_ = cpus;
            known_ = true;
        }
    }

  private:
    cpu_set_t current_;
    bool known_ = false;
};

}  // namespace

CardEmulator::CardEmulator(CardConfig config) : config_(std::move(config)) {}

CardEmulator::~CardEmulator() {
    Stop();
}

bool CardEmulator::Start(const CardSockets& sockets, std::string* error) {
    runDir_ = sockets.control.substr(0, sockets.control.find_last_of('/'));
    standins_.PublishTo(StandinBoardOfDriverSocket(sockets.driver));
    // A starting sub-process opens a few connections at once (its event
    // loops and its main thread), and a session starts two or more of them:
    // as many threads wait for them, so that neither a start nor the close
    // that ends those connections creates or ends a thread of the card.
    driverServer_ = std::make_unique<UnixServer>(
        sockets.driver, [this](int fd, pid_t peer) { ServeFrames(fd, peer, false); },
        CardSocketLimits("driver", limits::kMaxDriverConnections,
                         limits::kMaxDriverConnectionsPerPeer,
                         limits::kDriverConnectionsReservedForNewPeers),
        kDriverSpares);
    controlServer_ = std::make_unique<UnixServer>(
        sockets.control, [this](int fd, pid_t peer) { ServeFrames(fd, peer, true); },
        CardSocketLimits("control", limits::kMaxCardServiceConnections,
                         limits::kMaxCardServiceConnectionsPerPeer, 0));
    appmonServer_ = std::make_unique<UnixServer>(
        sockets.appmon, [this](int fd, pid_t peer) { appMonitor_.Serve(fd, peer); },
        CardSocketLimits("app monitor", limits::kMaxCardServiceConnections,
                         limits::kMaxCardServiceConnectionsPerPeer, 0));
    for (UnixServer* server : {driverServer_.get(), controlServer_.get(), appmonServer_.get()}) {
        if (!server->Start()) {
            *error = "cannot listen on " + server->Path() + ": " + std::strerror(errno);
            return false;
        }
    }
    appMonitor_.Start();
    scheduler_.Start();
    EmuLog("card up: %zu device(s), chip type %d", config_.devices.size(), config_.chipType);
    return true;
}

void CardEmulator::Stop() {
    appMonitor_.Stop();
    // Waits end first, so that the servers' connection threads can be joined.
    scheduler_.Stop();
    for (auto* server : {&appmonServer_, &controlServer_, &driverServer_}) {
        if (*server) {
            (*server)->Stop();
        }
    }
}

void CardEmulator::ServeFrames(int fd, pid_t peer, bool control) {
    CallersCpus cpus;
    FrameLimits frames;
    frames.maxLength = limits::kMaxCardRequestBytes;
    frames.startBy = Clock::now() + limits::kFirstFrameTimeout;
    frames.wholeWithin = limits::kPartialFrameTimeout;
    std::string payload;
    for (;;) {
        FrameStatus status = ReadFrame(fd, &payload, frames);
        if (status != FrameStatus::kOk) {
            if (status == FrameStatus::kSilent || status == FrameStatus::kStalled) {
                EmuLog("%s connection of pid %d ended: %s", control ? "control" : "driver",
                       static_cast<int>(peer),
                       status == FrameStatus::kSilent ? "it sent nothing in time"
                                                      : "it left a request half sent");
            }
            return;
        }
        // Kept connections wait as long as their process likes between calls.
        frames.startBy = kNoDeadline;
        if (!control) {
            cpus.Follow(peer);
        }
        CardRequest request;
        CardReply reply;
        if (!request.ParseFromString(payload)) {
            reply.set_code(DRV_ERROR_INVALID_VALUE);
        } else if (control) {
            reply = Control(request);
        } else if (!IsDriverSocketRequest(request) || peer <= 0) {
            // A caller the emulator cannot name (outside its PID namespace)
            // would pass for the driver itself as the sender of its events.
            reply.set_code(DRV_ERROR_NO_PERMISSION);
        } else {
            reply = driver_.Handle(peer, request);
        }
        if (payload.capacity() > limits::kSmallFrameBytes) {
            // A big request's room is not kept while the connection waits.
            std::string().swap(payload);
        }
        std::string answer;
        if (!reply.SerializeToString(&answer) || !WriteFrame(fd, answer)) {
            return;
        }
    }
}

std::string CardEmulator::Status() const {
    CardStatus status;
    status.set_chip_type(config_.chipType);
    for (uint32_t index = 0; index < config_.devices.size(); ++index) {
        CardStatus::Device* device = status.add_devices();
        device->set_index(index);
        device->set_chip_id(config_.devices[index].chipId);
        for (uint32_t cpu : config_.ControlCpus(index)) {
            device->add_ctrl_cpus(cpu);
        }
    }
    for (const VerifyLog::Entry& entry : verified_.Entries()) {
        CardStatus::VerifiedPackage* package = status.add_verified();
        package->set_path(entry.path);
        package->set_size(entry.size);
        package->set_time_ms(entry.timeMs);
    }
    return status.SerializeAsString();
}

CardReply CardEmulator::Control(const CardRequest& request) {
    switch (request.call_case()) {
        case CardRequest::kInjectFault: {
            const InjectFault& fault = request.inject_fault();
            if (!IsFaultableCall(fault.call())) {
                return TextReply(DRV_ERROR_INVALID_VALUE, "unknown call '" + fault.call() + "'\n");
            }
            faults_.Inject(fault.call(), fault.code(), fault.count());
            EmuLog("fault: next %u call(s) of %s return %d", fault.count(), fault.call().c_str(),
                   fault.code());
            return TextReply(DRV_ERROR_NONE, faults_.Describe());
        }
        case CardRequest::kInjectDelay: {
            const InjectDelay& delay = request.inject_delay();
            if (!IsDriverCall(delay.call())) {
                return TextReply(DRV_ERROR_INVALID_VALUE, "unknown call '" + delay.call() + "'\n");
            }
            faults_.InjectDelay(delay.call(), delay.delay_ms(), delay.count());
            EmuLog("delay: next %u call(s) of %s answer %u ms late", delay.count(),
                   delay.call().c_str(), delay.delay_ms());
            return TextReply(DRV_ERROR_NONE, faults_.Describe());
        }
        case CardRequest::kClearFaults:
            faults_.Clear();
            return TextReply(DRV_ERROR_NONE, "");
        case CardRequest::kListFaults:
            return TextReply(DRV_ERROR_NONE, faults_.Describe());
        case CardRequest::kShowDevices:
            return TextReply(DRV_ERROR_NONE, config_.Describe());
        case CardRequest::kShowGroups:
            return TextReply(DRV_ERROR_NONE, groups_.Describe());
        case CardRequest::kShowAppmon:
            return TextReply(DRV_ERROR_NONE, appMonitor_.Describe());
        case CardRequest::kShowProcesses:
            return TextReply(DRV_ERROR_NONE, processes_.Describe());
        case CardRequest::kShowEvents:
            return TextReply(DRV_ERROR_NONE, scheduler_.DescribeEvents());
        case CardRequest::kShowStandins:
            return TextReply(DRV_ERROR_NONE, standins_.Describe());
        case CardRequest::kShowStatus: {
            CardReply reply;
            reply.set_code(DRV_ERROR_NONE);
            reply.set_data(Status());
            return reply;
        }
        case CardRequest::kSetStandin: {
            const SetStandin& set = request.set_standin();
            if (!standins_.Set(set.kind(), set.behaviour(), set.delay_ms())) {
                return TextReply(DRV_ERROR_INVALID_VALUE, "unknown stand-in kind or behaviour\n");
            }
            return TextReply(DRV_ERROR_NONE, standins_.Describe());
        }
        case CardRequest::kVfScriptFaults: {
            const VfScriptFaults& faults = request.vf_script_faults();
            for (const auto& [name, fail] :
                 {std::pair<const char*, bool>{"/fail_create_vf", faults.fail_create()},
                  {"/fail_destroy_vf", faults.fail_destroy()}}) {
                std::string marker = runDir_ + name;
                if (fail) {
                    std::fclose(std::fopen(marker.c_str(), "w"));
                } else {
                    ::unlink(marker.c_str());
                }
            }
            return TextReply(DRV_ERROR_NONE, "");
        }
        case CardRequest::kGroupSetup: {
            const GroupSetup& setup = request.group_setup();
            int32_t rc = DRV_ERROR_NONE;
            if (setup.create()) {
                rc = setup.tenant()
                         ? groups_.Create(0, setup.name(), 0, setup.device_id(), setup.vf_id())
                         : groups_.Create(0, setup.name(), 0);
            }
            if (rc == DRV_ERROR_NONE && setup.add_pid() != 0) {
                rc = groups_.AddProc(setup.name(), setup.add_pid(),
                                     setup.permissions() != 0 ? setup.permissions()
                                                              : GRP_PERM_READ | GRP_PERM_WRITE);
            }
            return TextReply(rc, rc == DRV_ERROR_NONE ? groups_.Describe() : "refused\n");
        }
        case CardRequest::kInjectEvent: {
            int32_t rc = scheduler_.Inject(request.inject_event());
            return TextReply(rc, rc == DRV_ERROR_NONE ? "" : "refused\n");
        }
        case CardRequest::kVfChange: {
            int32_t ack = 0;
            int32_t rc = scheduler_.ChangeVf(request.vf_change(), &ack);
            CardReply reply;
            reply.set_code(rc);
            reply.set_value(ack);
            if (rc == DRV_ERROR_NONE) {
                reply.set_text(std::to_string(ack) + "\n");
            } else if (rc == DRV_ERROR_WAIT_TIMEOUT) {
                reply.set_text("no acknowledgement\n");
            } else {
                reply.set_text("no VF management client\n");
            }
            return reply;
        }
        default:
            return TextReply(DRV_ERROR_NO_PERMISSION, "not a control request\n");
    }
}

}  // namespace orv::emu
