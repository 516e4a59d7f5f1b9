#!/usr/bin/env python3
"""ESKO MTR-06 / TM-3E heat-meter simulator on a pseudo-terminal.

One simulator serves several meters on one line, each at its own network address:

    esko_sim.py --link /tmp/ttyESKO --meter 1:mtr06 --meter 2:tm3e:5:3 --meter 3:mtr06:8:4:badpagecs

--meter ADDR:MODEL[:HOURS[:DAYS[:FLAGS]]]
    MODEL   mtr06 or tm3e (the TM-3E reports a statistics version 0x4N)
    HOURS   hourly records kept, the newest closing the last complete hour (default 48)
    DAYS    daily records kept, the newest dated today 00:00 (default 7)
    FLAGS   "badpagecs": archive pages carry a wrong page checksum

Requests are 14 bytes: 00, address, command letter, 10 parameter bytes, 8-bit sum.
Answers echo bytes 0..4 with bit 7 set on the command; data follows from byte 5
('A' pages: from byte 4). A missing record is answered with the error code 3 (bit 7
clear) in an answer of the length the request expects. Requests to addresses that no
meter has, and requests with a wrong sum, get no answer.

Data are deterministic (see the comments of Meter): tests compute the expected values
from the same rules. Fault switches and baud pacing come from simlib.
"""
import datetime
import os
import struct
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import simlib  # noqa: E402

HOURLY_BASE = 0x220
DAILY_BASE = 0x20
HOURLY_RING = 0x800 - HOURLY_BASE   # record indexes up to 0x7FF keep the byte address in 16 bits
DAILY_RING = HOURLY_BASE - DAILY_BASE
ERR_NO_RECORD = 3


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


def checksum(data):
    return sum(data) & 0xFF


def hour_start(t):
    lt = time.localtime(t)
    return int(time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday, lt.tm_hour, 0, 0, 0, 0, -1)))


def midnight(d):
    return int(time.mktime((d.year, d.month, d.day, 0, 0, 0, 0, 0, -1)))


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
    def newest_hour(self, now):
        return hour_start(now)

    def oldest_hour(self, now):
        return self.newest_hour(now) - (self.hours - 1) * 3600

    def today(self, now):
        return datetime.date.fromtimestamp(now)

    def oldest_day(self, now):
        return self.today(now) - datetime.timedelta(days=self.days - 1)

    @staticmethod
    def hour_recnum(t):
        return (t // 3600) % HOURLY_RING

    @staticmethod
    def day_recnum(d):
        return d.toordinal() % DAILY_RING

    def hourly_exists(self, t):
        return self.hours > 0 and self.oldest_hour(self.now) <= t <= self.newest_hour(self.now) and t % 3600 == \
            self.newest_hour(self.now) % 3600

    def daily_exists(self, d):
        return self.days > 0 and self.oldest_day(self.now) <= d <= self.today(self.now)

    def hour_by_recnum(self, r):
        newest = self.newest_hour(self.now)
        t = newest - ((self.hour_recnum(newest) - r) % HOURLY_RING) * 3600
        return t if self.hourly_exists(t) else None

    def day_by_recnum(self, r):
        today = self.today(self.now)
        d = today - datetime.timedelta(days=(self.day_recnum(today) - r) % DAILY_RING)
        return d if self.daily_exists(d) else None

    def record_by_index(self, index):
        """(kind, record time) of a record index, or None."""
        if HOURLY_BASE <= index < HOURLY_BASE + HOURLY_RING:
            t = self.hour_by_recnum(index - HOURLY_BASE)
            return (0, t) if t is not None else None
        if DAILY_BASE <= index < HOURLY_BASE:
            d = self.day_by_recnum(index - DAILY_BASE)
            return (1, midnight(d)) if d is not None else None
        return None

    def page(self, kind, t):
        """The 256 page bytes of the record of the kind (0 hourly, 1 daily) dated t."""
        lt = time.localtime(t)
        key, frac, minutes = (lt.tm_hour, 0.5, 60) if kind == 0 else (lt.tm_mday, 0.25, 1440)
        p = bytearray(256)
        p[0:5] = bytes([bcd(lt.tm_year - 2000), bcd(lt.tm_mon), bcd(lt.tm_mday), bcd(lt.tm_hour), bcd(lt.tm_min)])
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
    def answer(self, req):
        self.now = int(time.time())
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
            lt = time.localtime(self.now)
            return head + bytes([bcd(lt.tm_year - 2000), bcd(lt.tm_mon), bcd(lt.tm_mday), bcd(lt.tm_hour),
                                 bcd(lt.tm_min), bcd(lt.tm_sec), 0, 0])
        if cmd == ord("L"):
            address = (req[3] << 8) | req[4]
            rec = self.record_by_index(address // 32)
            if rec is None:
                return self.error(req)
            lt = time.localtime(rec[1])
            return head + bytes([bcd(lt.tm_year - 2000), bcd(lt.tm_mon), bcd(lt.tm_mday), bcd(lt.tm_hour),
                                 bcd(lt.tm_min), 0, 0, 0])
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

    def request_date(self, req, kind):
        try:
            if kind == 0:
                return int(time.mktime((2000 + from_bcd(req[5]), from_bcd(req[6]), from_bcd(req[7]),
                                        from_bcd(req[8]), 0, 0, 0, 0, -1)))
            return datetime.date(2000 + from_bcd(req[5]), from_bcd(req[6]), from_bcd(req[7]))
        except (ValueError, OverflowError):
            return None

    def archive(self, req):
        sub, kind = req[3], req[4]
        if sub == 3:  # find by date: record number, count of older records
            when = self.request_date(req, kind)
            if kind == 0 and when is not None and self.hourly_exists(when):
                num, rest = self.hour_recnum(when), (when - self.oldest_hour(self.now)) // 3600
            elif kind == 1 and when is not None and self.daily_exists(when):
                num, rest = self.day_recnum(when), (when - self.oldest_day(self.now)).days
            else:
                return self.error(req)
            return bytes([0, self.addr, 0xC1, 3, kind]) + struct.pack(">HH", num, rest) + bytes(4)
        if sub == 1:  # record by index
            rec = self.record_by_index((req[4] << 8) | req[5])
            if rec is None:
                return self.error(req)
            return bytes([0, self.addr, 0xC1, 1]) + self.page(*rec)
        if sub == 4:  # page by date
            when = self.request_date(req, kind)
            if kind == 0 and when is not None and self.hourly_exists(when):
                return bytes([0, self.addr, 0xC1, 4]) + self.page(0, when)
            if kind == 1 and when is not None and self.daily_exists(when):
                return bytes([0, self.addr, 0xC1, 4]) + self.page(1, midnight(when))
            return self.error(req)
        return self.error(req)

    def error(self, req, code=ERR_NO_RECORD):
        """An error answer as long as the answer the request expects (without the sum)."""
        n = 260 if (req[2] == ord("A") and req[3] != 3) else 13
        return bytes([0, self.addr, code]) + bytes(n - 3)


class EskoProtocol:
    @staticmethod
    def add_arguments(parser):
        parser.add_argument("--meter", action="append", default=[],
                            help="ADDR:MODEL[:HOURS[:DAYS[:FLAGS]]], repeatable")

    def __init__(self, args):
        self.meters = {}
        for spec in args.meter or ["1:mtr06"]:
            m = Meter(spec)
            self.meters[m.addr] = m

    def frame_length(self, buf):
        return 14 if buf[0] == 0 else 0

    def respond(self, request):
        if checksum(request[:13]) != request[13]:
            return None
        meter = self.meters.get(request[1])
        if meter is None:
            return None
        body = meter.answer(request)
        if len(body) == 1:
            return body
        return body + bytes([checksum(body)])

    def corrupt_checksum(self, reply):
        return reply[:-1] + bytes([(reply[-1] + 1) & 0xFF])


if __name__ == "__main__":
    sys.exit(simlib.main_with(EskoProtocol, "ESKO MTR-06 / TM-3E simulator"))
