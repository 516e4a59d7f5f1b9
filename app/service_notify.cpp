#include "app/service_notify.h"

#include <systemd/sd-daemon.h>

namespace mcd {
namespace service {

void Ready() { sd_notify(0, "READY=1\nSTATUS=reading meters"); }

void Reloading() { sd_notify(0, "RELOADING=1\nSTATUS=reading the configuration again"); }

void Stopping() { sd_notify(0, "STOPPING=1\nSTATUS=stopping"); }

void Status(const std::string& text) { sd_notify(0, ("STATUS=" + text).c_str()); }

// Asked once: the supervision feeds the watchdog at every look at the turn holder, and
// without a watchdog (no service manager, or none configured) there is nothing to send.
void Watchdog() {
  static const bool enabled = sd_watchdog_enabled(0, nullptr) > 0;
  if (enabled) sd_notify(0, "WATCHDOG=1");
}

}  // namespace service
}  // namespace mcd
