#include "package/kernel_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

#include "package/child_process.h"
#include "package/internal_api.h"
#include "platform/scope_guard.h"

namespace orv {

namespace {

// As the kernel gives up resolving a path after 40 links.
constexpr int kMaxLinkHops = 40;
// Set-id, sticky and group/other write bits go; the rest stays.
constexpr mode_t kKeptModeBits = 0755;
constexpr mode_t kInstalledDirMode = 0755;
// Levels a removal descends, a descriptor each: far below what descriptors
// allow, far above what a kernel tree holds.
constexpr int kMaxRemoveDepth = 256;
// Room a file system must have left for a failed unpack to count as the
// package's fault rather than the disk's.
constexpr uint64_t kMinRoomForAVerdict = 1u << 20;

std::vector<std::string> SplitPath(const std::string& path) {
    std::vector<std::string> parts;
    std::stringstream stream(path);
    for (std::string part; std::getline(stream, part, '/');) {
        parts.push_back(part);
    }
    return parts;
}

std::string JoinPath(const std::vector<std::string>& parts) {
    std::string path;
    for (const std::string& part : parts) {
        path += (path.empty() ? "" : "/") + part;
    }
    return path;
}

// A member name tar may unpack: relative, and never climbing with "..".
bool CheckMemberName(const std::string& name, std::string* reason) {
    if (name.empty()) {
        *reason = "a member has an empty name";
        return false;
    }
    if (name.front() == '/') {
        *reason = "member [" + name + "] has an absolute name";
        return false;
    }
    for (const std::string& part : SplitPath(name)) {
        if (part == "..") {
            *reason = "member [" + name + "] climbs out with \"..\"";
            return false;
        }
    }
    return true;
}

bool ReadLink(int rootFd, const std::string& path, std::string* target) {
    char buffer[PATH_MAX];
    ssize_t n = readlinkat(rootFd, path.c_str(), buffer, sizeof(buffer));
    if (n < 0 || static_cast<size_t>(n) >= sizeof(buffer)) {
        return false;
    }
    target->assign(buffer, static_cast<size_t>(n));
    return true;
}

bool Rewind(int fd, std::string* reason) {
    if (lseek(fd, 0, SEEK_SET) != 0) {
        *reason = "it cannot be read from its start: " + SafeStrerror();
        return false;
    }
    return true;
}

// True when the file system holding `fd` has next to no room left: a write
// that failed there says nothing about the package.
bool NoRoomLeft(int fd) {
    struct statvfs room {};
    return fstatvfs(fd, &room) == 0 &&
           static_cast<uint64_t>(room.f_bavail) * room.f_frsize < kMinRoomForAVerdict;
}

// Removes entry `name` of the directory open at `dirFd`, and below it when
// it is a directory on `device` (none when `anyDevice`), never following a
// link. True when it is gone.
bool RemoveEntryAt(int dirFd, const char* name, int depth, dev_t device, bool anyDevice) {
    struct stat st {};
    if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT;
    }
    if (!S_ISDIR(st.st_mode)) {
        return unlinkat(dirFd, name, 0) == 0 || errno == ENOENT;
    }
    // Directories only: on an overlay a file may report its layer's device,
    // a directory always the overlay's. Another device is a mount point.
    if ((!anyDevice && st.st_dev != device) || depth >= kMaxRemoveDepth) {
        return false;
    }
    int fd = openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR* dir = fd >= 0 ? fdopendir(fd) : nullptr;
    if (dir == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    // A second pass takes what a directory changing under the first hid.
    for (int pass = 0; pass < 2; ++pass) {
        rewinddir(dir);
        while (dirent* entry = readdir(dir)) {
            if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
                (void)RemoveEntryAt(fd, entry->d_name, depth + 1, st.st_dev, false);
            }
        }
        if (unlinkat(dirFd, name, AT_REMOVEDIR) == 0 || errno == ENOENT) {
            closedir(dir);
            return true;
        }
    }
    closedir(dir);
    return false;
}

// What the walk of CheckKernelTree gathers.
struct TreeWalk {
    size_t entries = 0;
    std::vector<std::string> links;
    // Regular files with more than one name: (device, inode) to (names the
    // file has, names found in the tree, one of them).
    std::map<std::pair<dev_t, ino_t>, std::pair<nlink_t, std::pair<nlink_t, std::string>>> shared;
};

// Looks at one directory's entries; subdirectories go on `pending`.
bool WalkDirectory(int rootFd, const std::string& rel, TreeWalk& walk,
                   std::deque<std::string>& pending, std::string* reason, bool* shortage) {
    int fd = openat(rootFd, rel.empty() ? "." : rel.c_str(),
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR* dir = fd >= 0 ? fdopendir(fd) : nullptr;
    if (dir == nullptr) {
        *shortage = IsShortage(errno);
        *reason = "directory [" + rel + "] cannot be read: " + SafeStrerror();
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    ScopeGuard closeDir([dir] { closedir(dir); });
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        std::string path = rel.empty() ? name : rel + "/" + name;
        if (++walk.entries > kMaxPackageMembers) {
            *reason = "it holds more than " + std::to_string(kMaxPackageMembers) + " entries";
            return false;
        }
        struct stat st {};
        if (fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            *reason = "member [" + path + "] cannot be examined: " + SafeStrerror();
            return false;
        }
        if (S_ISLNK(st.st_mode)) {
            walk.links.push_back(path);
            continue;
        }
        if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) {
            *reason = "member [" + path + "] is a " + FileKindName(st.st_mode);
            return false;
        }
        if ((st.st_mode & ~S_IFMT & ~kKeptModeBits) != 0 &&
            fchmodat(fd, name.c_str(), st.st_mode & kKeptModeBits, 0) != 0) {
            *reason = "member [" + path + "] cannot have its mode set: " + SafeStrerror();
            return false;
        }
        if (S_ISDIR(st.st_mode)) {
            pending.push_back(path);
        } else if (st.st_nlink > 1) {
            auto& seen = walk.shared[{st.st_dev, st.st_ino}];
            seen.first = st.st_nlink;
            ++seen.second.first;
            seen.second.second = path;
        }
    }
    return true;
}

}  // namespace

const char* FileKindName(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return "regular file";
        case S_IFDIR:
            return "directory";
        case S_IFLNK:
            return "symbolic link";
        case S_IFIFO:
            return "FIFO";
        case S_IFCHR:
            return "character device";
        case S_IFBLK:
            return "block device";
        case S_IFSOCK:
            return "socket";
        default:
            return "special file";
    }
}

// ---- Staging ------------------------------------------------------------------------

StagedKernels::StagedKernels(const std::string& installDir) : installDir_(installDir) {
    size_t slash = installDir.find_last_of('/');
    std::string parent = installDir.substr(0, slash);
    if (mkdir(parent.c_str(), kInstalledDirMode) != 0 && errno != EEXIST) {
        shortage_ = IsShortage(errno);
        error_ = "cannot make [" + parent + "]: " + SafeStrerror();
        return;
    }
    std::string pattern = parent + "/." + installDir.substr(slash + 1) + ".new-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        shortage_ = IsShortage(errno);
        error_ = "cannot make a staging directory beside [" + installDir + "]: " + SafeStrerror();
        return;
    }
    dir_ = pattern;
}

StagedKernels::~StagedKernels() {
    if (!dir_.empty()) {
        (void)RemoveTree(dir_);
    }
}

bool StagedKernels::Ok(std::string* reason) const {
    if (dir_.empty()) {
        *reason = error_;
        return false;
    }
    return true;
}

bool StagedKernels::Commit(std::string* reason) {
    if (dir_.empty()) {
        *reason = error_;
        return false;
    }
    // mkdtemp made it private; installed kernels are read by sub-processes.
    if (chmod(dir_.c_str(), kInstalledDirMode) != 0) {
        *reason = "cannot set the mode of [" + dir_ + "]: " + SafeStrerror();
        return false;
    }
    // The staging directory then holds the previous kernels, and goes with them.
    if (renameat2(AT_FDCWD, dir_.c_str(), AT_FDCWD, installDir_.c_str(), RENAME_EXCHANGE) == 0) {
        return true;
    }
    if (errno == ENOENT) {
        if (rename(dir_.c_str(), installDir_.c_str()) == 0) {
            return true;
        }
    } else if (errno == EINVAL || errno == ENOSYS) {
        // A file system that cannot exchange: the previous kernels step aside
        // for a moment, and come back if the new ones cannot go in.
        std::string aside = dir_ + ".old";
        if (rename(installDir_.c_str(), aside.c_str()) == 0) {
            if (rename(dir_.c_str(), installDir_.c_str()) == 0) {
                (void)RemoveTree(aside);
                return true;
            }
            int saved = errno;
            (void)rename(aside.c_str(), installDir_.c_str());
            errno = saved;
        }
    }
    *reason = "cannot put [" + dir_ + "] in the place of [" + installDir_ + "]: " + SafeStrerror();
    return false;
}

// ---- Unpacking and checking ---------------------------------------------------------

bool UnpackPackage(int packageFd, const std::string& dir, std::string* reason,
                   UnpackControl* control) {
    int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dirFd < 0) {
        control->shortage = IsShortage(errno);
        *reason = "its staging directory cannot be opened: " + SafeStrerror();
        return false;
    }
    ScopeGuard closeDir([dirFd] { close(dirFd); });
    // The archive is uncompressed once, into an unnamed file of the staging
    // directory (invisible to the tree check); listing and unpacking it then
    // cost little more than the one unpack would.
    int archive = openat(dirFd, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (archive < 0) {
        archive = memfd_create("orv-package-tar", MFD_CLOEXEC);
    }
    if (archive < 0) {
        control->shortage = IsShortage(errno);
        *reason = "no room to uncompress it: " + SafeStrerror();
        return false;
    }
    ScopeGuard closeArchive([archive] { close(archive); });
    // What a run of gzip or tar tells about the package, or about the card;
    // `failure` is what it says of the package ("gzip cannot uncompress it").
    auto failed = [&](const std::string& failure, int32_t status) {
        std::string code = " (status " + std::to_string(status) + ")";
        if (status == kChildNotStarted || (status > 0 && NoRoomLeft(archive))) {
            control->shortage = true;
            *reason = failure + code + ", for want of processes, descriptors or room";
        } else if (status == kChildCancelled) {
            *reason = "the install was stopped";
        } else if (WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) {
            *reason = "it uncompresses to more than " + std::to_string(control->maxArchiveBytes) +
                      " bytes";
        } else {
            *reason = failure + code;
        }
        return false;
    };
    ChildOptions options;
    options.cancel = control->cancel;
    options.maxFileBytes = control->maxArchiveBytes;
    if (!Rewind(packageFd, reason)) {
        return false;
    }
    options.stdio = ChildStdio{packageFd, archive};
    int32_t status = RunChild({"gzip", "-d", "-c"}, options);
    if (status != 0) {
        return failed("gzip cannot uncompress it", status);
    }
    std::string listing;
    if (!Rewind(archive, reason)) {
        return false;
    }
    options.stdio = ChildStdio{archive, -1};
    status =
        RunChildForOutput({"tar", "-t", "-f", "-"}, options, &listing, control->maxListingBytes);
    if (status == kChildOutputTooLong) {
        *reason =
            "its listing is longer than " + std::to_string(control->maxListingBytes) + " bytes";
        return false;
    }
    if (status != 0) {
        return failed("tar cannot list it", status);
    }
    // One name a line: tar escapes a new line inside a name.
    std::stringstream names(listing);
    size_t members = 0;
    for (std::string name; std::getline(names, name);) {
        if (++members > control->maxMembers) {
            *reason = "it holds more than " + std::to_string(control->maxMembers) + " members";
            return false;
        }
        if (!CheckMemberName(name, reason)) {
            return false;
        }
    }
    if (!Rewind(archive, reason)) {
        return false;
    }
    // -o: the files belong to the daemon, whoever they belonged to where the
    // package was made. tar starts in the staging directory it was given, by
    // descriptor, wherever its name may lead meanwhile.
    options.stdio = ChildStdio{archive, -1};
    options.cwd = dirFd;
    status = RunChild({"tar", "-x", "-o", "-f", "-"}, options);
    if (status != 0) {
        return failed("tar cannot unpack it", status);
    }
    return CheckKernelTree(dir, reason, &control->shortage);
}

bool CheckKernelTree(const std::string& root, std::string* reason, bool* shortage) {
    int rootFd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (rootFd < 0) {
        if (shortage != nullptr) {
            *shortage = IsShortage(errno);
        }
        *reason = "its tree [" + root + "] cannot be opened: " + SafeStrerror();
        return false;
    }
    ScopeGuard closeRoot([rootFd] { close(rootFd); });
    TreeWalk walk;
    std::deque<std::string> pending = {""};
    while (!pending.empty()) {
        std::string rel = pending.front();
        pending.pop_front();
        bool walkShortage = false;
        if (!WalkDirectory(rootFd, rel, walk, pending, reason, &walkShortage)) {
            if (shortage != nullptr) {
                *shortage = walkShortage;
            }
            return false;
        }
    }
    for (const auto& file : walk.shared) {
        if (file.second.second.first < file.second.first) {
            *reason = "member [" + file.second.second.second +
                      "] is a hard link to a file outside the package";
            return false;
        }
    }
    for (const std::string& link : walk.links) {
        if (!LinkStaysInside(rootFd, link)) {
            std::string target;
            (void)ReadLink(rootFd, link, &target);
            *reason =
                "member [" + link + "] is a symbolic link to [" + target + "], outside the package";
            return false;
        }
    }
    return true;
}

bool LinkStaysInside(int rootFd, const std::string& link) {
    std::vector<std::string> at = SplitPath(link);
    at.pop_back();
    std::string target;
    if (!ReadLink(rootFd, link, &target) || target.empty() || target.front() == '/') {
        return false;
    }
    std::vector<std::string> parts = SplitPath(target);
    std::deque<std::string> todo(parts.begin(), parts.end());
    int hops = 0;
    while (!todo.empty()) {
        std::string part = todo.front();
        todo.pop_front();
        if (part.empty() || part == ".") {
            continue;
        }
        if (part == "..") {
            if (at.empty()) {
                return false;
            }
            at.pop_back();
            continue;
        }
        at.push_back(part);
        // `at` holds no link: each one met is replaced by its target. A name
        // that does not exist (a dangling link) is taken as it reads.
        std::string path = JoinPath(at);
        struct stat st {};
        if (fstatat(rootFd, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(st.st_mode)) {
            continue;
        }
        std::string next;
        if (++hops > kMaxLinkHops || !ReadLink(rootFd, path, &next) || next.empty() ||
            next.front() == '/') {
            return false;
        }
        at.pop_back();
        std::vector<std::string> more = SplitPath(next);
        todo.insert(todo.begin(), more.begin(), more.end());
    }
    return true;
}

bool RemoveTree(const std::string& path) {
    size_t slash = path.find_last_of('/');
    std::string parent = slash == std::string::npos ? "." : path.substr(0, slash);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") {
        return false;
    }
    int parentFd = open(parent.empty() ? "/" : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (parentFd < 0) {
        return errno == ENOENT;
    }
    bool gone = RemoveTreeAt(parentFd, name);
    close(parentFd);
    return gone;
}

bool RemoveTreeAt(int dirFd, const std::string& name) {
    return RemoveEntryAt(dirFd, name.c_str(), 0, 0, true);
}

}  // namespace orv
