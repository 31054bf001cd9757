// The card emulator's own diagnostics, on its standard error.
#ifndef ORV_EMU_CARD_EMU_LOG_H
#define ORV_EMU_CARD_EMU_LOG_H

namespace orv::emu {

void EmuLog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_EMU_LOG_H
