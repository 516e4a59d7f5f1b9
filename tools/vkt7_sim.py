#!/usr/bin/env python3
"""Plays a VKT-7 heat calculator on a pseudo-terminal (see tools/simlib.py for the
line, pacing and fault switches), answering as the maker's meters do.

The meter works by selection: a data-type code written to 0x3FFD, an element list
written to 0x3FFF and, for archives, a date written to 0x3FFB choose what a read of
0x3FFE returns. Further reads: 0x3FFC active elements, 0x3FF9 system data, 0x3FF6
archive bounds and date, 0x3FFB clock, 0x3FF8 a flash page (after 0x3FF7). Every record
of an element list carries the flag 0x40000000 in its address; a written list whose
records lack it is refused with error code 2.

Each value is followed by an OPC quality byte and an abnormal-situation (NS) byte:
0xC0 and NS 0 for a good value; 0x50 and a non-zero NS code for an element with an
abnormal situation (the other elements of that answer then carry NS 0xFF); 0x0C for a
value out of range; 0x04 for an element outside the measuring scheme (element 10, P2
of heat input 1, whose value bytes are meaningless). Elements 77 and 78 (one byte,
'*' or ' ') say whether heat input 1 or 2 has an abnormal situation in that answer.

Values are deterministic. For element e of heat input s (e = 22 * s + i) and a record
number n, an integer element is BASE[i] + 100 * s + n % 100 and a float element is
FLOAT_BASE[i] + s + (n % 100) / 4. n is 0 for current values, t // 3600 for the
hourly record at time t, t // 86400 for the daily record of the local day starting at
t and year * 12 + month - 1 for a monthly record; integral values are
(BASE[i] + 100 * s) * 10 + 7. Hourly records: V1 (element 3) has an abnormal situation
(0x50, NS 1) when n % 24 == 5, t2 (element 1) is out of range (0x0C) when n % 24 == 7.
Daily records: V1 of heat input 2 (element 25) has one (0x50, NS 2) when n % 5 == 0.
The monthly time of work (elements 17 and 39) is sent most significant byte first.

Archive records are keyed by local date and hour in the time zone of TZ: an hourly
record per local hour (a repeated hour is one record, stamped at its first
occurrence; a left-out hour has none), a daily record per local day, stamped at the
day's first instant and asked for by its date (any hour). The meter clock is the
host's time moved by --clock-offset. Hourly records exist from --first-hour (default:
30 hours before the meter's current hour) to the last complete hour, daily records
from --first-day (default: three days back) to yesterday, except the times given with
--holes; a date without a record is answered with error code 3. --error2-reads N,...
answers the N-th archive data reads with error code 2; --date-errors N:CODE,...
answers the N-th archive date writes with that error code.

--mask-change-after N changes the meter's activity mask (element 18 leaves the
active list) after N archive reads: until the driver has read and written back the
new list, data reads answer error code 5 (--mask-mode code5) or carry NS byte 5 in
their first element (--mask-mode byte5). With --mask-change-twice element 17 leaves as
well at the very next archive read.

--held-out PATH writes (by write-and-rename, at start and whenever the held archive
changes) every archive record the meter holds and the lines the daemon must file for
it: {"<address>": {"hourly": {"<time>": {"<sys>/tc_archives/<name>": ["<value>",
<quality>]}}, "daily": {...}, "monthly": {...}}}. Monthly records are filed by the
daemon under tc_tmp_archives with their time plus one day; they are keyed by their own
time here.
"""
import json
import os
import struct
import sys
import threading
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


# per element index i = 0..21 of a heat input: length, float or integer base
BASE = [5123, 4087, 1234, 123456, 65432, 1111, 120987, 64012, 1000, 612, 405, 5555, 98765, 3333, 2222, 2222, 2222,
        7200, 3, 0, 0, 0]
FLOAT_BASE = {19: 12.5, 20: 11.25, 21: 0.5}
LENGTH = {0: 2, 1: 2, 2: 2, 9: 2, 10: 2}
NOT_IN_SCHEME = {10}

# How the daemon publishes element i of a heat input: unit key, fraction-digits key
# (heat input 2: raised by 10; 0 = none), parameter id.
ROWS = [(44, 57, 6), (44, 57, 7), (44, 57, 8), (46, 59, 19), (46, 59, 20), (46, 59, 21), (47, 60, 22),
        (47, 60, 23), (47, 60, 24), (48, 61, 9), (48, 61, 10), (52, 65, 30), (53, 66, 17), (54, 66, 30),
        (49, 62, 30), (50, 63, 30), (51, 64, 30), (55, 0, 18), (56, 0, 29), (45, 58, 0), (45, 58, 1),
        (45, 58, 2)]
# Archive names by kind: 4 hourly, 5 daily, 2 monthly.
NAMES = {
    4: {6: "A20", 7: "A21", 8: "A22", 9: "A17", 10: "A18", 11: "A19", 13: "A80", 14: "A28", 15: "_A57", 16: "F57",
        17: "A2", 18: "A3", 19: "A5", 20: "A7", 21: "A9", 22: "A11", 23: "A13", 24: "A15", 25: "A23", 26: "A24",
        27: "A25", 28: "A26", 29: "A27", 55: "F1H", 56: "F2H"},
    5: {6: "A48", 7: "A49", 8: "A50", 9: "A45", 10: "A46", 11: "A47", 13: "A81", 14: "A56", 17: "A30", 18: "A31",
        19: "A33", 20: "A35", 21: "A37", 22: "A39", 23: "A41", 24: "A43", 25: "A51", 26: "A52", 27: "A53",
        28: "A54", 29: "A55", 55: "F1D", 56: "F2D"},
    2: {17: "A29", 18: "A32", 19: "A34", 20: "A36", 21: "A38", 22: "A40", 23: "A42", 24: "A44", 25: "A65",
        26: "A66", 27: "A67", 28: "A68", 29: "A69"},
}
# Activity-mask bits of a value by its NS code and parameter id.
MASK_BITS = {1: {6: 0x8, 7: 0x80000, 9: 0x40, 10: 0x100000, 19: 0x4, 20: 0x40000},
             2: {19: 0x2, 20: 0x20000, 17: 0x400}}

UNITS = {44: "C", 45: "m3/h", 46: "m3", 47: "t", 48: "kgf/cm2", 49: "m3", 50: "m3", 51: "m3", 52: "t",
         53: "Gcal", 54: "Gcal", 55: "h", 56: "h"}
DIGITS = {57: 2, 58: 0, 59: 3, 60: 3, 61: 2, 62: 3, 63: 3, 64: 3, 65: 3, 66: 4}
for _k in list(DIGITS):
    DIGITS[_k + 10] = DIGITS[_k]

NS_FLAGS = (77, 78)
DEFAULT_ACTIVE = [0, 1, 2, 3, 4, 6, 7, 9, 10, 12, 17, 18, 19, 20, 22, 23, 25, 28, 34, 39, 41, 77, 78]

HOURLY, DAILY, MONTHLY, CURRENT, INTEGRAL, PROPERTIES = 0, 1, 3, 4, 5, 6
GOOD, ABNORMAL, OUT_OF_RANGE, NOT_IN_SCHEME_Q = 0xC0, 0x50, 0x0C, 0x04
LIST_FLAG = 0x40  # byte 3 of a list record's address


def element_length(e):
    if e in NS_FLAGS:
        return 1
    if e >= 44:
        return 4
    return LENGTH.get(e % 22, 4)


def record_number(data_type, t):
    if data_type == HOURLY:
        return t // 3600
    if data_type == DAILY:
        return t // 86400
    if data_type == MONTHLY:
        tm = time.localtime(t)
        return tm.tm_year * 12 + tm.tm_mon - 1
    return 0


def state_of(e, data_type, t):
    """(quality, NS code) of element e (below 44) in the answer for the record time t."""
    s, i = divmod(e, 22)
    n = record_number(data_type, t)
    if i in NOT_IN_SCHEME and s == 0:
        return NOT_IN_SCHEME_Q, 0
    if data_type == HOURLY and e == 3 and n % 24 == 5:
        return ABNORMAL, 1
    if data_type == HOURLY and e == 1 and n % 24 == 7:
        return OUT_OF_RANGE, 0
    if data_type == DAILY and e == 25 and n % 5 == 0:
        return ABNORMAL, 2
    return GOOD, 0


def value_bytes(e, data_type, t):
    """The value field of element e (below 44) for the data type and record time t."""
    length = element_length(e)
    s, i = divmod(e, 22)
    if state_of(e, data_type, t)[0] == NOT_IN_SCHEME_Q:
        return bytes([0xEE] * length)
    n = record_number(data_type, t)
    if i in FLOAT_BASE:
        return struct.pack("<f", FLOAT_BASE[i] + s + (n % 100) / 4.0)
    if data_type == INTEGRAL:
        raw = (BASE[i] + 100 * s) * 10 + 7
    else:
        raw = BASE[i] + 100 * s + n % 100
    if data_type == MONTHLY and i == 17:
        return struct.pack(">i", raw)
    if length == 2:
        return struct.pack("<H", raw & 0xFFFF)
    return struct.pack("<i", raw)


def answer_fields(elements, data_type, t):
    """(element, value bytes, quality, NS) of each selected element, as sent."""
    states = {e: state_of(e, data_type, t) for e, _ in elements if e < 44}
    abnormal = {e // 22 for e, (q, ns) in states.items() if ns != 0}
    fields = []
    for e, length in elements:
        if e in NS_FLAGS:
            value, quality, ns = (b"*" if e - 77 in abnormal else b" "), GOOD, 0
        elif e < 44:
            value = value_bytes(e, data_type, t)
            quality, ns = states[e]
        else:
            value, quality, ns = bytes(length), NOT_IN_SCHEME_Q, 0
        if ns == 0 and abnormal:
            ns = 0xFF
        fields.append((e, value[:length].ljust(length, b"\0"), quality, ns))
    return fields


def stream_text(x):
    """A number as the daemon writes it (C++ stream default: 6 significant digits)."""
    return "%g" % x


def filed_lines(elements, data_type, t, kind):
    """The archive lines the daemon files for one record: {path: [value, quality]}."""
    active = [e for e, _ in elements]
    swap = 0x0F in active or 0x25 in active
    scheme = 0
    for e in active:
        if e in (0x0F, 2):
            scheme = 1 if scheme == 0 else 0
        if e in (0x25, 0x18):
            scheme = 2 if scheme == 0 else 0
    names = NAMES[kind]
    lines, masks = {}, [0, 0]
    folder = "tc_tmp_archives" if kind == 2 else "tc_archives"

    def put(param, sys_index, value, quality):
        if param in names:
            lines["%d/%s/%s" % (sys_index + 1, folder, names[param])] = [value, quality]

    for e, value, quality, ns in answer_fields(elements, data_type, t):
        if quality in (NOT_IN_SCHEME_Q, OUT_OF_RANGE):
            continue
        if e in NS_FLAGS:
            put(55 if e == 77 else 56, e - 77, "1" if value == b"*" else "0", quality)
            continue
        if e >= 44:
            continue
        s, i = divmod(e, 22)
        unit_key, digits_key, param = ROWS[i]
        if i == 2 and s == 0:
            param = 30 if swap else 8
        elif i == 15 and s == 0:
            param = 8 if swap else 30
        if unit_key == 45:
            text = stream_text(struct.unpack("<f", value)[0])
        else:
            raw = int.from_bytes((value[::-1] if kind == 2 and i == 17 else value)[:4], "little", signed=False)
            if len(value) == 4 and raw >= 1 << 31:
                raw -= 1 << 32
            digits = DIGITS.get(digits_key + (10 if s == 1 else 0), 0) if digits_key else 0
            text = stream_text(raw / 10.0 ** digits)
        error = 0 if ns == 0xFF else ns
        put(param, s, text, quality)
        if param == 8 and s == scheme - 1:
            put(param, 1 - s, text, quality)
        masks[s] |= MASK_BITS.get(error, {}).get(param, 0)
    put(14, 0, str(masks[0]), GOOD)
    put(14, 1, str(masks[1]), GOOD)
    return lines


# ---- the local calendar (TZ)

def first_occurrence(year, month, day, hour):
    """The first instant of a local date and hour, or None when the zone leaves it out."""
    found = []
    for isdst in (-1, 0, 1):
        try:
            t = int(time.mktime((year, month, day, hour, 0, 0, 0, 0, isdst)))
        except (OverflowError, ValueError):
            continue
        tm = time.localtime(t)
        if (tm.tm_year, tm.tm_mon, tm.tm_mday, tm.tm_hour, tm.tm_min) == (year, month, day, hour, 0):
            found.append(t)
    return min(found) if found else None


def label(t):
    tm = time.localtime(t)
    return tm.tm_year, tm.tm_mon, tm.tm_mday, tm.tm_hour


def hour_start(t):
    y, m, d, h = label(t)
    return first_occurrence(y, m, d, h)


def day_start(t):
    y, m, d, _ = label(t)
    for h in range(24):
        start = first_occurrence(y, m, d, h)
        if start is not None:
            return start
    return None


def next_hour(t):
    """The record time of the local hour after the one that starts at t."""
    here = label(t)
    n = t + 3600
    while label(n) == here:
        n += 3600
    return hour_start(n)


def next_day(t):
    y, m, d, _ = label(t)
    noon = int(time.mktime((y, m, d + 1, 12, 0, 0, 0, 0, -1)))
    return day_start(noon)


def date_bytes(t, with_time=False):
    tm = time.localtime(t)
    out = [tm.tm_mday, tm.tm_mon, tm.tm_year - 2000, tm.tm_hour]
    if with_time:
        out += [tm.tm_min, tm.tm_sec]
    return bytes(out)


def int_list(text):
    return [int(x) for x in text.split(",") if x] if text else []


class Vkt7:
    @staticmethod
    def add_arguments(parser):
        parser.add_argument("--address", default="0", help="bus address, the key of the --held-out file")
        parser.add_argument("--clock-offset", type=int, default=0, help="seconds added to the host clock")
        parser.add_argument("--first-hour", type=int, default=None, help="time of the first hourly record")
        parser.add_argument("--first-day", type=int, default=None, help="time of the first daily record")
        parser.add_argument("--holes", default="", help="comma-separated record times the meter does not hold")
        parser.add_argument("--error2-reads", default="",
                            help="comma-separated numbers of archive data reads answered with error code 2")
        parser.add_argument("--date-errors", default="",
                            help="comma-separated N:CODE: the N-th archive date write is answered with CODE")
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
        parser.add_argument("--mask-change-twice", action="store_true",
                            help="change the mask again (element 17 leaves) at the read after the first change")
        parser.add_argument("--held-out", default=None, help="JSON file of the records the meter holds")
        parser.add_argument("--verbose", action="store_true")

    def __init__(self, args):
        self.args = args
        self.active = [int(x) for x in args.active.split(",")] if args.active else list(DEFAULT_ACTIVE)
        self.selected = []
        self.data_type = None
        self.session = False
        self.date = None
        self.archive_reads = 0
        self.holes = set(int_list(args.holes))
        self.error2_reads = set(int_list(args.error2_reads))
        self.date_errors = dict(tuple(int(x) for x in item.split(":")) for item in args.date_errors.split(",") if item)
        self.date_writes = 0
        now = self.now()
        self.first_hour = args.first_hour if args.first_hour is not None else hour_start(now) - 30 * 3600
        self.first_day = args.first_day if args.first_day is not None else day_start(day_start(now) - 3 * 86400 + 7200)
        self.held_key = None
        self.hours, self.days = {}, {}
        self.lock = threading.Lock()
        self.refresh()
        # the held archive grows with the meter's clock, whether the daemon asks or not
        threading.Thread(target=self.refresh_every, args=(5.0,), daemon=True).start()

    def refresh_every(self, seconds):
        while True:
            time.sleep(seconds)
            with self.lock:
                self.refresh()

    def now(self):
        return int(time.time()) + self.args.clock_offset

    def log(self, text):
        if self.args.verbose:
            sys.stderr.write("vkt7_sim: %s\n" % text)
            sys.stderr.flush()

    # ---- the archive the meter holds
    def refresh(self):
        """Recomputes the held records when the meter's clock has moved into a new hour."""
        now = self.now()
        last_hour = hour_start(now) - 1  # anything before the current hour is complete
        last_day = day_start(now) - 1
        key = (hour_start(now), day_start(now))
        if key == self.held_key:
            return
        self.held_key = key
        self.hours, self.days = {}, {}
        t = hour_start(self.first_hour)
        while t is not None and t <= last_hour:
            if t not in self.holes:
                self.hours[label(t)] = t
            t = next_hour(t)
        t = day_start(self.first_day)
        while t is not None and t <= last_day:
            if t not in self.holes:
                self.days[label(t)[:3]] = t
            t = next_day(t)
        self.write_held_out()

    def write_held_out(self):
        if not self.args.held_out:
            return
        elements = [(e, element_length(e)) for e in self.active]
        hourly = {str(t): filed_lines(elements, HOURLY, t, 4) for t in sorted(self.hours.values())}
        daily = {str(t): filed_lines(elements, DAILY, t, 5) for t in sorted(self.days.values())}
        monthly = {}
        for t in sorted(self.days.values()):
            if self.is_reporting_day(t):
                monthly[str(t)] = filed_lines(elements, MONTHLY, t, 2)
        data = {self.args.address: {"hourly": hourly, "daily": daily, "monthly": monthly}}
        tmp = self.args.held_out + ".tmp"
        with open(tmp, "w", encoding="utf-8") as f:
            json.dump(data, f, sort_keys=True)
        os.replace(tmp, self.args.held_out)

    def is_reporting_day(self, t):
        if self.args.report_day == 31:
            return label(next_day(t))[2] == 1
        return label(t)[2] == self.args.report_day

    def record_time(self, day, month, year, hour):
        if self.data_type == HOURLY:
            return self.hours.get((2000 + year, month, day, hour))
        if self.data_type in (DAILY, MONTHLY):
            return self.days.get((2000 + year, month, day))
        return None

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
        return with_crc(bytes([0x00, 0x80 | function, code, 0x3F]))

    def respond(self, request):
        body = request[2:-2]
        if crc16(body) != request[-2] | (request[-1] << 8):
            self.log("bad checksum, no answer")
            return None
        with self.lock:
            self.refresh()
            return self.on_request(request)

    def on_request(self, request):
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
            records = [data[i:i + 6] for i in range(0, len(data) - 5, 6)]
            if any(r[3] & LIST_FLAG == 0 for r in records):
                self.log("list record without the 0x40000000 flag")
                return self.error_answer(0x10, 2)
            self.selected = [(r[0], r[4]) for r in records]
            self.log("element list %s" % [e for e, _ in self.selected])
            return self.write_answer(request)
        if reg == 0x3FFD:
            self.data_type = data[0]
            self.date = None
            return self.write_answer(request)
        if reg == 0x3FFB:
            self.date_writes += 1
            if self.date_writes in self.date_errors:
                return self.error_answer(0x10, self.date_errors[self.date_writes])
            t = self.record_time(data[0], data[1], data[2], data[3])
            if t is None:
                self.log("no record %02d.%02d.%02d %02d" % (data[0], data[1], data[2], data[3]))
                return self.error_answer(0x10, 3)
            self.date = t
            return self.write_answer(request)
        if reg == 0x3FF7:
            return self.write_answer(request)
        return self.error_answer(0x10, 2)

    def on_read(self, reg, request):
        now = self.now()
        if reg == 0x3FFE:
            return self.on_data()
        if reg == 0x3FFC:
            out = bytearray()
            for e in self.active:
                out += bytes([e, 0, 0, LIST_FLAG, element_length(e), 0])
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
            return self.read_answer(date_bytes(now, with_time=True) + bytes([GOOD, 0]))
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
            if self.archive_reads in self.error2_reads:
                return self.error_answer(0x03, 2)
            if self.archive_reads == self.args.mask_change_after + 1 and 18 in self.active:
                self.active.remove(18)
                self.log("activity mask changed")
            elif (self.args.mask_change_twice and self.archive_reads == self.args.mask_change_after + 2
                  and 17 in self.active):
                self.active.remove(17)
                self.log("activity mask changed again")
            t = self.date
        else:
            t = self.now()
        changed = [e for e, _ in self.selected] != self.active
        if changed and self.args.mask_mode == "code5":
            return self.error_answer(0x03, 5)
        out = bytearray()
        for k, (e, value, quality, ns) in enumerate(answer_fields(self.selected, self.data_type, t)):
            if changed and k == 0:
                quality, ns = GOOD, 5
            out += value + bytes([quality, ns])
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
            out += bytes([GOOD, 0])
        return out


def main():
    return simlib.main_with(Vkt7, "VKT-7 heat calculator simulator")


if __name__ == "__main__":
    sys.exit(main())
