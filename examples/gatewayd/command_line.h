// The way into the daemon: command line, configuration file, instance lock, background.
#pragma once

#include "settings.h"

#include <optional>

namespace gatewayd
{

/** Reads what the user wants and enters the process frame: when it gives no exit status, the
 *  process holds its instance lock and is in the background if -d was given. The settings are
 *  defaults, overridden by the configuration file, overridden by the command line.
 *  Call it first in main; messages about what is wrong have gone to the terminal when it returns.
 *  @return the exit status of a process that is to end here */
std::optional<int> enter_process(int argc, char *const *argv, settings *out);

} // namespace gatewayd
