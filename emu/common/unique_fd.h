// The emulated card's programs use the daemon's descriptor wrapper.
#ifndef ORV_EMU_COMMON_UNIQUE_FD_H
#define ORV_EMU_COMMON_UNIQUE_FD_H

#include "platform/unique_fd.h"

namespace orv::emu {

using orv::UniqueFd;

}  // namespace orv::emu

#endif  // ORV_EMU_COMMON_UNIQUE_FD_H
