// The process entry point: options, daemon mode, logger, signals, set-up of clients,
// connector and drivers, the supervision loop and shutdown.
#pragma once

namespace mcd {

// Runs the daemon; returns the process exit status.
int MainEntry(int argc, char** argv);

}  // namespace mcd
