// SessionBoard: the emulated HDC server library's public notice board of its
// sessions, for views of the card from outside the daemon. It keeps one line
// per live session (its id, the device, and the identity and time of the
// session's framework requests) in "sessions" beside the servers' sockets,
// rewritten whole and renamed into place at each change, so a reader always
// sees one complete table. A change is written by the board's own thread a
// moment later, together with the changes that follow it: renaming over the
// old table makes the file system write the new one out at once, which
// would cost the request that made the change a quarter of a millisecond.
//
//   session 3 device 0 vf 0 host_pid 4242 opened_ms 1763900000000 since_ms 1763900000120 last_type
//   6
//
// since_ms is the time of the session's first framework request (0 before
// one); the identity is its last one's, as the transport reports it when the
// session ends.
#ifndef ORV_EMU_HDC_SESSION_BOARD_H
#define ORV_EMU_HDC_SESSION_BOARD_H

#include <cstdint>
#include <map>
#include <string>
#include <thread>

#include "platform/mutex.h"

namespace orv::emu {

// The board's file in directory `hdcDir`.
std::string SessionBoardPath(const std::string& hdcDir);

class SessionBoard {
  public:
    // The process's board, in the HDC socket directory (ORV_EMU_HDC_DIR).
    static SessionBoard& Instance();

    explicit SessionBoard(std::string path);
    // Writes the last changes and ends the board's thread.
    ~SessionBoard();
    SessionBoard(const SessionBoard&) = delete;
    SessionBoard& operator=(const SessionBoard&) = delete;

    void Opened(uint32_t sessionId, uint32_t deviceId) LOCKS_EXCLUDED(mutex_);
    // A framework request (start, close, profiling, queue start) arrived.
    void Request(uint32_t sessionId, uint32_t deviceId, int32_t vfId, uint32_t hostPid,
                 int32_t type) LOCKS_EXCLUDED(mutex_);
    void Closed(uint32_t sessionId) LOCKS_EXCLUDED(mutex_);
    // Starts the board's thread now rather than at the first change, so that
    // a process's thread count does not grow with its first session.
    void Start() LOCKS_EXCLUDED(mutex_);
    // Writes the changes made so far now, in the calling thread.
    void Flush() LOCKS_EXCLUDED(writeMutex_, mutex_);

  private:
    struct Entry {
        uint32_t deviceId = 0;
        int32_t vfId = 0;
        uint32_t hostPid = 0;
        int64_t openedMs = 0;
        int64_t sinceMs = 0;
        int32_t lastType = 0;
    };

    // Marks the table changed and wakes the board's thread.
    void Changed() EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    // Starts the board's thread unless it runs (or the board is ending).
    void StartPublisher() EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    void PublishLoop() LOCKS_EXCLUDED(mutex_);

    const std::string path_;
    // Taken before mutex_: one writer at a time, so that an older table never
    // lands over a newer one.
    Mutex writeMutex_ ACQUIRED_BEFORE(mutex_);
    Mutex mutex_;
    CondVar changed_{&mutex_};
    std::map<uint32_t, Entry> sessions_ GUARDED_BY(mutex_);
    bool dirty_ GUARDED_BY(mutex_) = false;
    bool stopping_ GUARDED_BY(mutex_) = false;
    std::thread publisher_ GUARDED_BY(mutex_);
};

}  // namespace orv::emu

#endif  // ORV_EMU_HDC_SESSION_BOARD_H
