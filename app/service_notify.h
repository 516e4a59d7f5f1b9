// Messages to the service manager (systemd's notification socket). Every call does
// nothing when the process was not started by a service manager that listens.
#pragma once

#include <string>

namespace mcd {
namespace service {

void Ready();
void Reloading();
void Stopping();
void Status(const std::string& text);
// Tells the manager that the process is alive and making progress.
void Watchdog();

}  // namespace service
}  // namespace mcd
