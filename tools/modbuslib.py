"""Modbus RTU pieces shared by the simulators of Modbus meters (standard library only):
the Modbus RTU CRC-16, request framing for simlib, exception
answers, the extra fault switches of the control file, the local calendar by which
meters key their archives, and the --held-out file.

Extra switches read from the same JSON control file as simlib's:
    {"exception": 0 | code}   answer every request with this exception code
    {"fault_once": {"<record time>": "exception" | "silent" | "bad_checksum"}}
                              the first request for that archive record gets the fault;
                              "exception@2" spoils the second request instead
"""
import json
import os
import struct
import time


def crc16(data):
    """Modbus RTU CRC-16: reflected polynomial 0xA001, start 0xFFFF."""
    crc = 0xFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            if crc & 1:
                crc = (crc >> 1) ^ 0xA001
            else:
                crc >>= 1
    return crc


def f32(x):
    """A float in two registers, high word first, as both meters send it."""
    return struct.pack(">f", x)


def with_crc(frame):
    crc = crc16(frame)
    return bytes(frame) + bytes([crc & 0xFF, crc >> 8])


def crc_ok(frame):
    return len(frame) >= 4 and crc16(frame[:-2]) == (frame[-2] | (frame[-1] << 8))


def exception(address, function, code):
    return with_crc(bytes([address, function | 0x80, code]))


def request_length(buf, user=None):
    """Length of the RTU request at the start of buf (None: need more; 0: not a request).
    user(buf) gives the length of the meter's own functions."""
    if len(buf) < 2:
        return None
    f = buf[1]
    if f in (3, 4, 6):
        return 8
    if f == 0x10:
        return None if len(buf) < 7 else 9 + buf[6]
    if f == 0x11:
        return 4
    if user is not None:
        n = user(buf)
        if n != 0:
            return n
    return 0


class Extra:
    """Fault switches beyond simlib's, re-read whenever the control file changes."""

    def __init__(self, path):
        self.path, self.mtime, self.state = path, None, {}

    def get(self, key, default=0):
        if self.path:
            try:
                mtime = os.stat(self.path).st_mtime_ns
                if mtime != self.mtime:
                    with open(self.path, encoding="utf-8") as f:
                        self.state = json.load(f)
                    self.mtime = mtime
            except (OSError, ValueError):
                pass
        return self.state.get(key, default)

    def once(self, t, used):
        """The fault armed for this request of record time t, or None. used counts the
        requests per record time."""
        fault = (self.get("fault_once", {}) or {}).get(str(t))
        if not fault:
            return None
        kind, _, nth = fault.partition("@")
        used[str(t)] = used.get(str(t), 0) + 1
        return kind if used[str(t)] == int(nth or 1) else None


def play_fault(fault, reply):
    """The reply as the fault makes it (None: no answer)."""
    if fault == "silent":
        return None
    if fault == "bad_checksum":
        return reply[:-1] + bytes([reply[-1] ^ 0x55])
    if fault == "exception":
        return exception(reply[0], reply[1] & 0x7F, 4)
    return reply


def _label(t):
    lt = time.localtime(t)
    return (lt.tm_year, lt.tm_mon, lt.tm_mday, lt.tm_hour)


def _hour_start(t):
    lt = time.localtime(t)
    return t - lt.tm_min * 60 - lt.tm_sec


def local_hours(newest_before, count):
    """Record times of the `count` local hours that ended before `newest_before`, oldest
    first. A repeated local hour is one record time (its first occurrence); a left-out
    hour is none."""
    first = {}
    t = _hour_start(int(newest_before)) - 1
    while len(first) < count + 1:
        start = _hour_start(t)
        label = _label(start)
        if label not in first or start < first[label]:
            first[label] = start
        t = start - 1
    current = _label(_hour_start(int(newest_before)))
    times = sorted(v for k, v in first.items() if k != current)
    return times[-count:]


def local_days(newest_before, count):
    """First instants of the `count` local days before the day of `newest_before`."""
    days = []
    lt = time.localtime(newest_before)
    y, m, d = lt.tm_year, lt.tm_mon, lt.tm_mday
    for _ in range(count):
        noon = time.mktime((y, m, d, 12, 0, 0, 0, 0, -1)) - 86400
        lt = time.localtime(noon)
        y, m, d = lt.tm_year, lt.tm_mon, lt.tm_mday
        t = int(time.mktime((y, m, d, 0, 0, 0, 0, 0, -1)))
        while _label(t - 1)[:3] == (y, m, d):  # midnight left out: the day's first instant
            t -= 1
        while time.localtime(t)[:3] != (y, m, d):
            t += 60
        days.append(t)
    return sorted(days)


def label_of(t):
    return _label(t)


# Archive file names of the parameter dictionary, by parameter id.
HOURLY_NAMES = {6: "A20", 7: "A21", 8: "A22", 9: "A17", 10: "A18", 11: "A19", 13: "A80", 14: "A28", 17: "A2",
                18: "A3", 19: "A5", 20: "A7", 21: "A9", 22: "A11", 23: "A13", 24: "A15", 29: "A27"}
DAILY_NAMES = {6: "A48", 7: "A49", 8: "A50", 9: "A45", 10: "A46", 11: "A47", 13: "A81", 14: "A56", 17: "A30",
               18: "A31", 19: "A33", 20: "A35", 21: "A37", 22: "A39", 23: "A41", 24: "A43", 29: "A55"}
QUALITY = 192


def write_held_out(path, address, hourly, daily):
    """hourly/daily: {record time: {(system, parameter id): value text}}."""
    if not path:
        return

    def table(records, names):
        return {str(t): {"%d/tc_archives/%s" % (s + 1, names[pid]): [text, QUALITY]
                         for (s, pid), text in values.items()}
                for t, values in records.items()}

    data = {str(address): {"hourly": table(hourly, HOURLY_NAMES), "daily": table(daily, DAILY_NAMES)}}
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="utf-8") as f:
        json.dump(data, f, indent=1, sort_keys=True)
    os.replace(tmp, path)
