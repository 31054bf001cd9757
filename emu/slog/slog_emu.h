// Emulator-only entry of the emulated system log library.
#ifndef ORV_EMU_SLOG_SLOG_EMU_H
#define ORV_EMU_SLOG_SLOG_EMU_H

#ifdef __cplusplus
extern "C" {
#endif

// Re-reads ORV_EMU_LOG_FILE, ORV_EMU_LOG_LEVEL and ORV_EMU_LOG_STDERR. For
// tests; call it while no other thread logs.
void OrvEmuSlogReconfigure(void);

#ifdef __cplusplus
}
#endif

#endif  // ORV_EMU_SLOG_SLOG_EMU_H
