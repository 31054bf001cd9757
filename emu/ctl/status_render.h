// The status view's two forms: a tree for people (orv-emu-ctl status) and
// JSON with the same content for scripts (status --json).
#ifndef ORV_EMU_CTL_STATUS_RENDER_H
#define ORV_EMU_CTL_STATUS_RENDER_H

#include <string>

#include "emu/ctl/card_status.h"

namespace orv::emu {

std::string RenderStatusTree(const CardView& view);
std::string RenderStatusJson(const CardView& view);

// "1.5 GiB", "512 MiB", "900 B".
std::string HumanBytes(uint64_t bytes);
// "45s", "3m07s", "2h05m", "3d04h".
std::string HumanAge(int64_t ms);

}  // namespace orv::emu

#endif  // ORV_EMU_CTL_STATUS_RENDER_H
