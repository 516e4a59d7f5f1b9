#include "app/service_notify.h"

#include <systemd/sd-daemon.h>

namespace mcd {
namespace service {

void Ready() { sd_notify(0, "READY=1\nSTATUS=reading meters"); }

void Reloading() { sd_notify(0, "RELOADING=1\nSTATUS=reading the configuration again"); }

void Stopping() { sd_notify(0, "STOPPING=1\nSTATUS=stopping"); }

void Status(const std::string& text) { sd_notify(0, ("STATUS=" + text).c_str()); }

void Watchdog() { sd_notify(0, "WATCHDOG=1"); }

}  // namespace service
}  // namespace mcd
