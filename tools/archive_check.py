#!/usr/bin/env python3
"""Compares the archive files the daemon filed with the records a simulated meter holds.

    archive_check.py --held-out HELD.json --storage STORAGE_DIR --meter ID=ADDRESS
                     [--meter ...] --meter-time T [--quiet]

HELD.json is what a simulator writes with --held-out: for every bus address, every
archive kind ("hourly", "daily", and "monthly" whose lines are stamped a day after the
record and which the daily bound covers), every record time, the archive files (paths
below the meter's storage directory) with the value text and quality the daemon must file:
    {"<address>": {"hourly": {"<t>": {"1/tc_archives/A20": ["51.24", 192], ...}}}}
STORAGE_DIR/ID/ is the meter's storage directory; ID=ADDRESS maps the daemon's meter
identifier to the simulator's address (a held-out file with one address needs none).

The reading window of a meter and kind: the records at or before the later of the
bound on file ("timestamp_max_hourly" / "timestamp_max_daily") and the reach, and not
older than 90 days before that. The reach is the newest record the daemon must have
filed by now: the newest hourly record before the start of the meter's hour at
--meter-time, the newest daily record before the start of its day. So a daemon that
filed nothing, or stopped early, cannot pass: the records up to the reach count as lost.

Counted per meter and kind:
  lost        a record of the window with no line in its file
  duplicated  every further line for a time already filed in that file
  wrong       a line whose value text or quality differs; a line for a time the meter
              holds no record of; a line past the bound on file; a time not later than
              the line before it; a malformed line or a last line without its newline
Exit status 0 only when every count is 0. The last output line is
"lost N duplicated N wrong N".
"""
import argparse
import json
import os
import re
import sys
import time

# archive kind of the held-out file: the bound file that covers it, how much later than
# the record's own time its lines are stamped, and whether it is read by hours or days
KINDS = (("hourly", "timestamp_max_hourly", 0, "hour"), ("daily", "timestamp_max_daily", 0, "day"),
         ("monthly", "timestamp_max_daily", 86400, "day"))
ARCHIVE_DIRS = ("tc_archives", "tc_tmp_archives")
WINDOW_DAYS = 90
EXAMPLES = 5
LINE = re.compile(r"^(-?\d+),(-?\d+),(.*)$")


def local_label(t):
    return time.strftime("%Y-%m-%d %H:%M %Z", time.localtime(t))


def hour_start(t):
    tm = time.localtime(t)
    return t - tm.tm_min * 60 - tm.tm_sec


def day_start(t):
    tm = time.localtime(t)
    return int(time.mktime((tm.tm_year, tm.tm_mon, tm.tm_mday, 0, 0, 0, 0, 0, -1)))


def read_bound(path):
    try:
        with open(path, encoding="ascii", errors="replace") as f:
            return int(f.read().strip() or 0)
    except (OSError, ValueError):
        return 0


def archive_files(meter_dir):
    """Paths (relative to meter_dir) of every archive file of the meter."""
    out = []
    if not os.path.isdir(meter_dir):
        return out
    for system in sorted(os.listdir(meter_dir)):
        if os.path.islink(os.path.join(meter_dir, system)):
            continue  # "default" points at one of the systems
        for sub in ARCHIVE_DIRS:
            d = os.path.join(meter_dir, system, sub)
            if os.path.isdir(d):
                out += [os.path.join(system, sub, name) for name in sorted(os.listdir(d))]
    return out


def read_lines(path):
    """[(line text, complete?)] of a file; a last line without its newline is torn."""
    try:
        with open(path, "rb") as f:
            data = f.read()
    except OSError:
        return []
    text = data.decode("utf-8", "replace")
    parts = text.split("\n")
    out = [(p, True) for p in parts[:-1]]
    if parts[-1]:
        out.append((parts[-1], False))
    return out


class Tally:
    def __init__(self):
        self.counts = {"lost": 0, "duplicated": 0, "wrong": 0}
        self.examples = {"lost": [], "duplicated": [], "wrong": []}

    def add(self, what, text):
        self.counts[what] += 1
        if len(self.examples[what]) < EXAMPLES:
            self.examples[what].append(text)


def check_kind(meter_dir, kind, held, meter_time):
    """Tally of one meter and archive kind. held: {t: {path: [value, quality]}}."""
    _, bound_name, shift, unit = kind
    tally = Tally()
    bound = read_bound(os.path.join(meter_dir, bound_name))
    limit = (hour_start(meter_time) if unit == "hour" else day_start(meter_time)) - 1
    earlier = [t for t in held if t <= limit]
    reach = max(earlier) if earlier else 0
    window_end = max(bound, reach)
    window_start = window_end - WINDOW_DAYS * 86400
    in_window = sorted(t for t in held if window_start <= t <= window_end)
    # every file named by a record of this kind is this kind's file
    paths = sorted({p for rec in held.values() for p in rec})
    filed = {}  # (path, t) -> number of lines
    for path in paths:
        previous = None
        for number, (line, complete) in enumerate(read_lines(os.path.join(meter_dir, path)), 1):
            where = "%s line %d" % (path, number)
            m = LINE.match(line)
            if not complete or not m:
                tally.add("wrong", "%s %s: %r" % (where, "torn" if complete is False else "malformed", line))
                continue
            t, quality, value = int(m.group(1)) - shift, int(m.group(2)), m.group(3)
            n = filed.get((path, t), 0) + 1
            filed[(path, t)] = n
            if n > 1:
                tally.add("duplicated", "%s: %d (%s) filed %d times" % (where, t, local_label(t), n))
                continue
            if previous is not None and t <= previous:
                tally.add("wrong", "%s: %d (%s) after %d (%s)" % (where, t, local_label(t), previous,
                                                                 local_label(previous)))
            previous = t if previous is None else max(previous, t)
            want = held.get(t, {}).get(path)
            if want is None:
                tally.add("wrong", "%s: %d (%s) the meter holds no such record" % (where, t, local_label(t)))
            elif t > bound:
                tally.add("wrong", "%s: %d (%s) past the bound %d on file" % (where, t, local_label(t), bound))
            elif [value, quality] != [str(want[0]), int(want[1])]:
                tally.add("wrong", "%s: %d (%s) filed %r quality %d, the meter holds %r quality %d" % (
                    where, t, local_label(t), value, quality, want[0], want[1]))
    for t in in_window:
        for path in sorted(held[t]):
            if (path, t) not in filed:
                tally.add("lost", "%s: %d (%s)" % (path, t, local_label(t)))
    info = {"bound": bound, "reach": reach, "records": len(in_window),
            "lines": sum(filed.values()), "files": paths}
    return tally, info


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--held-out", required=True)
    parser.add_argument("--storage", required=True, help="the daemon's storage root")
    parser.add_argument("--meter", action="append", default=[], help="ID=ADDRESS (or ID alone)")
    parser.add_argument("--meter-time", type=int, required=True,
                        help="the meters' clock when the daemon had to have caught up")
    parser.add_argument("--quiet", action="store_true", help="only the totals line")
    args = parser.parse_args()

    with open(args.held_out, encoding="utf-8") as f:
        held_out = json.load(f)
    totals = Tally()
    out = []
    for spec in args.meter:
        ident, _, address = spec.partition("=")
        if not address:
            if len(held_out) != 1:
                parser.error("meter %s: the held-out file has %d addresses, name one" % (ident, len(held_out)))
            address = next(iter(held_out))
        if address not in held_out:
            parser.error("meter %s: address %s is not in the held-out file" % (ident, address))
        meter_dir = os.path.join(args.storage, ident)
        listed = set()
        for kind in KINDS:
            held = {int(t): rec for t, rec in held_out[address].get(kind[0], {}).items()}
            if kind[0] == "monthly" and not held:
                continue
            tally, info = check_kind(meter_dir, kind, held, args.meter_time)
            listed.update(info["files"])
            out.append("meter %s %s: %d records in the window, %d lines, bound %d (%s), reach %d: "
                       "lost %d duplicated %d wrong %d" % (
                           ident, kind[0], info["records"], info["lines"], info["bound"],
                           local_label(info["bound"]) if info["bound"] else "none", info["reach"],
                           tally.counts["lost"], tally.counts["duplicated"], tally.counts["wrong"]))
            for what in ("lost", "duplicated", "wrong"):
                totals.counts[what] += tally.counts[what]
                for example in tally.examples[what]:
                    out.append("  %s: %s" % (what, example))
        # an archive file the meter has no records for holds nothing but strangers
        strangers = Tally()
        for path in archive_files(meter_dir):
            if path not in listed:
                for number, (line, _) in enumerate(read_lines(os.path.join(meter_dir, path)), 1):
                    strangers.add("wrong", "%s line %d: %r in a file of no held record" % (path, number, line))
        if strangers.counts["wrong"]:
            out.append("meter %s: %d lines in files of no held record" % (ident, strangers.counts["wrong"]))
            out += ["  wrong: " + example for example in strangers.examples["wrong"]]
            totals.counts["wrong"] += strangers.counts["wrong"]
    if not args.quiet:
        print("\n".join(out))
    print("lost %d duplicated %d wrong %d" % (totals.counts["lost"], totals.counts["duplicated"],
                                             totals.counts["wrong"]))
    return 0 if not any(totals.counts.values()) else 1


if __name__ == "__main__":
    sys.exit(main())
