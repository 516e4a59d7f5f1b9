#!/usr/bin/env python3
"""MAGIKA heat meter behind its Modbus RTU gateway, on a pseudo-terminal.

    magika_sim.py --link /tmp/ttyMAGIKA [--address 1] [--hours 48] [--days 4]
                  [--missing-hours 5,9] [--no-search] [--count-form printed|standard]
                  [--held-out PATH]

Input registers (function 4; wire address = the maker's register number - 1): meter
number "MG0012NN" (NN = address) in 0..3, version 2.19 in 4, the clock as BCD words
(year,month / day,hour / minute,second) in 15..17, floats of flows, temperatures,
powers, pressures (atm), mass totals, heat totals and operating times from 100 on.
Archives: function 6 commands to register 1001 (wire 1000): daily 1 start, 2 next,
4 end, 10 search; hourly 5, 6, 8, 11. Register 1002 (wire 1001) holds the length of the
template or line in the buffer at 1003 (wire 1002), 0 after the oldest line, and the
search state after a search (1 searching, 2 found, 3 not found). The search key is
written to 1003-1004 (DD MM YY HH, BCD; daily lines compare DD MM YY). After "found"
the next line delivered is the one after (older than) the found line. Reads of the
buffer answer with the printed form "addr 04 00 LEN data" unless --count-form standard.
--no-search plays an older gateway: the search commands get exception 3.

Two heat systems, pipes 1,2 and 3,4. Line values for the local hour h (daily: day of
month d): Mi = 10i + h + 0.5 t, Q1 = 0.25 + 0.5h, Q2 = 0.75 + 0.5h Gcal,
Ti = 70 - 10i + h/4 °C, Pi = 6 - 0.5i atm, TNORM1 = period - 2, TNORM2 = period,
TMIN1 = 2, MODES = 1, ERRORCODE1 = 0x80, ERRORCODE2 = 0.
Faults: simlib's control file; {"exception": code} answers everything with that code;
{"fault_once": {"<record time>": "exception"|"silent"|"bad_checksum"}} spoils the first
read of that line.
"""
import os
import struct
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import modbuslib  # noqa: E402
import simlib  # noqa: E402

HOURLY_TEMPLATE = "DATE HOUR M1 M2 M3 M4 Q1 Q2 T1 T2 T3 T4 P1 P2 P3 P4 TNORM1 TNORM2 TMIN1 TMAX1 MODES ERRORCODE1 ERRORCODE2"
DAILY_TEMPLATE = "DATE M1 M2 M3 M4 Q1 Q2 T1 T2 T3 T4 P1 P2 P3 P4 uM1 pM1 TNORM1 TNORM2 TMIN1 MODES ERRORCODE1 ERRORCODE2"
PIPES = {0: (1, 2), 1: (3, 4)}


def bcd(v):
    return ((v // 10 % 10) << 4) | (v % 10)


class Magika:
    # an RTU slave takes a request as ended after 3.5 characters of quiet
    silence_chars = 3.5

    @staticmethod
    def add_arguments(parser):
        parser.add_argument("--address", type=int, default=1)
        parser.add_argument("--hours", type=int, default=48)
        parser.add_argument("--days", type=int, default=4)
        parser.add_argument("--missing-hours", default="")
        parser.add_argument("--no-search", action="store_true")
        parser.add_argument("--count-form", choices=("printed", "standard"), default="printed")
        parser.add_argument("--held-out", default=None)

    def __init__(self, args):
        self.args = args
        self.extra = modbuslib.Extra(args.control)
        self.missing = {int(x) for x in args.missing_hours.split(",") if x.strip()}
        self.used = {}
        self.key = None
        self.buffer = b""
        self.length = 0
        self.lines = []      # the running transfer, newest first
        self.cursor = -1
        self.hourly_mode = True
        self.search_key = bytearray(4)
        self.refresh()

    def refresh(self):
        now = time.time()
        hours = modbuslib.local_hours(now, self.args.hours)
        days = modbuslib.local_days(now, self.args.days)
        if (tuple(hours), tuple(days)) == self.key:
            return
        self.key = (tuple(hours), tuple(days))
        self.hours = [t for i, t in enumerate(reversed(hours), 1) if i not in self.missing]  # newest first
        self.days = list(reversed(days))
        modbuslib.write_held_out(self.args.held_out, self.args.address,
                                 {t: self.expected(t, True) for t in self.hours},
                                 {t: self.expected(t, False) for t in self.days})

    def numbers(self, t, hourly):
        lt = time.localtime(t)
        h = lt.tm_hour if hourly else lt.tm_mday
        period = 60 if hourly else 1440
        return dict(M=[10 * i + h + 0.5 for i in range(1, 5)], Q=[0.25 + 0.5 * h, 0.75 + 0.5 * h],
                    T=[70 - 10 * i + h / 4.0 for i in range(1, 5)], P=[6 - 0.5 * i for i in range(1, 5)],
                    TNORM=[period - 2, period], ERR=[0x80, 0], lt=lt)

    def expected(self, t, hourly):
        v = self.numbers(t, hourly)
        out = {}
        for s, pipes in PIPES.items():
            out[(s, 14)] = str(v["ERR"][s])
            out[(s, 17)] = "%g" % v["Q"][s]
            out[(s, 18)] = str(v["TNORM"][s])
            for k, p in enumerate(pipes):
                out[(s, 6 + k)] = "%g" % v["T"][p - 1]
                out[(s, 9 + k)] = "%g" % v["P"][p - 1]
                out[(s, 22 + k)] = "%g" % v["M"][p - 1]
        return out

    def line(self, t, hourly):
        v = self.numbers(t, hourly)
        lt = v["lt"]
        small = (lambda x: bytes([x])) if hourly else (lambda x: struct.pack(">H", x))
        data = bytes([bcd(lt.tm_mday), bcd(lt.tm_mon), bcd(lt.tm_year % 100)])
        if hourly:
            data += bytes([bcd(lt.tm_hour)])
        data += b"".join(modbuslib.f32(x) for x in v["M"] + v["Q"] + v["T"] + v["P"])
        if not hourly:
            data += modbuslib.f32(0.0) + modbuslib.f32(0.0)
        data += small(v["TNORM"][0]) + small(v["TNORM"][1]) + small(2)
        if hourly:
            data += small(0)
        data += bytes([1, v["ERR"][0], v["ERR"][1]])
        return data

    # --- registers ---
    def input_registers(self):
        lt = time.localtime()
        regs = {}

        def put(address, data):
            for i in range(0, len(data), 2):
                regs[address + i // 2] = data[i:i + 2]

        put(0, ("MG0012%02d" % (self.args.address % 100)).encode())
        put(4, bytes([2, 19]))
        put(15, bytes([bcd(lt.tm_year % 100), bcd(lt.tm_mon), bcd(lt.tm_mday), bcd(lt.tm_hour),
                       bcd(lt.tm_min), bcd(lt.tm_sec)]))
        for i in range(10):
            put(100 + 2 * i, modbuslib.f32(2.5 + i))
            put(120 + 2 * i, modbuslib.f32(2.25 + i))
            put(140 + 2 * i, modbuslib.f32(65.5 - 5 * i))
            put(170 + 2 * i, modbuslib.f32(6.0 - 0.5 * i))
            put(400 + 2 * i, modbuslib.f32(1000.5 + 10 * i))
        for s in range(4):
            put(160 + 2 * s, modbuslib.f32(0.125 * (s + 1)))
            put(420 + 2 * s, modbuslib.f32(1234.5 + s))
        put(430, modbuslib.f32(5000.0))
        for s in range(5):
            put(432 + 2 * s, modbuslib.f32(4000.0 + s))
        put(1001, struct.pack(">H", self.length))
        return regs

    def read(self, req):
        start = (req[2] << 8) | req[3]
        count = (req[4] << 8) | req[5]
        if not 1 <= count <= 125:
            return modbuslib.exception(req[0], 4, 3)
        if start in (1002, 1127):
            offset = 0 if start == 1002 else 250
            data = self.buffer[offset:offset + 2 * count].ljust(2 * count, b"\0")
            head = bytes([0, len(data)]) if self.args.count_form == "printed" else bytes([len(data)])
            reply = modbuslib.with_crc(bytes([req[0], 4]) + head + data)
            if 0 <= self.cursor < len(self.lines) and self.length and start == 1002:
                return modbuslib.play_fault(self.extra.once(self.lines[self.cursor], self.used), reply)
            return reply
        regs = self.input_registers()
        data = b"".join(regs.get(start + i, b"\0\0") for i in range(count))
        return modbuslib.with_crc(bytes([req[0], 4, len(data)]) + data)

    def command(self, value):
        if value in (5, 1):
            self.hourly_mode = value == 5
            self.lines = self.hours if self.hourly_mode else self.days
            self.cursor = -1
            text = (HOURLY_TEMPLATE if self.hourly_mode else DAILY_TEMPLATE).encode()
            self.buffer, self.length = text, len(text)
        elif value in (6, 2):
            self.cursor += 1
            if 0 <= self.cursor < len(self.lines):
                self.buffer = self.line(self.lines[self.cursor], self.hourly_mode)
                self.length = len(self.buffer)
            else:
                self.buffer, self.length = b"", 0
        elif value in (8, 4):
            self.lines, self.buffer, self.length = [], b"", 0
        elif value in (11, 10):
            if self.args.no_search:
                return False
            self.searching = 0
            self.length = 1
        else:
            return False
        return True

    def search(self):
        key = bytes(self.search_key)
        n = 4 if self.hourly_mode else 3
        for i, t in enumerate(self.lines):
            if self.line(t, self.hourly_mode)[:n] == key[:n]:
                self.cursor = i
                self.length = 2
                return
        self.length = 3

    def respond(self, req):
        if not modbuslib.crc_ok(req) or req[0] != self.args.address:
            return None
        self.refresh()
        code = self.extra.get("exception", 0)
        if code:
            return modbuslib.exception(req[0], req[1], int(code))
        if req[1] == 4:
            return self.read(req)
        if req[1] == 6:
            reg, value = (req[2] << 8) | req[3], (req[4] << 8) | req[5]
            if reg == 1000:
                if not self.command(value):
                    return modbuslib.exception(req[0], 6, 3)
            elif reg in (1002, 1003) and self.length in (1, 2, 3):
                self.search_key[2 * (reg - 1002):2 * (reg - 1002) + 2] = req[4:6]
                if reg == 1003:
                    self.search()
            else:
                return modbuslib.exception(req[0], 6, 2)
            return req
        if req[1] == 0x10:
            reg, count = (req[2] << 8) | req[3], (req[4] << 8) | req[5]
            if reg != 1002 or count != 2 or req[6] != 4:
                return modbuslib.exception(req[0], 0x10, 2)
            self.search_key[:] = req[7:11]
            self.search()
            return modbuslib.with_crc(req[:6])
        return modbuslib.exception(req[0], req[1], 1)

    def frame_length(self, buf):
        return modbuslib.request_length(buf)

    def corrupt_checksum(self, reply):
        return reply[:-1] + bytes([reply[-1] ^ 0x55])


if __name__ == "__main__":
    sys.exit(simlib.main_with(Magika, "MAGIKA gateway simulator (Modbus RTU)"))
