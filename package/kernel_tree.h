// A kernel package's files on their way in: unpacked into a staging directory
// of their own beside the VF's install directory, checked there, and only then
// swapped into place with one rename, so that the install directory always
// holds one whole package and nothing of a refused one.
//
// The unpack is done by gzip and tar, fed the package on their standard
// input; what a package may hold is checked twice: its member names before
// tar unpacks anything (no absolute name, no ".."), and the unpacked tree after (nothing but
// regular files, directories and symbolic links that resolve inside the tree; no hard link to a
// file outside it). tar itself never writes through a symbolic link it unpacked whose target is
// absolute or climbs with "..": it sets such links up only once every member is out, and member
// names cannot climb.
#ifndef ORV_PACKAGE_KERNEL_TREE_H
#define ORV_PACKAGE_KERNEL_TREE_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/orv_limits.h"

namespace orv {

// Members and unpacked entries a package may have at most.
inline constexpr size_t kMaxPackageMembers = limits::kMaxPackageMembers;

// What an unpack is given beyond the package, and what it tells back.
struct UnpackControl {
    // Set while the unpack runs: it stops at once, and fails.
    const std::atomic<bool>* cancel = nullptr;
    // What the archive may uncompress to, the members it may hold and the
    // length of their listing.
    uint64_t maxArchiveBytes = limits::kMaxArchiveBytes;
    size_t maxMembers = limits::kMaxPackageMembers;
    size_t maxListingBytes = limits::kMaxListingBytes;
    // Set by a failure that may pass (descriptors, memory or room ran short),
    // as opposed to one of the package.
    bool shortage = false;
};

// A fresh, private directory beside an install directory (on the same file
// system, so that a rename can swap the two). Whatever it holds when the
// object goes is removed.
class StagedKernels {
  public:
    explicit StagedKernels(const std::string& installDir);
    ~StagedKernels();
    StagedKernels(const StagedKernels&) = delete;
    StagedKernels& operator=(const StagedKernels&) = delete;

    // False, with the reason, when the directory could not be made.
    bool Ok(std::string* reason) const;
    // The directory could not be made for want of descriptors, memory or room.
    bool Shortage() const { return shortage_; }
    const std::string& Dir() const { return dir_; }

    // Puts the staged tree in the install directory's place in one step; the
    // tree it replaces is removed. False, with the reason, when nothing
    // changed.
    bool Commit(std::string* reason);

  private:
    const std::string installDir_;
    std::string dir_;
    std::string error_;
    bool shortage_ = false;
};

// Unpacks the gzip-compressed tar archive read from `packageFd` (from its
// start) into the empty directory `dir`, then checks the tree (CheckKernelTree).
// False, with the reason, when the archive uncompresses to more than
// control->maxArchiveBytes, names a member with an absolute path or "..",
// when gzip or tar fails, or when the tree fails the check.
bool UnpackPackage(int packageFd, const std::string& dir, std::string* reason,
                   UnpackControl* control);

// Checks a tree unpacked from a package, without following any link: it may
// hold only regular files, directories and symbolic links; each link, resolved
// the way the kernel would, must stay inside the tree; a regular file must not
// share its inode with a file outside the tree. Takes away set-id and sticky
// bits and write access for group and others on the way. False, with the
// reason, at the first offence.
// A check that failed for want of descriptors or memory sets `shortage`.
bool CheckKernelTree(const std::string& root, std::string* reason, bool* shortage = nullptr);

// True when the symbolic link `link` (relative to the tree open at `rootFd`)
// resolves inside that tree, following the tree's own links on the way.
bool LinkStaysInside(int rootFd, const std::string& link);

// "FIFO", "symbolic link", "directory", ... for a file type in `mode`.
const char* FileKindName(mode_t mode);

// Removes `path` and everything below it without following symbolic links
// or leaving its file system; true when it is gone.
bool RemoveTree(const std::string& path);
// The same for entry `name` of the directory open at `dirFd`.
bool RemoveTreeAt(int dirFd, const std::string& name);

}  // namespace orv

#endif  // ORV_PACKAGE_KERNEL_TREE_H
