// The emulated card: the driver behind the driver socket, the control socket,
// and the app monitor.
#ifndef ORV_EMU_CARD_CARD_EMULATOR_H
#define ORV_EMU_CARD_CARD_EMULATOR_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "card.pb.h"
#include "emu/card/app_monitor.h"
#include "emu/card/card_config.h"
#include "emu/card/driver_service.h"
#include "emu/card/event_scheduler.h"
#include "emu/card/fault_table.h"
#include "emu/card/group_table.h"
#include "emu/card/process_table.h"
#include "emu/common/unix_server.h"

namespace orv::emu {

struct CardSockets {
    std::string driver;
    std::string control;
    std::string appmon;
};

class CardEmulator {
  public:
    explicit CardEmulator(CardConfig config);
    ~CardEmulator();
    CardEmulator(const CardEmulator&) = delete;
    CardEmulator& operator=(const CardEmulator&) = delete;

    // Listens on the three sockets. False, with the reason, when one cannot be made.
    bool Start(const CardSockets& sockets, std::string* error);
    void Stop();

    // Executes one control request.
    CardReply Control(const CardRequest& request);

  private:
    // The tables the status view reads, serialised as a CardStatus.
    std::string Status() const;

    // Serves one connection of framed CardRequests; `control` selects which kind is allowed.
    void ServeFrames(int fd, pid_t peer, bool control);

    // Where the platform scripts look for injected failures (the directory of
    // the control socket).
    std::string runDir_;
    const CardConfig config_;
    FaultTable faults_;
    GroupTable groups_;
    ProcessTable processes_;
    EventScheduler scheduler_;
    StandinTable standins_;
    VerifyLog verified_;
    AppMonitor appMonitor_{&faults_};
    DriverService driver_{&config_, &faults_, &groups_, &processes_, &scheduler_, &verified_};
    std::unique_ptr<UnixServer> driverServer_;
    std::unique_ptr<UnixServer> controlServer_;
    std::unique_ptr<UnixServer> appmonServer_;
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_CARD_EMULATOR_H
