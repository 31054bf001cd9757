// The sub-process stand-in: one program installed under the names of the four
// sub-process programs. It records how it was started (argv, environment, CPU
// affinity, buffer groups) in /run/orv-stub/<pid>.txt, where tests read it,
// and then runs until it is signalled.
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <driver_hal.h>

extern char** environ;

namespace {

constexpr char kRecordDir[] = "/run/orv-stub";

std::string OneLine(const char* text) {
    std::string s = text;
    for (char& c : s) {
        if (c == '\n') {
            c = ' ';
        }
    }
    return s;
}

void WriteRecord(int argc, char** argv) {
    std::string record = "pid " + std::to_string(getpid()) + "\nppid " + std::to_string(getppid()) + "\n";
    char exe[4096] = {0};
    if (readlink("/proc/self/exe", exe, sizeof(exe) - 1) > 0) {
        record += std::string("exe ") + exe + "\n";
    }
    for (int i = 0; i < argc; ++i) {
        record += "argv " + OneLine(argv[i]) + "\n";
    }
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        record += "env " + OneLine(*e) + "\n";
    }
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    if (sched_getaffinity(0, sizeof(cpus), &cpus) == 0) {
        for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &cpus)) {
                record += "affinity " + std::to_string(cpu) + "\n";
            }
        }
    }
    int32_t self = getpid();
    GroupQueryEntry entries[64];
    uint32_t length = sizeof(entries);
    if (halGrpQuery(GRP_QUERY_GROUPS_OF_PROCESS, &self, sizeof(self), entries, &length) == DRV_ERROR_NONE) {
        for (uint32_t i = 0; i < length / sizeof(GroupQueryEntry); ++i) {
            record += "group " + std::string(entries[i].name, strnlen(entries[i].name, sizeof(entries[i].name))) +
                      " " + std::to_string(entries[i].permissions) + "\n";
        }
    }
    std::string path = std::string(kRecordDir) + "/" + std::to_string(getpid()) + ".txt";
    std::string tmp = path + ".tmp";
    if (FILE* out = std::fopen(tmp.c_str(), "w")) {
        std::fputs(record.c_str(), out);
        std::fclose(out);
        std::rename(tmp.c_str(), path.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    WriteRecord(argc, argv);
    for (;;) {
        pause();
    }
}
