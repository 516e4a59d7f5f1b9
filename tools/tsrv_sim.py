#!/usr/bin/env python3
"""Vzlet TSRV-024M heat calculator on a pseudo-terminal, as a Modbus RTU slave.

    tsrv_sim.py --link /tmp/ttyTSRV [--address 1] [--systems 2] [--hours 48] [--days 4]
                [--missing-hours 5,9] [--totals intfrac|float] [--held-out PATH]

Answers function 17 (device string "Vzljot TSRV-024M 01.02.03.04"), function 4 (input
registers: clock, electronic number, operating times, flags, totals of 4 registers,
per-pipe blocks, powers, outdoor temperature) and function 65 (archive records by time,
one per request; 172-byte records of the TSRV-024M, big-endian like the registers).
The archive holds --hours hourly records up to the last complete local hour and --days
daily records up to yesterday; the hourly records counted by --missing-hours (1 = the
newest) are not held: asking for them, or for any other time, gives the all-zero record.
The meter clock counts local time as if it were UTC.

Record values of system s for the local hour h (daily records: h = day of month):
  heat = 0.25(s+1) + 0.5h Gcal, pipe k mass = 10(k+1) + s + h + 0.5 t, volume = mass + 0.25,
  mean temperature = (7000 + 100s - 500k + h) / 100 °C, pressure = (600 + 10s - 100k) / 1000 MPa,
  normal time = period - 5 min, stoppage = 5 min, flags = s.
Faults: simlib's control file; {"exception": code} answers everything with that code;
{"fault_once": {"<record time>": "exception"|"silent"|"bad_checksum"}} spoils the first
request for that record.
"""
import argparse
import calendar
import os
import struct
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import modbuslib  # noqa: E402
import simlib  # noqa: E402

RECORD = 172


class Tsrv:
    # an RTU slave takes a request as ended after 3.5 characters of quiet
    silence_chars = 3.5

    @staticmethod
    def add_arguments(parser):
        parser.add_argument("--address", type=int, default=1)
        parser.add_argument("--systems", type=int, default=2)
        parser.add_argument("--hours", type=int, default=48)
        parser.add_argument("--days", type=int, default=4)
        parser.add_argument("--missing-hours", default="")
        parser.add_argument("--totals", choices=("intfrac", "float"), default="intfrac")
        parser.add_argument("--held-out", default=None)

    def __init__(self, args):
        self.args = args
        self.extra = modbuslib.Extra(args.control)
        self.missing = {int(x) for x in args.missing_hours.split(",") if x.strip()}
        self.used = {}
        self.key = None
        self.refresh()

    # --- the archive ---
    def refresh(self):
        now = time.time()
        hours = modbuslib.local_hours(now, self.args.hours)
        days = modbuslib.local_days(now, self.args.days)
        key = (tuple(hours), tuple(days))
        if key == self.key:
            return
        self.key = key
        held = [t for i, t in enumerate(reversed(hours), 1) if i not in self.missing]
        self.hourly = {modbuslib.label_of(t): t for t in held}
        self.daily = {modbuslib.label_of(t)[:3]: t for t in days}
        expect_h = {t: self.values(t, True) for t in held}
        expect_d = {t: self.values(t, False) for t in days}
        modbuslib.write_held_out(self.args.held_out, self.args.address, expect_h, expect_d)

    def fields(self, t, hourly, s):
        lt = time.localtime(t)
        h = lt.tm_hour if hourly else lt.tm_mday
        period = 60 if hourly else 1440
        heat = 0.25 * (s + 1) + 0.5 * h
        mass = [10 * (k + 1) + s + h + 0.5 for k in range(4)]
        volume = [m + 0.25 for m in mass]
        temp = [7000 + 100 * s - 500 * k + h for k in range(4)]
        press = [max(0, 600 + 10 * s - 100 * k) for k in range(4)]
        return dict(heat=heat, mass=mass, volume=volume, temp=temp, press=press, normal=period - 5, stop=5, flags=s)

    def values(self, t, hourly):
        out = {}
        for s in range(self.args.systems):
            f = self.fields(t, hourly, s)
            out[(s, 14)] = str(f["flags"])
            out[(s, 17)] = "%g" % f["heat"]
            out[(s, 18)] = str(f["normal"])
            out[(s, 29)] = str(f["stop"])
            for k in range(3):
                out[(s, 6 + k)] = "%.2f" % (f["temp"][k] / 100.0)
                out[(s, 9 + k)] = "%.3f" % (f["press"][k] / 1000.0)
                out[(s, 19 + k)] = "%g" % f["volume"][k]
                out[(s, 22 + k)] = "%g" % f["mass"][k]
        return out

    def record(self, t, hourly, s):
        f = self.fields(t, hourly, s)
        lt = time.localtime(t)
        stamp = calendar.timegm((lt.tm_year, lt.tm_mon, lt.tm_mday, lt.tm_hour if hourly else 0, 0, 0))
        r = bytearray(RECORD)
        struct.pack_into(">IHHHHH", r, 0, stamp, f["normal"], 0, 0, f["stop"], 0)
        struct.pack_into(">HI", r, 78, 2, f["flags"])
        r[84:96] = modbuslib.f32(f["heat"]) + modbuslib.f32(0.0) + modbuslib.f32(sum(f["mass"]))
        for k in range(4):
            r[96 + 4 * k:100 + 4 * k] = modbuslib.f32(0.0)
            r[112 + 4 * k:116 + 4 * k] = modbuslib.f32(f["mass"][k])
            r[128 + 4 * k:132 + 4 * k] = modbuslib.f32(f["volume"][k])
            struct.pack_into(">H", r, 144 + 2 * k, f["temp"][k])
            struct.pack_into(">h", r, 152 + 2 * k, f["temp"][k])
            struct.pack_into(">H", r, 160 + 2 * k, f["press"][k])
        struct.pack_into(">H", r, 168, 500)
        struct.pack_into(">H", r, 170, sum(r[:170]) & 0xFFFF)
        return bytes(r)

    def archive(self, req):
        array = (req[2] << 8) | req[3]
        count = (req[4] << 8) | req[5]
        if req[6] != 1 or count != 1 or array > 8:
            return modbuslib.exception(req[0], 0x41, 3)
        ss, mm, hh, dd, mo, yy = req[7:13]
        year = 1900 + yy if yy >= 70 else 2000 + yy
        s, kind = divmod(array, 3)
        data, t = bytes(RECORD), None
        if s < self.args.systems and kind == 0 and (year, mo, dd, hh) in self.hourly:
            t = self.hourly[(year, mo, dd, hh)]
            data = self.record(t, True, s)
        elif s < self.args.systems and kind == 1 and (year, mo, dd) in self.daily:
            t = self.daily[(year, mo, dd)]
            data = self.record(t, False, s)
        reply = modbuslib.with_crc(bytes([req[0], 0x41, len(data)]) + data)
        return modbuslib.play_fault(self.extra.once(t, self.used), reply) if t is not None else reply

    # --- input registers ---
    def total(self, value):
        if self.args.totals == "float":
            return modbuslib.f32(value) + bytes(4)
        whole = int(value)
        return struct.pack(">I", whole) + modbuslib.f32(value - whole)

    def registers(self):
        """Input register bytes by physical address."""
        now = time.time()
        lt = time.localtime(now)
        regs = {}

        def put(address, data):
            for i in range(0, len(data), 2):
                regs[address + i // 2] = data[i:i + 2]

        put(0x8000, struct.pack(">I", calendar.timegm(lt[:6])))
        put(0x8002, struct.pack(">I", 240000 + self.args.address))
        put(0xC6BE, modbuslib.f32(-7.5))
        for n in range(3):
            put(0x8016 + 0x0E * n, struct.pack(">IIIIII", 1000 + n, 5, 1, 2, 3, 4))
            put(0x806A + 2 * n, struct.pack(">I", 0x10 * n))
            put(0xC0BE + 0x18 * n, self.total(12345.5 + n) + self.total(100.25) + self.total(5000.75 + n))
            for k in range(4):
                base = 0xC106 + 0x18 * k + 0x60 * n
                put(base, bytes(12) + b"".join(modbuslib.f32(x) for x in (65.5 - 10 * k + n, 0.625 - 0.125 * k, 2.5 + k,
                                                                 2.25 + k, 60.0, 980.0, 0.125)))
                put(0xC234 + 0x3C * k + 0xF0 * n, self.total(50.5 + k) + self.total(1000.5 + 10 * k + n) +
                    self.total(1001.25 + 10 * k + n))
        return regs

    def read_input(self, req):
        start = (req[2] << 8) | req[3]
        count = (req[4] << 8) | req[5]
        if not 1 <= count <= 125:
            return modbuslib.exception(req[0], 4, 3)
        regs = self.registers()
        data = b"".join(regs.get(start + i, b"\0\0") for i in range(count))
        return modbuslib.with_crc(bytes([req[0], 4, len(data)]) + data)

    # --- simlib protocol ---
    def frame_length(self, buf):
        def user(b):
            if b[1] != 0x41:
                return 0
            if len(b) < 7:
                return None
            return 15 if b[6] == 1 else 11
        return modbuslib.request_length(buf, user)

    def respond(self, req):
        if not modbuslib.crc_ok(req) or req[0] != self.args.address:
            return None
        self.refresh()
        code = self.extra.get("exception", 0)
        if code:
            return modbuslib.exception(req[0], req[1], int(code))
        if req[1] == 0x41:
            return self.archive(req)
        if req[1] == 4:
            return self.read_input(req)
        if req[1] == 0x11:
            text = b"Vzljot TSRV-024M 01.02.03.04\0" + bytes(20) + bytes([125])
            return modbuslib.with_crc(bytes([req[0], 0x11, len(text)]) + text)
        return modbuslib.exception(req[0], req[1], 1)

    def corrupt_checksum(self, reply):
        return reply[:-1] + bytes([reply[-1] ^ 0x55])


if __name__ == "__main__":
    sys.exit(simlib.main_with(Tsrv, "TSRV-024M simulator (Modbus RTU)"))
