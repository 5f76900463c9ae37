// `solicctl hooks`: solicd's client that runs hook programs on every change.
#pragma once

#include "SolicctlArgs.h"

namespace solicd::ctl {

int runHooks(const Options& options);

}  // namespace solicd::ctl
