// Running the host's event loop in a qvtool command, as an application's main thread does.
#pragma once

#include "moorglass.h"

namespace qvtool {

// Installs `handler` and runs the loop until qvhost_stop_event_loop is called or the user
// interrupts (SIGINT, SIGTERM). True when interrupted.
bool RunEventLoop(mg_event_handler handler);

}  // namespace qvtool
