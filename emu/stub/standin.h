// The sub-process stand-in: one program installed under the names of the four
// sub-process programs. It records how it was started (argv, environment, CPU
// affinity, buffer groups) and what it receives in /run/orv-stub/<pid>.txt,
// reports to its parent (the daemon) through the event scheduler, and behaves
// as the card emulator's table says for its kind (orv-emu-ctl standin ...).
//
// The behaviours are a table in standin.cc: each says whether and when the
// stand-in reports its start, what it does once started, and how it answers a
// close request. A name the table lacks behaves as "normal".
#ifndef ORV_EMU_STUB_STANDIN_H
#define ORV_EMU_STUB_STANDIN_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <driver_hal.h>

#include "platform/mutex.h"

namespace orv::emu {

// The kinds of sub-process, numbered as the card's stand-in table numbers them.
inline constexpr uint32_t kStandinZarn = 0;
inline constexpr uint32_t kStandinCompute = 1;
inline constexpr uint32_t kStandinCustom = 2;
inline constexpr uint32_t kStandinQueue = 3;

struct StandinOptions {
    uint32_t kind = kStandinCompute;
    uint32_t deviceId = 0;
    int32_t vfId = 0;
    uint32_t hostPid = 0;
    // Its command line names buffer groups (the compute's list, the queue's
    // group): the daemon has granted them before it could run.
    bool inGroups = false;
};

// The options of the command line the daemon started this process with; the
// kind is that of the program name it was started under.
StandinOptions ParseStandinOptions(int argc, char** argv);

// The descriptors beyond the standard three that this process holds, as
// "N -> what". Called first thing, they are those it was started with: a
// launch should pass on none.
std::vector<std::string> InheritedDescriptors();

class Standin {
  public:
    explicit Standin(const StandinOptions& options);
    Standin(const Standin&) = delete;
    Standin& operator=(const Standin&) = delete;

    // Writes the record of how this process was started, whole; notes are
    // appended to it from then on.
    void WriteStartRecord(int argc, char** argv, const std::vector<std::string>& inherited);

    // Takes this kind's behaviour from the table the card publishes beside its
    // driver socket ("normal" when there is none), and notes it.
    void ChooseBehaviour();

    // Attaches to the event scheduler and subscribes the control and task
    // groups. False, noted, when any step fails.
    bool SetUpEvents();

    // Listens for control events on a thread of its own, reports its start
    // (or not) as its behaviour says, does what the behaviour does once
    // started, then takes tasks on the calling thread until a wait fails.
    // Requires SetUpEvents(); the object must outlive the process.
    void Run();

  private:
    enum class StartReport { kNone, kAtOnce, kAfterDelay };
    enum class CloseAnswer { kReportAndExit, kReportAndStay, kIgnore };

    // One row of the behaviour table.
    struct Behaviour {
        const char* name;
        StartReport start;
        // Done once the start is reported and the control loop listens; may be null.
        void (Standin::*afterStart)();
        CloseAnswer close;
    };
    static const Behaviour kBehaviours[];

    // Appends one line to the record, in one write.
    void Note(const std::string& line);
    // Submits a record to the parent on the group of this device.
    drvError_t SubmitToParent(uint32_t subEvent, const void* record, size_t length);
    // Submits one report of `eventType`.
    drvError_t Submit(uint32_t eventType, uint32_t procTypeWord);
    // Submits one report and notes how it went.
    void Report(uint32_t eventType, uint32_t procTypeWord);
    // Asks the parent to start the custom process, and notes how it went.
    void AskForCustom();
    // Sleeps for the behaviour's delay.
    void SleepDelay() const;

    // What the behaviours do once started.
    void Crash();
    void KernelTimeout();
    void Flood();
    void AskCustomTwice();

    // Control events from the daemon: close requests and custom-start replies.
    void ControlLoop();
    // Marks the start as reported (or as never to be), and waits for that.
    void StartSettled();
    void WaitStartSettled();
    // Tasks for compute processes: profiling updates and shared-object loads.
    void TaskLoop();

    // Constant after construction
    const StandinOptions options_;

    // Chosen by ChooseBehaviour, before any thread but the main one runs
    std::string behaviourName_ = "normal";
    const Behaviour* behaviour_;
    uint32_t delayMs_ = 0;

    // Shared with the control thread
    std::atomic<int> recordFd_{-1};  // open for appending once the record is written
    std::atomic<bool> customStarted_{false};
    Mutex startMutex_;
    CondVar startSettledCond_{&startMutex_};
    bool startSettled_ GUARDED_BY(startMutex_) = false;
};

}  // namespace orv::emu

#endif  // ORV_EMU_STUB_STANDIN_H
