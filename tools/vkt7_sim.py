#!/usr/bin/env python3
"""Plays a VKT-7 heat calculator on a pseudo-terminal (see tools/simlib.py for the
line, pacing and fault switches).

The meter works by selection: a data-type code written to 0x3FFD, an element list
written to 0x3FFF and, for archives, a date written to 0x3FFB choose what a read of
0x3FFE returns. Further reads: 0x3FFC active elements, 0x3FF9 system data, 0x3FF6
archive bounds and date, 0x3FFB clock, 0x3FF8 a flash page (after 0x3FF7).

Values are deterministic. For element e of system s (e = 22 * s + i) and a record
number n, an integer element is BASE[i] + 100 * s + n % 100 and a float element is
FLOAT_BASE[i] + s + (n % 100) / 4. n is 0 for current values, t // 3600 for the
hourly record at time t, t // 86400 for the daily record of local midnight t and
year * 12 + month - 1 for a monthly record; integral values are
(BASE[i] + 100 * s) * 10 + 7. The hourly record of element 3 (V1) carries error byte
1 whenever n % 24 == 5. The monthly time of work (elements 17 and 39) is sent most
significant byte first.

The meter clock is the host's local time moved by --clock-offset. Hourly records
exist from --first-hour (default: 30 hours before the meter's current hour) to the
last complete hour, daily records from --first-day (default: local midnight three
days back) to yesterday; a date outside that range is answered with error code 3.

--mask-change-after N changes the meter's activity mask (element 18 leaves the
active list) after N archive reads: until the driver has read and written back the
new list, data reads answer error code 5 (--mask-mode code5) or carry error byte 5
in their first element (--mask-mode byte5).
"""
import os
import struct
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import simlib  # noqa: E402


def _make_table():
    table = []
    for i in range(256):
        crc = i
        for _ in range(8):
            crc = (crc >> 1) ^ 0xA001 if crc & 1 else crc >> 1
        table.append(crc)
    return table


CRC_TABLE = _make_table()


def crc16(data):
    crc = 0xFFFF
    for b in data:
        crc = CRC_TABLE[(crc ^ b) & 0xFF] ^ (crc >> 8)
    return crc


def with_crc(body):
    c = crc16(body)
    return bytes(body) + bytes([c & 0xFF, c >> 8])


# per element index i = 0..21 of a system: (length, float?, base)
BASE = [5123, 4087, 1234, 123456, 65432, 1111, 120987, 64012, 1000, 612, 405, 5555, 98765, 3333, 2222, 2222, 2222,
        7200, 3, 0, 0, 0]
FLOAT_BASE = {19: 12.5, 20: 11.25, 21: 0.5}
LENGTH = {0: 2, 1: 2, 2: 2, 9: 2, 10: 2}
EXTERNAL = {45: 42, 46: 17}

UNITS = {44: "C", 45: "m3/h", 46: "m3", 47: "t", 48: "kgf/cm2", 49: "m3", 50: "m3", 51: "m3", 52: "t",
         53: "Gcal", 54: "Gcal", 55: "h", 56: "h"}
DIGITS = {57: 2, 58: 0, 59: 3, 60: 3, 61: 2, 62: 3, 63: 3, 64: 3, 65: 3, 66: 4}
for _k in list(DIGITS):
    DIGITS[_k + 10] = DIGITS[_k]

DEFAULT_ACTIVE = [0, 1, 2, 3, 4, 6, 7, 9, 10, 12, 17, 18, 19, 20, 22, 23, 25, 28, 34, 39, 41, 45]

HOURLY, DAILY, MONTHLY, CURRENT, INTEGRAL, PROPERTIES = 0, 1, 3, 4, 5, 6


def element_length(e):
    if e >= 44:
        return 2 if e in EXTERNAL else 4
    return LENGTH.get(e % 22, 4)


def value_bytes(e, data_type, t):
    """The value field of element e for the data type and record time t."""
    length = element_length(e)
    if e >= 44:
        raw = EXTERNAL.get(e, 0)
        n = record_number(data_type, t)
        return struct.pack("<H", (raw + n % 100) & 0xFFFF)[:length]
    s, i = divmod(e, 22)
    n = record_number(data_type, t)
    if i in FLOAT_BASE:
        value = FLOAT_BASE[i] + s + (n % 100) / 4.0
        return struct.pack("<f", value)
    if data_type == INTEGRAL:
        raw = (BASE[i] + 100 * s) * 10 + 7
    else:
        raw = BASE[i] + 100 * s + n % 100
    if data_type == MONTHLY and i == 17:
        return struct.pack(">i", raw)
    if length == 2:
        return struct.pack("<H", raw & 0xFFFF)
    return struct.pack("<i", raw)


def record_number(data_type, t):
    if data_type == HOURLY:
        return t // 3600
    if data_type == DAILY:
        return t // 86400
    if data_type == MONTHLY:
        tm = time.localtime(t)
        return tm.tm_year * 12 + tm.tm_mon - 1
    return 0


def local_time(day, month, year, hour, minute=0, second=0):
    return int(time.mktime((2000 + year, month, day, hour, minute, second, 0, 0, -1)))


def hour_start(t):
    tm = time.localtime(t)
    return local_time(tm.tm_mday, tm.tm_mon, tm.tm_year - 2000, tm.tm_hour)


def midnight(t):
    tm = time.localtime(t)
    return local_time(tm.tm_mday, tm.tm_mon, tm.tm_year - 2000, 0)


def date_bytes(t, with_time=False):
    tm = time.localtime(t)
    out = [tm.tm_mday, tm.tm_mon, tm.tm_year - 2000, tm.tm_hour]
    if with_time:
        out += [tm.tm_min, tm.tm_sec]
    return bytes(out)


class Vkt7:
    @staticmethod
    def add_arguments(parser):
        parser.add_argument("--clock-offset", type=int, default=0, help="seconds added to the host clock")
        parser.add_argument("--first-hour", type=int, default=None, help="time of the first hourly record")
        parser.add_argument("--first-day", type=int, default=None, help="time of the first daily record")
        parser.add_argument("--active", default=None, help="comma-separated active element numbers")
        parser.add_argument("--base-type", type=int, default=0, help="0: fixed 7-byte units, 1: sized units")
        parser.add_argument("--version", type=lambda s: int(s, 0), default=0x27, help="firmware version byte")
        parser.add_argument("--old-meter", action="store_true", help="short system data of meters before 1.5")
        parser.add_argument("--report-day", type=int, default=25, help="reporting day of the month")
        parser.add_argument("--type-byte", type=lambda s: int(s, 0), default=0x12, help="heat-system type byte")
        parser.add_argument("--serial", default="0012345", help="7-character serial number")
        parser.add_argument("--mask-change-after", type=int, default=-1,
                            help="change the activity mask after this many archive reads")
        parser.add_argument("--mask-mode", choices=("code5", "byte5"), default="code5")
        parser.add_argument("--verbose", action="store_true")

    def __init__(self, args):
        self.args = args
        self.active = [int(x) for x in args.active.split(",")] if args.active else list(DEFAULT_ACTIVE)
        self.selected = []
        self.data_type = None
        self.session = False
        self.date = None
        self.archive_reads = 0
        now = self.now()
        self.first_hour = args.first_hour if args.first_hour is not None else hour_start(now) - 30 * 3600
        self.first_day = args.first_day if args.first_day is not None else midnight(midnight(now) - 3 * 86400 + 7200)

    def now(self):
        return int(time.time()) + self.args.clock_offset

    def log(self, text):
        if self.args.verbose:
            sys.stderr.write("vkt7_sim: %s\n" % text)
            sys.stderr.flush()

    # ---- framing
    def frame_length(self, buf):
        if buf[0] != 0xFF:
            return 0
        if len(buf) < 2:
            return None
        if buf[1] != 0xFF:
            return 0
        if len(buf) < 4:
            return None
        if buf[3] == 0x03:
            return 10
        if buf[3] == 0x10:
            if len(buf) < 9:
                return None
            if buf[4] == 0x3F and buf[5] == 0xFF and buf[8] == 0xCC:
                return 15  # the session opening carries 4 data bytes after 0xCC
            return 11 + buf[8]
        return 0

    def corrupt_checksum(self, reply):
        return reply[:-1] + bytes([reply[-1] ^ 0x5A])

    # ---- answers
    def read_answer(self, data):
        return with_crc(bytes([0x00, 0x03, len(data)]) + bytes(data))

    def write_answer(self, request):
        return with_crc(bytes([0x00, 0x10]) + request[4:8])

    def error_answer(self, function, code):
        return with_crc(bytes([0x00, 0x80 | function, code, 0x00]))

    def respond(self, request):
        body = request[2:-2]
        if crc16(body) != request[-2] | (request[-1] << 8):
            self.log("bad checksum, no answer")
            return None
        function = request[3]
        reg = (request[4] << 8) | request[5]
        if function == 0x03:
            return self.on_read(reg, request)
        return self.on_write(reg, request)

    def on_write(self, reg, request):
        n = request[8]
        data = request[9:-2]
        if reg == 0x3FFF and n == 0xCC:
            self.session = True
            self.data_type = None
            self.log("session opened")
            return self.write_answer(request)
        if reg == 0x3FFF:
            self.selected = [(data[i], data[i + 4]) for i in range(0, len(data) - 5, 6)]
            self.log("element list %s" % [e for e, _ in self.selected])
            return self.write_answer(request)
        if reg == 0x3FFD:
            self.data_type = data[0]
            self.date = None
            return self.write_answer(request)
        if reg == 0x3FFB:
            t = local_time(data[0], data[1], data[2], data[3])
            if not self.has_record(t):
                self.log("no record %s" % time.ctime(t))
                return self.error_answer(0x10, 3)
            self.date = t
            return self.write_answer(request)
        if reg == 0x3FF7:
            return self.write_answer(request)
        return self.error_answer(0x10, 2)

    def has_record(self, t):
        now = self.now()
        if self.data_type == HOURLY:
            return self.first_hour <= t <= hour_start(now) - 3600
        if self.data_type == DAILY:
            return self.first_day <= t <= midnight(midnight(now) - 43200)
        if self.data_type == MONTHLY:
            return self.first_day <= t <= now
        return True

    def on_read(self, reg, request):
        now = self.now()
        if reg == 0x3FFE:
            return self.on_data()
        if reg == 0x3FFC:
            out = bytearray()
            for e in self.active:
                out += bytes([e, 0, 0, 0, element_length(e), 0])
            return self.read_answer(out)
        if reg == 0x3FF9:
            if self.args.old_meter:
                return self.read_answer(bytes([0x14, 0x00, self.args.type_byte, self.args.report_day]))
            serial = self.args.serial.encode("ascii")[:7].ljust(7, b"\0")
            data = bytes([self.args.version, 3, 0, 0, 0]) + serial + bytes(
                [0, self.args.type_byte, self.args.report_day, 0])
            return self.read_answer(data)
        if reg == 0x3FF6:
            return self.read_answer(date_bytes(self.first_hour) + date_bytes(now) + date_bytes(self.first_day))
        if reg == 0x3FFB:
            return self.read_answer(date_bytes(now, with_time=True))
        if reg == 0x3FF8:
            page = bytearray(128)
            text = "измер.".encode("cp1251")
            page[16:16 + len(text)] = text
            return self.read_answer(page)
        return self.error_answer(0x03, 2)

    def on_data(self):
        if self.data_type is None:
            if self.session:
                self.session = False
                data = bytearray(70)
                data[61] = self.args.base_type  # answer byte 64
                return self.read_answer(data)
            return self.error_answer(0x03, 2)
        if self.data_type == PROPERTIES:
            return self.read_answer(self.properties())
        if self.data_type in (HOURLY, DAILY, MONTHLY):
            if self.date is None:
                return self.error_answer(0x03, 3)
            self.archive_reads += 1
            if self.archive_reads == self.args.mask_change_after + 1 and 18 in self.active:
                self.active.remove(18)
                self.log("activity mask changed")
            t = self.date
        else:
            t = self.now()
        changed = [e for e, _ in self.selected] != self.active
        if changed and self.args.mask_mode == "code5":
            return self.error_answer(0x03, 5)
        out = bytearray()
        for k, (e, length) in enumerate(self.selected):
            value = value_bytes(e, self.data_type, t)
            value = value[:length].ljust(length, b"\0")
            error = 0
            if self.data_type == HOURLY and e % 22 == 3 and e < 44 and (t // 3600) % 24 == 5:
                error = 1
            if changed and k == 0:
                error = 5
            out += value + bytes([0, error])
        return self.read_answer(out)

    def properties(self):
        out = bytearray()
        for e, length in self.selected:
            if 44 <= e <= 56:
                unit = UNITS.get(e, "").encode("ascii")
                if self.args.base_type == 1:
                    out += bytes([len(unit), 0]) + unit
                else:
                    out += unit[:7].ljust(7, b"\0")
            elif 57 <= e <= 76:
                out += bytes([DIGITS.get(e, 0)])
            else:
                out += bytes(length)
            out += bytes([0, 0])
        return out


def main():
    return simlib.main_with(Vkt7, "VKT-7 heat calculator simulator")


if __name__ == "__main__":
    sys.exit(main())
