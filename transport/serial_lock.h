// Exclusive use of a serial line by one process.
//
// A line is taken with TIOCEXCL (further opens of the tty fail with EBUSY, except for
// root) and flock(LOCK_EX | LOCK_NB) on it (which root does not pass either). Who holds
// a busy line is read from the kernel's lock table (/proc/locks). Both connectors call
// these: the plain one on its own descriptor, the Modbus one on the descriptor of its
// libmodbus context (modbus_get_socket) right after modbus_connect.
#pragma once

#include <string>

namespace mcd {

enum class LineLock { kLocked, kBusy };

// Takes the line open on fd (whose path is path). kBusy when another process holds it;
// holder then says who ("pid 1234 (mcd_main)").
LineLock LockSerialLine(int fd, const std::string& path, std::string& holder);

// Gives the line up before its descriptor is closed (the lock itself goes with the
// close).
void UnlockSerialLine(int fd);

// Opens path read-write, without making it the controlling terminal, and takes it.
// Returns the descriptor, or -1 with busy and holder set when another process holds the
// line, or -1 with busy false and errno kept when the open failed.
int OpenSerialExclusive(const std::string& path, bool& busy, std::string& holder);

// The process that holds a lock on the file at path, as "pid N (name)", or "an unknown
// process" when the lock table does not tell.
std::string LineHolder(const std::string& path);

}  // namespace mcd
