// orv-card-emu: the process that stands in for the card's driver and app
// monitor. Runs until SIGTERM or SIGINT.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "emu/card/card_emulator.h"
#include "emu/card/emu_log.h"
#include "emu/common/emu_paths.h"
#include "emu/common/socket_io.h"
#include "orv_version.h"

namespace {

void Usage(FILE* out = stderr) {
    std::fprintf(out,
                 "Usage: orv-card-emu [options]\n"
                 "  --driver-socket PATH   driver HAL socket (default %s)\n"
                 "  --control-socket PATH  control socket (default %s)\n"
                 "  --appmon-socket PATH   app monitor socket (default %s)\n"
                 "  --devices N            number of devices (default 1)\n"
                 "  --device-cpus D=ai:N:F,ctrl:N:F,data:N:F\n"
                 "                         CPU counts and OS-scheduling flags of device D\n"
                 "  --chip-id D=ID         chip id of device D (default D)\n"
                 "  --zeb                  report the ZEB chip type\n"
                 "  --trusted-root DIR     trusted directories are DIR/dev<D> (default %s)\n"
                 "  --ready-fd FD          write one byte to FD once listening\n",
                 orv::emu::kDefaultCardSocket, orv::emu::kDefaultControlSocket,
                 orv::emu::kAppmonSocket, orv::emu::kDefaultTrustedRoot);
}

}  // namespace

int main(int argc, char** argv) {
    orv::emu::CardSockets sockets{orv::emu::kDefaultCardSocket, orv::emu::kDefaultControlSocket,
                                  orv::emu::kAppmonSocket};
    uint32_t devices = 1;
    bool zeb = false;
    int readyFd = -1;
    std::string trustedRoot = orv::emu::kDefaultTrustedRoot;
    std::vector<std::string> cpuSpecs;
    std::vector<std::string> chipSpecs;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "orv-card-emu: %s needs a value\n", arg.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--driver-socket") {
            sockets.driver = value();
        } else if (arg == "--control-socket") {
            sockets.control = value();
        } else if (arg == "--appmon-socket") {
            sockets.appmon = value();
        } else if (arg == "--devices") {
            long n = std::strtol(value().c_str(), nullptr, 10);
            if (n < 0 || n > static_cast<long>(orv::emu::kMaxEmulatedDevices)) {
                std::fprintf(stderr, "orv-card-emu: --devices takes 0..%u\n",
                             orv::emu::kMaxEmulatedDevices);
                return 2;
            }
            devices = static_cast<uint32_t>(n);
        } else if (arg == "--device-cpus") {
            cpuSpecs.push_back(value());
        } else if (arg == "--chip-id") {
            chipSpecs.push_back(value());
        } else if (arg == "--trusted-root") {
            trustedRoot = value();
        } else if (arg == "--zeb") {
            zeb = true;
        } else if (arg == "--ready-fd") {
            readyFd = std::atoi(value().c_str());
        } else if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            return 0;
        } else if (arg == "--version") {
            std::printf("orv-card-emu %s\n", ORV_VERSION);
            return 0;
        } else {
            std::fprintf(stderr, "orv-card-emu: unknown option %s\n", arg.c_str());
            Usage();
            return 2;
        }
    }

    orv::emu::CardConfig config = orv::emu::CardConfig::WithDevices(devices);
    config.chipType = zeb ? orv::emu::kChipTypeZeb : orv::emu::kChipTypeStandard;
    config.trustedRoot = trustedRoot;
    std::string error;
    for (const std::string& spec : cpuSpecs) {
        if (!config.ApplyDeviceCpus(spec, &error)) {
            std::fprintf(stderr, "orv-card-emu: --device-cpus: %s\n", error.c_str());
            return 2;
        }
    }
    for (const std::string& spec : chipSpecs) {
        if (!config.ApplyChipId(spec, &error)) {
            std::fprintf(stderr, "orv-card-emu: --chip-id: %s\n", error.c_str());
            return 2;
        }
    }

    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    orv::emu::CardEmulator card(std::move(config));
    if (!card.Start(sockets, &error)) {
        std::fprintf(stderr, "orv-card-emu: %s\n", error.c_str());
        return 1;
    }
    if (readyFd >= 0) {
        char ready = '1';
        orv::emu::WriteFull(readyFd, &ready, 1);
        ::close(readyFd);
    }
    int signo = 0;
    sigwait(&stopSignals, &signo);
    orv::emu::EmuLog("stopping on signal %d", signo);
    card.Stop();
    return 0;
}
