#include "emu/card/app_monitor.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "emu/appmon/appmon_protocol.h"
#include "emu/card/emu_log.h"

namespace orv::emu {

namespace {

// Clients that closed are kept for inspection, up to this many.
constexpr size_t kMaxClosedClients = 64;
constexpr auto kSupervisePeriod = std::chrono::milliseconds(100);

const char* StateName(int state) {
    static const char* const kNames[] = {"connected", "registered", "deregistered", "expired",
                                         "closed"};
    return kNames[state];
}

std::string ErrorAnswer(int32_t code) {
    return std::string(kAppmonErr) + " " + std::to_string(code);
}

// Whether a client silent for `silent` has outlived its time-out. A time-out
// longer than the clock can count (a client's "forever") never passes, where
// converting it would wrap to a negative one that passes at once.
bool Overdue(AppMonitor::Clock::duration silent, uint64_t timeoutMs) {
    constexpr uint64_t kLongestMs = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(AppMonitor::Clock::duration::max())
            .count());
    return timeoutMs <= kLongestMs &&
           silent > std::chrono::milliseconds(static_cast<int64_t>(timeoutMs));
}

}  // namespace

AppMonitor::AppMonitor(FaultTable* faults, std::function<Clock::time_point()> now)
    : faults_(faults), now_(std::move(now)) {}

AppMonitor::~AppMonitor() {
    Stop();
}

void AppMonitor::Start() {
    running_.store(true);
    superviseThread_ = std::thread([this] { SuperviseLoop(); });
}

void AppMonitor::Stop() {
    {
        MutexLock lock(&mutex_);
        stopRequested_ = true;
    }
    stopCond_.SignalAll();
    if (superviseThread_.joinable()) {
        superviseThread_.join();
    }
    running_.store(false);
}

AppMonitor::Client* AppMonitor::FindClient(uint64_t id) {
    for (Client& client : clients_) {
        if (client.id == id) {
            return &client;
        }
    }
    return nullptr;
}

void AppMonitor::Serve(int fd, pid_t peer) {
    uint64_t id;
    {
        MutexLock lock(&mutex_);
        id = nextId_++;
        Client client;
        client.id = id;
        client.pid = peer;
        client.lastBeat = now_();
        clients_.push_back(client);
    }
    std::string line;
    while (ReadLine(fd, &line)) {
        if (!WriteLine(fd, HandleLine(id, line))) {
            break;
        }
    }
    MutexLock lock(&mutex_);
    if (Client* client = FindClient(id); client != nullptr && client->state != State::kRegistered) {
        // A registered client that vanished is still supervised: its beats stopped.
        client->state = client->state == State::kExpired ? State::kExpired : State::kClosed;
    }
    size_t closed = 0;
    for (const Client& client : clients_) {
        closed += client.state == State::kClosed ? 1 : 0;
    }
    for (auto it = clients_.begin(); it != clients_.end() && closed > kMaxClosedClients;) {
        if (it->state == State::kClosed) {
            it = clients_.erase(it);
            --closed;
        } else {
            ++it;
        }
    }
}

std::string AppMonitor::HandleLine(uint64_t id, const std::string& line) {
    std::string verb = line.substr(0, line.find(' '));
    std::string rest = line.size() > verb.size() ? line.substr(verb.size() + 1) : std::string();
    int32_t code = 0;
    if (verb == kAppmonHello) {
        return faults_->Take("appmon_client_init", &code) ? ErrorAnswer(code) : kAppmonOk;
    }
    if (verb == kAppmonRegister) {
        if (faults_->Take("appmon_client_register", &code)) {
            return ErrorAnswer(code);
        }
        std::istringstream fields(rest);
        uint64_t timeoutMs = 0;
        std::string command;
        if (!(fields >> timeoutMs) || timeoutMs == 0) {
            return ErrorAnswer(22);
        }
        std::getline(fields >> std::ws, command);
        MutexLock lock(&mutex_);
        Client* client = FindClient(id);
        client->state = State::kRegistered;
        client->timeoutMs = timeoutMs;
        client->command = command;
        client->lastBeat = now_();
        EmuLog("appmon: pid %d registered, time-out %llu ms, command '%s'", client->pid,
               static_cast<unsigned long long>(timeoutMs), command.c_str());
        return kAppmonOk;
    }
    if (verb == kAppmonHeartbeat) {
        if (faults_->Take("appmon_client_heartbeat", &code)) {
            return ErrorAnswer(code);
        }
        MutexLock lock(&mutex_);
        Client* client = FindClient(id);
        if (client->state != State::kRegistered) {
            return ErrorAnswer(1);
        }
        client->lastBeat = now_();
        ++client->heartbeats;
        return kAppmonOk;
    }
    if (verb == kAppmonDeregister) {
        if (faults_->Take("appmon_client_deregister", &code)) {
            return ErrorAnswer(code);
        }
        MutexLock lock(&mutex_);
        Client* client = FindClient(id);
        if (client->state != State::kRegistered) {
            return ErrorAnswer(1);
        }
        client->state = State::kDeregistered;
        client->deregisterReason = rest;
        EmuLog("appmon: pid %d deregistered: %s", client->pid, rest.c_str());
        return kAppmonOk;
    }
    return ErrorAnswer(22);
}

void AppMonitor::SuperviseLoop() {
    MutexLock lock(&mutex_);
    while (!stopRequested_) {
        stopCond_.WaitUntil(Clock::now() + kSupervisePeriod);
        ExpireSilentClients();
    }
}

void AppMonitor::Supervise() {
    MutexLock lock(&mutex_);
    ExpireSilentClients();
}

void AppMonitor::ExpireSilentClients() {
    mutex_.AssertHeld();
    Clock::time_point now = now_();
    for (Client& client : clients_) {
        if (client.state == State::kRegistered &&
            Overdue(now - client.lastBeat, client.timeoutMs)) {
            client.state = State::kExpired;
            ++client.scriptRuns;
            EmuLog("appmon: pid %d missed its heartbeats for %llu ms, running '%s'", client.pid,
                   static_cast<unsigned long long>(client.timeoutMs), client.command.c_str());
            RunCommand(client.command, client.pid);
        }
    }
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

void AppMonitor::RunCommand(const std::string& command, pid_t pid) {
    if (command.empty()) {
        return;
    }
    pid_t child = ::fork();
    if (child == 0) {
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::signal(SIGPIPE, SIG_DFL);
        std::string pidText = std::to_string(pid);
        ::setenv("ORV_APPMON_PID", pidText.c_str(), 1);
        ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    if (child < 0) {
        EmuLog("appmon: cannot run '%s'", command.c_str());
    }
}

std::string AppMonitor::Describe() const {
    MutexLock lock(&mutex_);
    std::ostringstream out;
    for (const Client& client : clients_) {
        out << "client " << client.id << " pid " << client.pid << " state "
            << StateName(static_cast<int>(client.state)) << " timeout_ms " << client.timeoutMs
            << " heartbeats " << client.heartbeats << " script_runs " << client.scriptRuns
            << " command '" << client.command << "' deregister_reason '" << client.deregisterReason
            << "'\n";
    }
    return out.str();
}

}  // namespace orv::emu
