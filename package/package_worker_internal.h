// What the units of the package worker share: where a VF's memory cgroup
// lives, the bounds of the text they read, the one way a dropped package is
// opened, and the state of one install.
#ifndef ORV_PACKAGE_PACKAGE_WORKER_INTERNAL_H
#define ORV_PACKAGE_PACKAGE_WORKER_INTERNAL_H

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "platform/bounded_lines.h"
#include "platform/orv_limits.h"
#include "platform/unique_fd.h"

namespace orv {

// One install under way: the package as it was opened, where it lies, and
// what its steps found.
struct PackageInstall {
    // The package's file as it is named now: where it was dropped, then in
    // the staging directory.
    std::string packagePath;
    // What was opened: every step reads this, never the name again.
    int fd = -1;
    uint64_t size = 0;
    uint32_t code = 0;
    // Process mode: the check code is published with the kernels.
    bool publish = false;
    // The VF's kernel generation when the install began (see KernelsRemoval).
    uint64_t generation = 0;
    // Process mode: the directory it was dropped in and its name there, and
    // the staging directory and its name there, for putting it back.
    UniqueFd dropDir;
    std::string dropName;
    UniqueFd stagingDir;
    std::string stagingName;
};

namespace package_internal {

// The memory cgroup directory of a VF.
std::string CgroupDir(int32_t vfId);

// version.info is a short file of key=value lines.
inline constexpr LineBounds kVersionInfoBounds{limits::kMaxVersionInfoLineBytes,
                                               limits::kMaxVersionInfoLines};
// A memory control file holds one number on its first line.
inline constexpr LineBounds kControlFileBounds{limits::kMaxControlFileLineBytes, 1};

// Opens a dropped package once, for every later step to use: without
// following a link, without waiting on a FIFO or device, and only when it is
// a regular file. Its descriptor, or -1 with the reason; `shortage` is set
// when it could not be opened for want of descriptors or memory, which says
// nothing about the package.
int OpenPackageFile(const std::string& path, off_t* size, std::string* reason, bool* shortage);

}  // namespace package_internal
}  // namespace orv

#endif  // ORV_PACKAGE_PACKAGE_WORKER_INTERNAL_H
