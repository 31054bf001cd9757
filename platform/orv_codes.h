// The facts several units of the daemon share, each in one place: the
// sub-process programs, where kernel packages are installed, the highest VF
// id, and the result codes that are not plain success (0) or failure (1).
#ifndef ORV_PLATFORM_ORV_CODES_H
#define ORV_PLATFORM_ORV_CODES_H

#include <cstdint>
#include <string>
#include <vector>

namespace orv {

// ---- Sub-process programs ----

inline constexpr char kZarnName[] = "zarn_service.bin";
inline constexpr char kComputeName[] = "aicpu_runner";
inline constexpr char kCustomComputeName[] = "aicpu_custom_runner";
inline constexpr char kQueueName[] = "queue_runner";

inline const std::string kZarnPath = std::string("/var/") + kZarnName;
inline const std::string kComputePath = std::string("/var/") + kComputeName;
inline const std::string kCustomComputePath = std::string("/var/") + kCustomComputeName;
inline const std::string kQueuePath = std::string("/var/") + kQueueName;

// Every program the daemon starts, as a leftover of an earlier daemon is
// looked for at start-up.
inline const std::vector<std::string> kSubProcessNames = {kZarnName, kComputeName,
                                                          kCustomComputeName, kQueueName};

// ---- Kernel packages and VFs ----

// Installed kernels live in kKernelsRoot + VF id (0: the physical function).
inline constexpr char kKernelsRoot[] = "/usr/lib64/aicpu_kernels/";

// VFs are numbered 1 to kMaxVfId; 0 is the physical function.
inline constexpr uint32_t kMaxVfId = 16;

// ---- Result codes ----

// A device without an HDC server (SendHdcMsg).
inline constexpr uint32_t kNoHdcServer = 4;
// A sub-process program that is missing, not executable or badly named.
inline constexpr uint32_t kInvalidParam = 14;
// A kernel package that failed a check; the code is the same as kInvalidParam's.
inline constexpr uint32_t kVerifyFailed = 14;
// A command line that would not format (GetProcessPidByName).
inline constexpr uint32_t kFormatFailure = 15;
// A package install cut short by a shortage that may pass (descriptors,
// memory, room): the package is back where it was, to be tried again.
inline constexpr uint32_t kInstallRetryLater = 11;

}  // namespace orv

#endif  // ORV_PLATFORM_ORV_CODES_H
