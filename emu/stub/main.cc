// orv-subproc-stub: the sub-process stand-in (emu/stub/standin.h), started by
// the daemon under the names of the four sub-process programs.
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "emu/driver/card_client.h"
#include "emu/stub/standin.h"

int main(int argc, char** argv) {
    // First, before this process opens anything of its own.
    const std::vector<std::string> inherited = orv::emu::InheritedDescriptors();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    // One heap for both threads: a second thread's own arena would be mapped
    // at its first allocation and torn down at exit, on the control CPU.
    mallopt(M_ARENA_MAX, 1);

    orv::emu::CardClient::Instance().ExemptFromFaults();
    orv::emu::Standin standin(orv::emu::ParseStandinOptions(argc, argv));
    standin.WriteStartRecord(argc, argv, inherited);
    standin.ChooseBehaviour();
    if (!standin.SetUpEvents()) {
        return 1;
    }
    // The control loop and the task loop each wait in the card from their
    // start on: both connections exist before the start is reported.
    orv::emu::CardClient::Instance().Reserve(2);
    standin.Run();
    for (;;) {
        pause();
    }
}
