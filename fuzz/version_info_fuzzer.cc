// A kernel package's version.info, as the package worker reads it after
// unpacking: GetPackageName takes the inner package name from it (and the
// archive name from the package's path), MoveSoToSandBox the shared objects
// to move into the sand box.
//
// An input is the package's file name (up to the first newline; a file name
// has at most NAME_MAX bytes, so longer ones are cut there), then the
// contents of version.info. An input without a newline has no version.info.
//
// The worker renames files that version.info names, so the target runs in a
// jail: the install directory lives in a scratch tmpfs and every other mount
// is read-only, except where the fuzzer writes.
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "package/package_worker.h"

namespace {

// Where the watcher leaves a package of VF 0 before installing it.
constexpr char kStagedPackagePrefix[] = "/home/QelvarUser/aicpu_kernels/vf0_";
// Shared objects a package might carry, so that the moves have something to move.
const char* const kPackagedFiles[] = {"libaicpu_kernels.so", "libcpu_kernels.so",
                                      "libcust_aicpu_kernels.so"};
constexpr char kElfMagic[] = {'\x7f', 'E', 'L', 'F'};

orv::fuzz::ScratchJail* g_jail = nullptr;

void WriteFile(const std::string& path, const char* data, size_t size) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(data, static_cast<std::streamsize>(size));
    if (!file) {
        orv::fuzz::Fail("cannot write %s", path.c_str());
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orv::fuzz::QuietSystemLog();
    g_jail = new orv::fuzz::ScratchJail("/run/orv-fuzz-package", *argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    const char* newline = static_cast<const char*>(memchr(text, '\n', size));
    size_t nameLength = newline != nullptr ? static_cast<size_t>(newline - text) : size;
    std::string packagePath =
        kStagedPackagePrefix + std::string(text, std::min<size_t>(nameLength, NAME_MAX));

    std::string installDir = g_jail->Dir() + "/0";
    std::string deviceDir = installDir + "/aicpu_kernels_device/";
    std::error_code ignored;
    std::filesystem::create_directories(deviceDir, ignored);
    for (const char* name : kPackagedFiles) {
        WriteFile(deviceDir + name, kElfMagic, sizeof(kElfMagic));
    }
    if (newline != nullptr) {
        WriteFile(deviceDir + "version.info", newline + 1, size - nameLength - 1);
    }

    std::shared_ptr<orv::PackageWorker> worker = orv::PackageWorker::GetInstance(0);
    orv::PackageNameMap names;
    (void)worker->GetPackageName(packagePath, installDir, names);
    (void)worker->MoveSoToSandBox(deviceDir);
    g_jail->Clear();
    return 0;
}
