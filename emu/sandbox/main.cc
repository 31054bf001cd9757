// orv-sandbox: gives the daemon, the card emulator and the stand-ins the file
// system and process table of a card, in private namespaces on a plain PC.
#include <cstdio>
#include <string>

#include "emu/sandbox/sandbox_options.h"
#include "emu/sandbox/sandbox_plan.h"
#include "emu/sandbox/sandbox_supervisor.h"
#include "orv_version.h"

int main(int argc, char** argv) {
    orv::emu::SandboxPlan plan;
    std::string error;
    if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
        std::fputs(orv::emu::SandboxUsage(), stdout);
        return 0;
    }
    if (argc == 2 && std::string(argv[1]) == "--version") {
        std::printf("orv-sandbox %s\n", ORV_VERSION);
        return 0;
    }
    if (!orv::emu::ParseSandboxOptions(argc, argv, &plan.options, &error)) {
        std::fprintf(stderr, "orv-sandbox: %s\n%s", error.c_str(), orv::emu::SandboxUsage());
        return 2;
    }
    plan.state = orv::emu::StatePaths(plan.options.stateDir);
    if (plan.options.mode == orv::emu::SandboxMode::kEnter) {
        return orv::emu::EnterSandbox(plan);
    }
    if (!orv::emu::ResolvePrograms(&plan, &error)) {
        std::fprintf(stderr, "orv-sandbox: %s\n", error.c_str());
        return 1;
    }
    return orv::emu::RunSandbox(std::move(plan));
}
