// The daemon's environment script, /var/orvdaemon_add_env_variable.sh, as
// OrvDaemon::LoadFileAndSetEnv reads it at the end of start-up: the first 20
// lines, "export NAME=VALUE" setting NAME. The process's environment is put
// back after each input.
#include <cstdint>
#include <fstream>

#include "daemon/orvdaemon.h"
#include "fuzz/fuzz_support.h"

namespace {

constexpr char kEnvScriptPath[] = "/var/orvdaemon_add_env_variable.sh";

orv::fuzz::EnvironmentSnapshot* g_environment = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    orv::fuzz::QuietSystemLog();
    g_environment = new orv::fuzz::EnvironmentSnapshot;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        std::ofstream script(kEnvScriptPath, std::ios::binary | std::ios::trunc);
        script.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
        if (!script) {
            orv::fuzz::Fail("cannot write %s; is this running inside orv-sandbox?", kEnvScriptPath);
        }
    }
    orv::OrvDaemon::GetInstance()->LoadFileAndSetEnv();
    g_environment->Restore();
    return 0;
}
