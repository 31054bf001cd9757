#include "emu/card/verify_log.h"

#include <sys/stat.h>

#include <chrono>

namespace orv::emu {

void VerifyLog::Record(const std::string& path, uint64_t size) {
    Entry entry;
    entry.path = path;
    struct stat st {};
    entry.size = size != 0                        ? size
                 : ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size)
                                                  : 0;
    entry.timeMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
    MutexLock lock(&mutex_);
    entries_.push_back(std::move(entry));
    if (entries_.size() > kKept) {
        entries_.pop_front();
    }
}

std::vector<VerifyLog::Entry> VerifyLog::Entries() const {
    MutexLock lock(&mutex_);
    return std::vector<Entry>(entries_.begin(), entries_.end());
}

}  // namespace orv::emu
