// The kernel packages the card was asked to verify, newest last, with their
// size when asked. The daemon's check code of an installed package is that
// size, and the package file is gone once unpacked; this record is how a view
// from outside the daemon learns it.
#ifndef ORV_EMU_CARD_VERIFY_LOG_H
#define ORV_EMU_CARD_VERIFY_LOG_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "platform/mutex.h"

namespace orv::emu {

class VerifyLog {
  public:
    struct Entry {
        std::string path;
        uint64_t size = 0;
        int64_t timeMs = 0;  // wall clock, milliseconds since the epoch
    };

    VerifyLog() = default;
    VerifyLog(const VerifyLog&) = delete;
    VerifyLog& operator=(const VerifyLog&) = delete;

    // Notes that `path` is being verified, `size` bytes (0: its size is read
    // now, before the daemon unpacks and removes it). A path the daemon
    // hands over as one of its own descriptors (/proc/self/fd/N) means
    // nothing here: the size must come with it.
    void Record(const std::string& path, uint64_t size) LOCKS_EXCLUDED(mutex_);
    std::vector<Entry> Entries() const LOCKS_EXCLUDED(mutex_);

  private:
    static constexpr size_t kKept = 256;

    mutable Mutex mutex_;
    std::deque<Entry> entries_ GUARDED_BY(mutex_);
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_VERIFY_LOG_H
