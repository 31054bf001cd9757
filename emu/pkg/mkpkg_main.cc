// orv-emu-mkpkg: builds a compute-kernel package for the emulated card, signed
// with the emulated vendor key: a sound one by default, or one holding exactly
// what a directory holds (--from-dir), hostile entries included.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "emu/pkg/package_signature.h"
#include "orv_version.h"
#include "vendor_private_key.h"

namespace {

constexpr char kDefaultInnerName[] = "Velkan512-aicpu_syskernels.tar.gz";

void Usage(FILE* out = stderr) {
    std::fprintf(
        out,
        "Usage: orv-emu-mkpkg --out FILE [options]\n"
        "  --inner-name NAME      the archive name version.info gives (default: the archive part\n"
        "                         of FILE's name, or %s)\n"
        "  --sandbox-so A,B       a SandBoxSo= line naming these shared objects, which are "
        "included\n"
        "  --pad-bytes N          an incompressible payload of N bytes\n"
        "  --unsigned             leave the package unsigned\n"
        "  --from-dir DIR         the archive holds exactly the entries under DIR,\n"
        "                         as they are there (links, hard links and special\n"
        "                         files kept; DIR gives its own version.info); no\n"
        "                         option above but --unsigned goes with it\n"
        "  --transform EXPR       with --from-dir: rewrite member names and link\n"
        "                         targets with tar's --transform (sed-like, e.g.\n"
        "                         's,^evil,/abs/evil,', flag h for hard link targets\n"
        "                         only); absolute names and \"..\" are kept\n",
        kDefaultInnerName);
}

int RemoveEntry(const char* path, const struct stat*, int, FTW*) {
    return ::remove(path);
}

bool WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return static_cast<bool>(out);
}

std::string RandomBytes(size_t count) {
    std::string bytes(count, '\0');
    std::ifstream random("/dev/urandom", std::ios::binary);
    random.read(bytes.data(), static_cast<std::streamsize>(count));
    return bytes;
}

// The output of a shell pipeline, as bytes; false when it failed.
bool RunCapture(const std::string& command, std::string* output) {
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return false;
    }
    output->clear();
    char buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        output->append(buffer, n);
    }
    int status = pclose(pipe);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// `text` as one word of a shell command.
std::string ShellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

// The tar stream of everything under `dir`, names relative to it, as it is
// there: nothing followed, nothing left out, nothing made safe.
bool ArchiveDirectory(const std::string& dir, const std::vector<std::string>& transforms,
                      std::string* archive) {
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr) {
        return false;
    }
    std::vector<std::string> entries;
    while (dirent* entry = readdir(handle)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            entries.push_back(name);
        }
    }
    closedir(handle);
    std::sort(entries.begin(), entries.end());
    std::string command = "tar -C " + ShellQuote(dir) + " -c -f - -P --sort=name --numeric-owner";
    for (const std::string& transform : transforms) {
        command += " --transform=" + ShellQuote(transform);
    }
    if (entries.empty()) {
        command += " -T /dev/null";
    } else {
        command += " --";
        for (const std::string& entry : entries) {
            command += " " + ShellQuote(entry);
        }
    }
    return RunCapture(command + " | gzip -n -6", archive);
}

std::string InnerNameFor(const std::string& out) {
    std::string base = out.substr(out.find_last_of('/') + 1);
    std::smatch match;
    // What the daemon takes for the archive part of a package's name.
    static const std::regex kArchiveName("Velkan[0-9]{3}.*\\.tar\\.gz");
    return std::regex_search(base, match, kArchiveName) ? match.str()
                                                        : std::string(kDefaultInnerName);
}

// Signs the archive unless told not to and writes it out; the exit status.
int Finish(const std::string& out, std::string archive, bool sign) {
    if (sign) {
        archive = orv::emu::SignPackage(archive, kVendorPrivateKey);
        if (archive.empty()) {
            std::fprintf(stderr, "orv-emu-mkpkg: cannot sign the package\n");
            return 1;
        }
    }
    if (!WriteFile(out, archive)) {
        std::fprintf(stderr, "orv-emu-mkpkg: cannot write %s\n", out.c_str());
        return 1;
    }
    std::printf("%s %zu bytes%s\n", out.c_str(), archive.size(), sign ? "" : " (unsigned)");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string out;
    std::string innerName;
    std::vector<std::string> sandboxSo;
    size_t padBytes = 0;
    bool sign = true;
    std::string fromDir;
    std::vector<std::string> transforms;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        if (arg == "--out" && hasValue) {
            out = argv[++i];
        } else if (arg == "--inner-name" && hasValue) {
            innerName = argv[++i];
        } else if (arg == "--sandbox-so" && hasValue) {
            std::stringstream list(argv[++i]);
            for (std::string name; std::getline(list, name, ',');) {
                if (!name.empty()) {
                    sandboxSo.push_back(name);
                }
            }
        } else if (arg == "--pad-bytes" && hasValue) {
            padBytes = std::strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--unsigned") {
            sign = false;
        } else if (arg == "--from-dir" && hasValue) {
            fromDir = argv[++i];
        } else if (arg == "--transform" && hasValue) {
            transforms.push_back(argv[++i]);
        } else if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            return 0;
        } else if (arg == "--version") {
            std::printf("orv-emu-mkpkg %s\n", ORV_VERSION);
            return 0;
        } else {
            Usage();
            return 2;
        }
    }
    bool shapedHere = !innerName.empty() || !sandboxSo.empty() || padBytes > 0;
    bool misfit = (!fromDir.empty() && shapedHere) || (fromDir.empty() && !transforms.empty());
    if (out.empty() || misfit) {
        Usage();
        return 2;
    }
    if (innerName.empty()) {
        innerName = InnerNameFor(out);
    }
    for (const std::string& name : sandboxSo) {
        if (name.find('/') != std::string::npos || name.find('\'') != std::string::npos) {
            std::fprintf(stderr, "orv-emu-mkpkg: a shared object name is a plain file name: %s\n",
                         name.c_str());
            return 2;
        }
    }

    std::string archive;
    if (!fromDir.empty()) {
        if (!ArchiveDirectory(fromDir, transforms, &archive)) {
            std::fprintf(stderr, "orv-emu-mkpkg: cannot archive %s\n", fromDir.c_str());
            return 1;
        }
        return Finish(out, archive, sign);
    }

    char staging[] = "/tmp/orv-mkpkg.XXXXXX";
    if (mkdtemp(staging) == nullptr) {
        std::perror("orv-emu-mkpkg: mkdtemp");
        return 1;
    }
    std::string root = staging;
    std::string device = root + "/aicpu_kernels_device";
    mkdir(device.c_str(), 0755);
    std::string versionInfo = "Name=" + innerName + "\nVersion=1.0.0\n";
    if (!sandboxSo.empty()) {
        versionInfo += "SandBoxSo=";
        for (size_t i = 0; i < sandboxSo.size(); ++i) {
            versionInfo += (i == 0 ? "" : ",") + sandboxSo[i];
        }
        versionInfo += "\n";
    }
    bool ok = WriteFile(device + "/version.info", versionInfo) &&
              WriteFile(device + "/libaicpu_demo_kernels.so",
                        "emulated kernel library\n" + RandomBytes(4096));
    for (const std::string& name : sandboxSo) {
        ok = ok && WriteFile(device + "/" + name,
                             "emulated sand-box library " + name + "\n" + RandomBytes(1024));
    }
    if (padBytes > 0) {
        ok = ok && WriteFile(device + "/payload.bin", RandomBytes(padBytes));
    }
    ok =
        ok && RunCapture("tar -C '" + root + "' -cf - aicpu_kernels_device | gzip -n -6", &archive);
    nftw(root.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    if (!ok) {
        std::fprintf(stderr, "orv-emu-mkpkg: cannot build the archive\n");
        return 1;
    }
    return Finish(out, archive, sign);
}
