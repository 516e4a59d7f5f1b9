#!/usr/bin/env python3
"""ESKO MTR-06 / TM-3E heat-meter simulator on a pseudo-terminal.

One simulator serves several meters on one line, each at its own network address:

    esko_sim.py --link /tmp/ttyESKO --meter 1:mtr06 --meter 2:tm3e:5:3 --meter 3:mtr06:8:4:badpagecs,overclaim=500

--meter ADDR:MODEL[:HOURS[:DAYS[:FLAGS]]]
    MODEL   mtr06 or tm3e (the TM-3E reports a statistics version 0x4N)
    HOURS   hourly records kept, the newest closing the last complete local hour (default 48)
    DAYS    daily records kept, the newest dated today 00:00 (default 7)
    FLAGS   comma-separated: "badpagecs" (archive pages carry a wrong page checksum),
            "overclaim=N" (the "record rest" of a find answer claims N records more than
            the meter holds: a meter whose archive is shorter than it says)
--held-out PATH
    JSON file (written by write-and-rename at start and whenever the held archive
    changes) of every archive record each meter holds and what the daemon must file:
    {"<address>": {"hourly": {"<record time>": {"<sys+1>/tc_archives/<name>": ["<text>", 192]}},
                   "daily": {...}}}

Records are keyed by local date and hour in the zone of TZ. A record is dated by the
local label that ends its interval and its record time is the first instant of the
label before it: the hourly record dated 10:00 is the interval from 09:00, the daily
record dated the 6th the day of the 5th. A local hour that the zone repeats is one
label (one record); a local hour that the zone leaves out is none.

Requests are 14 bytes: 00, address, command letter, 10 parameter bytes, 8-bit sum.
Answers echo bytes 0..4 with bit 7 set on the command; data follows from byte 5
('A' pages: from byte 4). A date for which the meter holds no record is answered with
the error code 3 (bit 7 clear) in an answer of the length the request expects.
Requests to addresses that no meter has, and requests with a wrong sum, get no answer.

Besides the line faults of simlib, the control file (--control) takes these keys:
    "clock": "nonsense"        the clock answers 00.00.2000 00:00:00
    "clock_offset": SECONDS    the meter clock runs this far from the real one
    "no_record": [T, ...]      record times (unix) the meters do not hold (gaps): the
                               find answers them with code 3 and they are not held out
    "error_code": C, "error_every": N
                               every N-th archive find request is answered with the
                               error code C (not "no record"): the record is held, the
                               walk must stop there and come back for it

Data are deterministic (see the comments of Meter). Fault switches and baud pacing
come from simlib.
"""
import calendar
import datetime
import json
import os
import struct
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import simlib  # noqa: E402

HOURLY_BASE = 0x220
DAILY_BASE = 0x20
HOURLY_RING = 0x800 - HOURLY_BASE   # record indexes up to 0x7FF keep the byte address in 16 bits
DAILY_RING = HOURLY_BASE - DAILY_BASE
ERR_NO_RECORD = 3
QUALITY = 192
STEP = 900  # zone offsets change by whole quarter hours

# Archive file names (hourly, daily) of the page values, by parameter id.
NAMES = {6: ("A20", "A48"), 7: ("A21", "A49"), 9: ("A17", "A45"), 10: ("A18", "A46"), 14: ("A28", "A56"),
         17: ("A2", "A30"), 18: ("A3", "A31"), 19: ("A5", "A33"), 20: ("A7", "A35"), 22: ("A11", "A39"),
         23: ("A13", "A41"), 25: ("A23", "A51"), 26: ("A24", "A52"), 27: ("A25", "A53"), 28: ("A26", "A54"),
         29: ("A27", "A55")}


def bcd(v):
    v = int(v) % 100
    return ((v // 10) << 4) | (v % 10)


def bcd_digits(value, nbytes):
    text = "%0*d" % (nbytes * 2, value)
    text = text[-nbytes * 2:]
    return bytes(int(text[i:i + 2][0]) << 4 | int(text[i:i + 2][1]) for i in range(0, len(text), 2))


def from_bcd(b):
    return (b >> 4) * 10 + (b & 0x0F)


def fbe(x):
    return struct.pack(">f", x)


def f32_text(x):
    """A float as the meter sends it (32 bits), with 12 decimals."""
    return "%.12f" % struct.unpack(">f", fbe(x))[0]


def fixed_text(n, decimals):
    """The integer n / 10^decimals with exactly `decimals` decimals."""
    if decimals == 0:
        return str(n)
    sign = "-" if n < 0 else ""
    n = abs(n)
    return "%s%d.%0*d" % (sign, n // 10 ** decimals, decimals, n % 10 ** decimals)


def checksum(data):
    return sum(data) & 0xFF


def hour_label(t):
    lt = time.localtime(t)
    return (lt.tm_year, lt.tm_mon, lt.tm_mday, lt.tm_hour)


def day_label(t):
    lt = time.localtime(t)
    return (lt.tm_year, lt.tm_mon, lt.tm_mday, 0)


def first_instant(t, label_of):
    """The first instant of t's label: the earliest quarter hour that carries it."""
    label = label_of(t)
    t -= t % STEP
    while label_of(t - STEP) == label:
        t -= STEP
    return t


def labels_back(now, count, label_of):
    """The record labels of the newest `count` + 1 records (oldest first), each with its
    first instant; the newest is the label of `now`."""
    out = []
    t = first_instant(now, label_of)
    while len(out) < count + 1:
        out.append((label_of(t), t))
        t = first_instant(t - 1, label_of)
    out.reverse()
    return out


class Control:
    """The simulator's own keys of the control file, re-read when it changes."""

    def __init__(self, path):
        self.path = path
        self.mtime = None
        self.data = {}

    def current(self):
        if not self.path:
            return self.data
        try:
            mtime = os.stat(self.path).st_mtime_ns
        except OSError:
            self.data, self.mtime = {}, None
            return self.data
        if mtime != self.mtime:
            try:
                with open(self.path, encoding="utf-8") as f:
                    self.data = json.load(f)
                self.mtime = mtime
            except (OSError, ValueError):
                pass
        return self.data


class Meter:
    """Values of one meter (a = address, s = heat system 0..2):

    current ('G' at s*88 + offset, floats most significant byte first)
      0: error flags (32-bit) = s        8: P1 = 6.25+s, P2 = 4.5+s
      16: Psw = 3.75, t1 = 70.5+s+a      24: t2 = 40.25+s, tsw = 5.5
      48: G1 = 10.5+10a+s, G2 = 9.25+s   56: M1 = 10.25+s, M2 = 9+s
      0x4A76: ta = -5.5
    integrators ('R' 0x200 | s*76+offset, BCD): Qo = (10a+s)*1e9 + 123456789 (/1e9),
      IM1/IM2/V1/V2 = (10a+s)*1e6 + 500000/250000/750000/125000 (/1e6),
      Tp = 12345600+100a+s, TW = 1234500+s (/100)
    archive page of the record dated D (hour h, day of month m), key = h hourly, m daily,
      frac = 0.5 hourly, 0.25 daily:
      M1 = 100a + 10s + key + frac, M2 = M1 - 1, Qo = 0.125(s+1), V1 = M1 + 0.5, V2 = M2 + 0.5,
      t1 = 70 + s + key/100, t2 = 40 + s, P1 = 6.0 + 0.1s, P2 = 4.0, Tw = Tp = interval in minutes,
      error word = 0x11*s
    """

    def __init__(self, spec):
        parts = spec.split(":")
        self.addr = int(parts[0]) & 0xFF
        self.model = parts[1] if len(parts) > 1 and parts[1] else "mtr06"
        self.hours = int(parts[2]) if len(parts) > 2 and parts[2] else 48
        self.days = int(parts[3]) if len(parts) > 3 and parts[3] else 7
        flags = parts[4].split(",") if len(parts) > 4 else []
        self.bad_page_cs = "badpagecs" in flags
        self.overclaim = 0
        for flag in flags:
            if flag.startswith("overclaim="):
                self.overclaim = int(flag.split("=", 1)[1])
        self.control = {}
        self.finds = 0
        self.cache = {}
        self.mem = bytearray(0x300 + 16)
        self.build_memory()

    def build_memory(self):
        a, m = self.addr, self.mem
        m[0x00:0x08] = ("%08d" % (20160000 + a)).encode()
        m[0x10] = 96
        m[0x11] = a
        m[0x12] = 0x41 if self.model == "tm3e" else 0x31
        m[0x13:0x16] = bcd_digits(1234, 3)
        m[0x50:0x53] = bytes([0, 1, 2])        # circuit types
        m[0x53:0x56] = bytes([1, 2, 3])        # modes
        m[0x56] = 0x07                         # circuits on
        m[0x65:0x6B] = bytes([20, 40, 60, 10, 20, 30])     # Gmin, 1/20 %
        m[0x6B:0x71] = bytes([100, 90, 80, 100, 95, 85])   # Gmax, %
        m[0x81:0x89] = struct.pack(">4H", 250, 400, 250, 400)  # M1 s0, M1 s1, M2 s0, M2 s1 (0.1 m3/h)
        m[0x89:0x8D] = struct.pack(">2H", 630, 630)
        m[0xA8:0xB0] = struct.pack(">4H", 50, 80, 50, 80)      # DN1 s0, DN1 s1, DN2 s0, DN2 s1
        m[0xB0:0xB4] = struct.pack(">2H", 100, 100)
        m[0xD8:0xDC] = b"0205"
        for s in range(3):
            base = 0x200 + s * 76
            k = 10 * a + s
            m[base + 15:base + 19] = bcd_digits(12345600 + 100 * a + s, 4)
            m[base + 27:base + 34] = bcd_digits(k * 10**9 + 123456789, 7)
            m[base + 34:base + 41] = bcd_digits(k * 10**6 + 500000, 7)
            m[base + 41:base + 48] = bcd_digits(k * 10**6 + 250000, 7)
            m[base + 55:base + 62] = bcd_digits(k * 10**6 + 750000, 7)
            m[base + 62:base + 69] = bcd_digits(k * 10**6 + 125000, 7)
            m[base + 82:base + 86] = bcd_digits(1234500 + s, 4)

    # --- archive geometry ---
    def records(self, kind):
        """{label: (record number, record time)} of the records held, and the labels
        oldest first. Kind 0 hourly, 1 daily."""
        label_of = hour_label if kind == 0 else day_label
        count = self.hours if kind == 0 else self.days
        key = (kind, label_of(self.now), tuple(self.control.get("no_record", [])))
        if self.cache.get(kind, (None,))[0] != key:
            held, order = {}, []
            if count > 0:
                chain = labels_back(self.now, count, label_of)
                gaps = set(int(g) for g in self.control.get("no_record", []))
                for (_, start), (label, _) in zip(chain, chain[1:]):
                    if start in gaps:
                        continue
                    if kind == 0:
                        num = (calendar.timegm(label + (0, 0)) // 3600) % HOURLY_RING
                    else:
                        num = datetime.date(*label[:3]).toordinal() % DAILY_RING
                    held[label] = (num, start)
                    order.append(label)
            self.cache[kind] = (key, held, order)
        return self.cache[kind][1], self.cache[kind][2]

    def record_by_index(self, index):
        """(kind, label) of a record index, or None."""
        if HOURLY_BASE <= index < HOURLY_BASE + HOURLY_RING:
            kind, num = 0, index - HOURLY_BASE
        elif DAILY_BASE <= index < HOURLY_BASE:
            kind, num = 1, index - DAILY_BASE
        else:
            return None
        held, _ = self.records(kind)
        for label, (n, _) in held.items():
            if n == num:
                return kind, label
        return None

    def held_out(self):
        """What the daemon must file for every record held, by kind and record time."""
        out = {}
        for kind, name in ((0, "hourly"), (1, "daily")):
            held, _ = self.records(kind)
            section = {}
            for label, (_, start) in held.items():
                files = {}
                for sys_, pid, text in self.page_values(kind, label):
                    files["%d/tc_archives/%s" % (sys_ + 1, NAMES[pid][kind])] = [text, QUALITY]
                section[str(start)] = files
            out[name] = section
        return out

    def page_values(self, kind, label):
        """(system, parameter id, text as filed) of the page of the record dated label."""
        key, frac, minutes = (label[3], 0.5, 60) if kind == 0 else (label[2], 0.25, 1440)
        for s in range(3):
            m1 = 100 * self.addr + 10 * s + key + frac
            yield s, 22, f32_text(m1)
            yield s, 23, f32_text(m1 - 1)
            yield s, 17, f32_text(0.125 * (s + 1))
            yield s, 19, f32_text(m1 + 0.5)
            yield s, 20, f32_text(m1 - 0.5)
            yield s, 6, fixed_text(7000 + 100 * s + key, 2)
            yield s, 7, fixed_text(4000 + 100 * s, 2)
            yield s, 9, fixed_text(60 + s, 1)
            yield s, 10, fixed_text(40, 1)
            for pid, v in ((25, 0), (26, 0), (18, minutes), (27, 0), (28, minutes), (29, 0)):
                yield s, pid, str(v)
            yield s, 14, str(0x11 * s)

    def page(self, kind, label):
        """The 256 page bytes of the record of the kind (0 hourly, 1 daily) dated label."""
        year, month, day, hour = label
        key, frac, minutes = (hour, 0.5, 60) if kind == 0 else (day, 0.25, 1440)
        p = bytearray(256)
        p[0:5] = bytes([bcd(year - 2000), bcd(month), bcd(day), bcd(hour), 0])
        pos = 5
        for s in range(3):
            m1 = 100 * self.addr + 10 * s + key + frac
            block = (fbe(m1) + fbe(m1 - 1) + fbe(0.125 * (s + 1)) + fbe(m1 + 0.5) + fbe(m1 - 0.5) +
                     struct.pack(">hh", 7000 + 100 * s + key, 4000 + 100 * s) +
                     bytes([60 + s, 40]) +
                     struct.pack(">8H", 0, 0, minutes, 0, minutes, 0, 0, 0) + bytes(6))
            assert len(block) == 48
            p[pos:pos + 48] = block
            pos += 48
        p[pos:pos + 6] = struct.pack(">3H", 0, 0x11, 0x22)
        p[255] = (~checksum(p[0:255])) & 0xFF
        if self.bad_page_cs:
            p[255] ^= 0x5A
        return bytes(p)

    # --- answers ---
    def answer(self, req, control):
        self.now = int(time.time())
        self.control = control
        cmd = req[2]
        head = bytes([0, self.addr, cmd | 0x80, req[3], req[4]])
        if cmd == ord("R"):
            a = (req[3] << 8) | req[4]
            if a >= len(self.mem) - 8:
                return self.error(req)
            return head + bytes(self.mem[a:a + 8])
        if cmd == ord("G"):
            return head + self.current((req[3] << 8) | req[4])
        if cmd == ord("T"):
            if self.control.get("clock") == "nonsense":
                return head + bytes([0, 0, 0, 0, 0, 0, 0, 0])
            lt = time.localtime(self.now + int(self.control.get("clock_offset", 0)))
            return head + bytes([bcd(lt.tm_year - 2000), bcd(lt.tm_mon), bcd(lt.tm_mday), bcd(lt.tm_hour),
                                 bcd(lt.tm_min), bcd(lt.tm_sec), 0, 0])
        if cmd == ord("L"):
            rec = self.record_by_index(((req[3] << 8) | req[4]) // 32)
            if rec is None:
                return self.error(req)
            year, month, day, hour = rec[1]
            return head + bytes([bcd(year - 2000), bcd(month), bcd(day), bcd(hour), 0, 0, 0, 0])
        if cmd == ord("A"):
            return self.archive(req)
        if cmd == ord("Q"):
            return bytes([0])
        return self.error(req)

    def current(self, address):
        if address == 0x4A76:
            return fbe(-5.5) + bytes(4)
        s, off = divmod(address, 88)
        if s > 2:
            return bytes(8)
        table = {
            0: struct.pack(">I", s) + bytes(4),
            8: fbe(6.25 + s) + fbe(4.5 + s),
            16: fbe(3.75) + fbe(70.5 + s + self.addr),
            24: fbe(40.25 + s) + fbe(5.5),
            48: fbe(10.5 + 10 * self.addr + s) + fbe(9.25 + s),
            56: fbe(10.25 + s) + fbe(9.0 + s),
        }
        return table.get(off, bytes(8))

    @staticmethod
    def request_label(req, kind):
        return (2000 + from_bcd(req[5]), from_bcd(req[6]), from_bcd(req[7]), from_bcd(req[8]) if kind == 0 else 0)

    def archive(self, req):
        sub, kind = req[3], req[4]
        if sub == 1:  # record by index
            rec = self.record_by_index((req[4] << 8) | req[5])
            if rec is None:
                return self.error(req)
            return bytes([0, self.addr, 0xC1, 1]) + self.page(*rec)
        if sub not in (3, 4) or kind not in (0, 1):
            return self.error(req)
        held, order = self.records(kind)
        label = self.request_label(req, kind)
        if label not in held:
            return self.error(req)
        if sub == 4:  # page by date
            return bytes([0, self.addr, 0xC1, 4]) + self.page(kind, label)
        # find by date: record number, count of older records
        self.finds += 1
        every = int(self.control.get("error_every", 0))
        if every > 0 and self.finds % every == 0:
            return self.error(req, int(self.control.get("error_code", 5)))
        rest = order.index(label) + self.overclaim
        return bytes([0, self.addr, 0xC1, 3, kind]) + struct.pack(">HH", held[label][0], min(rest, 0xFFFF)) + bytes(4)

    def error(self, req, code=ERR_NO_RECORD):
        """An error answer as long as the answer the request expects (without the sum)."""
        n = 260 if (req[2] == ord("A") and req[3] != 3) else 13
        return bytes([0, self.addr, code]) + bytes(n - 3)


class EskoProtocol:
    @staticmethod
    def add_arguments(parser):
        parser.add_argument("--meter", action="append", default=[],
                            help="ADDR:MODEL[:HOURS[:DAYS[:FLAGS]]], repeatable")
        parser.add_argument("--held-out", default=None,
                            help="JSON file listing every archive record the meters hold")

    def __init__(self, args):
        self.meters = {}
        for spec in args.meter or ["1:mtr06"]:
            m = Meter(spec)
            self.meters[m.addr] = m
        self.control = Control(args.control)
        self.held_out_path = args.held_out
        self.held_out_text = None
        self.lock = threading.Lock()
        if self.held_out_path:
            self.write_held_out()
            threading.Thread(target=self.keep_held_out, daemon=True).start()

    def write_held_out(self):
        with self.lock:
            control = self.control.current()
            data = {}
            for addr, meter in sorted(self.meters.items()):
                meter.now = int(time.time())
                meter.control = control
                data[str(addr)] = meter.held_out()
        text = json.dumps(data, sort_keys=True)
        if text == self.held_out_text:
            return
        tmp = self.held_out_path + ".tmp"
        with open(tmp, "w", encoding="utf-8") as f:
            f.write(text)
        os.replace(tmp, self.held_out_path)
        self.held_out_text = text

    def keep_held_out(self):
        while True:
            time.sleep(1.0)
            try:
                self.write_held_out()
            except OSError:
                pass

    def frame_length(self, buf):
        return 14 if buf[0] == 0 else 0

    def respond(self, request):
        if checksum(request[:13]) != request[13]:
            return None
        meter = self.meters.get(request[1])
        if meter is None:
            return None
        with self.lock:
            body = meter.answer(request, self.control.current())
        if len(body) == 1:
            return body
        return body + bytes([checksum(body)])

    def corrupt_checksum(self, reply):
        return reply[:-1] + bytes([(reply[-1] + 1) & 0xFF])


if __name__ == "__main__":
    time.tzset()
    sys.exit(simlib.main_with(EskoProtocol, "ESKO MTR-06 / TM-3E simulator"))
