// Ctrl-C for commands that go on until interrupted: the first SIGINT or SIGTERM sets a flag the
// command looks at between steps.
#pragma once

namespace qvtool {

// Installs the handlers; true from then on once the user interrupted.
void CatchInterruptSignals();
bool Interrupted();

}  // namespace qvtool
