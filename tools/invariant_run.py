#!/usr/bin/env python3
"""One randomized end-to-end archive scenario per seed, with the real daemon binary, the
configuration server and the meter simulators; at the end tools/archive_check.py compares
every archive file with the records the simulated meters hold.

    invariant_run.py --binary build/plain/mcd_main --work DIR SEED...

For each seed (everything below is drawn from random.Random(seed)):
- a time zone out of ZONES, for the controller and the meters alike;
- the meters' clock: placed in the first hours of the day after a daylight-saving
  change of that zone within the past year (any instant of the past year in a zone without one), a few
  minutes into an hour so that no hour begins while the scenario runs; the controller's
  calendar clock is put on the same time through MCD_CLOCK_OFFSET_FILE;
- two lines, each with its own daemon (one process serves one serial line): a VKT-7 and
  an ESKO line with an MTR-06 and a TM-3E, each holding hourly records from a few
  hours before the change and three to four daily records;
- records the meters do not hold (VKT-7 holes, ESKO gaps: an explicit no-record answer)
  and VKT-7 archive reads answered with error code 2;
- during the backfill, on each line, a random sequence of: silence, garbage, wrong
  checksums, every other answer dropped, ESKO error answers to the find request in the
  middle of a walk, an ESKO clock reading nonsense or days off, kill -9 of the daemon
  followed by a restart, the meter's storage directory unwritable, controller clock
  steps forward and back;
- then a healthy period until the daemon has filed up to the last complete hour and
  day (or the time allowed runs out), SIGTERM, and the checker.
The daemon runs fast-forward (MCD_TIME_SCALE), so its waits take a fraction of the time.

Prints one line per seed, "seed N: lost N duplicated N wrong N ...", the checker's
report when a seed fails, and exits with 0 when every seed passed.
"""
import argparse
import ctypes
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import threading
import time

TOOLS = os.path.dirname(os.path.abspath(__file__))
ZONES = ("UTC", "Europe/Moscow", "Europe/Berlin", "America/New_York", "Australia/Sydney", "Asia/Kolkata")
LINK_FAULTS = ("silent", "garbage", "bad_checksum", "every_other")

# Runs a simulator with its clock moved by a number of seconds, as a meter whose clock
# was set to another time: python3 -c SHIM OFFSET SCRIPT ARGS...
CLOCK_SHIM = (
    "import runpy, sys, time\n"
    "offset = int(sys.argv[1])\n"
    "real = time.time\n"
    "time.time = lambda: real() + offset\n"
    "sys.argv = sys.argv[2:]\n"
    "runpy.run_path(sys.argv[0], run_name='__main__')\n")


def hour_start(t):
    tm = time.localtime(t)
    return t - tm.tm_min * 60 - tm.tm_sec


def day_start(t):
    tm = time.localtime(t)
    return int(time.mktime((tm.tm_year, tm.tm_mon, tm.tm_mday, 0, 0, 0, 0, 0, -1)))


def utc_offset_changes(first, last):
    """Instants between first and last at which the local UTC offset changes."""
    out = []
    t = first - first % 3600
    previous = time.localtime(t).tm_gmtoff
    while t < last:
        t += 1800
        offset = time.localtime(t).tm_gmtoff
        if offset != previous:
            lo, hi = t - 1800, t  # the change lies in (lo, hi]
            while hi - lo > 1:
                mid = (lo + hi) // 2
                if time.localtime(mid).tm_gmtoff == previous:
                    lo = mid
                else:
                    hi = mid
            out.append(hi)
            previous = offset
    return out


_LIBC = ctypes.CDLL(None, use_errno=True)
_AT_FDCWD = -100
_RENAME_EXCHANGE = 2


def exchange(a, b):
    """Swaps the names a and b in one step (renameat2 with RENAME_EXCHANGE)."""
    if _LIBC.renameat2(_AT_FDCWD, a.encode(), _AT_FDCWD, b.encode(), _RENAME_EXCHANGE) != 0:
        err = ctypes.get_errno()
        raise OSError(err, os.strerror(err), a)


def write_atomic(path, text):
    with open(path + ".new", "w", encoding="utf-8") as f:
        f.write(text)
    os.replace(path + ".new", path)


def read_number(path):
    try:
        with open(path, encoding="ascii") as f:
            return int(f.read().strip() or 0)
    except (OSError, ValueError):
        return 0


class Line:
    """One serial line: a simulator, the daemon that serves its meters, their files."""

    def __init__(self, name, work, binary, env, meters, sim_argv, rng):
        self.name, self.work, self.binary, self.meters, self.rng = name, work, binary, meters, rng
        self.root = os.path.join(work, name)
        for sub in ("tmp", "storage", "leds"):
            os.makedirs(os.path.join(self.root, sub), exist_ok=True)
        for lamp in ("kr_red", "lan"):
            write_atomic(os.path.join(self.root, "leds", lamp), "0")
        self.link = os.path.join(self.root, "meter.tty")
        self.control = os.path.join(self.root, "faults.json")
        self.held = os.path.join(self.root, "held.json")
        self.offset_file = os.path.join(self.root, "clock_offset")
        self.env = dict(env)
        self.env.update({"MCD_TMP_DIR": self.root + "/tmp/", "MCD_STORAGE_DIR": self.root + "/storage/",
                         "MCD_LEDS_DIR": self.root + "/leds/", "MCD_CLOCK_OFFSET_FILE": self.offset_file})
        self.sim_argv = sim_argv + ["--link", self.link, "--control", self.control,
                                    "--stats", os.path.join(self.root, "stats.json"), "--held-out", self.held]
        self.base_control = {}
        self.meter_faults = []  # (description, control keys) the simulator plays
        self.sim = None
        self.daemon = None
        self.daemon_starts = 0
        self.events = []
        self.started = time.monotonic()
        self.faults = 0
        self.faults_in_backfill = 0
        self.ended_by_itself = 0

    def note(self, text):
        self.events.append("%.1fs %s" % (time.monotonic() - self.started, text))

    def storage(self, rel=""):
        return os.path.join(self.root, "storage", rel)

    def set_faults(self, extra=None, **on):
        """Writes the control file: the line's standing keys, the link faults switched on
        and the simulator's own fault keys of `extra`."""
        control = dict(self.base_control)
        control.update({k: bool(on.get(k)) for k in LINK_FAULTS})
        control.update(extra or {})
        write_atomic(self.control, json.dumps(control))

    def start_sim(self, offset):
        self.set_faults()
        err = open(os.path.join(self.root, "sim.log"), "ab")
        self.sim = subprocess.Popen([sys.executable, "-c", CLOCK_SHIM, str(offset)] + self.sim_argv,
                                    stdout=err, stderr=err, env=self.env)
        deadline = time.monotonic() + 15
        while time.monotonic() < deadline:
            if os.path.exists(self.link) and os.path.exists(self.held):
                return True
            if self.sim.poll() is not None:
                break
            time.sleep(0.05)
        return False

    def start_daemon(self):
        argv = [self.binary, "-e", "-v", "6"]
        for ident in self.meters:
            argv += ["-i", ident]
        err = open(os.path.join(self.root, "daemon.log"), "ab")
        err.write(b"==== start %d\n" % self.daemon_starts)
        err.flush()
        self.daemon = subprocess.Popen(argv, stdout=err, stderr=err, env=self.env)
        self.daemon_starts += 1

    def kill_daemon(self):
        self.daemon.send_signal(signal.SIGKILL)
        self.daemon.wait()

    def stop_daemon(self):
        """SIGTERM; the exit status, or None when it did not end within 60 seconds."""
        if self.daemon.poll() is not None:
            return self.daemon.returncode
        self.daemon.send_signal(signal.SIGTERM)
        try:
            return self.daemon.wait(60)
        except subprocess.TimeoutExpired:
            self.daemon.kill()
            self.daemon.wait()
            return None

    def stop_sim(self):
        if self.sim and self.sim.poll() is None:
            self.sim.send_signal(signal.SIGTERM)
            try:
                self.sim.wait(10)
            except subprocess.TimeoutExpired:
                self.sim.kill()
                self.sim.wait()

    # The daemon makes its storage directories again whenever a write fails, so a
    # directory can appear at the meter's path at any instant: every change of what
    # stands there is one exchange of two names, never a remove followed by a rename.
    def block_storage(self, ident):
        d = self.storage(ident)
        if not os.path.isdir(d):
            return False
        write_atomic(d + ".blocker", "in the way\n")
        exchange(d + ".blocker", d)
        os.rename(d + ".blocker", d + ".aside")
        return True

    def restore_storage(self, ident):
        d = self.storage(ident)
        exchange(d + ".aside", d)
        os.unlink(d + ".aside")

    def reach(self, meter_time):
        """{(ident, bound file): newest record time the daemon must reach}."""
        with open(self.held, encoding="utf-8") as f:
            held = json.load(f)
        out = {}
        for ident, address in self.meters.items():
            if address is None and len(held) == 1:
                address = next(iter(held))
            records = held.get(address, {})
            for kind, bound, limit in (("hourly", "timestamp_max_hourly", hour_start(meter_time)),
                                       ("daily", "timestamp_max_daily", day_start(meter_time))):
                times = [int(t) for t in records.get(kind, {}) if int(t) < limit]
                out[(ident, bound)] = max(times) if times else 0
        return out

    def caught_up(self, reach):
        return all(read_number(self.storage(os.path.join(ident, bound))) >= t for (ident, bound), t in reach.items())

    def play_faults(self, until, base_offset):
        """A random sequence of faults on this line until the monotonic time `until`."""
        rng = self.rng
        reach = self.reach(int(time.time()) + base_offset)
        actions = ["link", "link", "kill", "storage", "clock", "rest"]
        if self.meter_faults:
            actions += ["meter", "meter"]
        while time.monotonic() < until:
            action = rng.choice(actions)
            hold = rng.uniform(0.5, 3.0)
            if action != "rest":
                self.faults += 1
                if not self.caught_up(reach):
                    self.faults_in_backfill += 1
            if action == "link":
                fault = rng.choice(LINK_FAULTS)
                self.note("fault %s for %.1fs" % (fault, hold))
                self.set_faults(**{fault: True})
                time.sleep(hold)
                self.set_faults()
            elif action == "meter":
                what, keys = rng.choice(self.meter_faults)
                self.note("meter %s for %.1fs" % (what, hold))
                self.set_faults(extra=keys)
                time.sleep(hold)
                self.set_faults()
            elif action == "kill":
                time.sleep(rng.uniform(0, 1.5))
                self.note("kill -9")
                self.kill_daemon()
                time.sleep(rng.uniform(0, 1.0))
                self.start_daemon()
            elif action == "storage":
                ident = rng.choice(sorted(self.meters))
                if self.block_storage(ident):
                    self.note("storage of %s unwritable for %.1fs" % (ident, hold))
                    time.sleep(hold)
                    self.restore_storage(ident)
            elif action == "clock":
                step = rng.choice((-1, 1)) * rng.randint(600, 30 * 3600)
                self.note("controller clock stepped by %+ds for %.1fs" % (step, hold))
                write_atomic(self.offset_file, str(base_offset + step))
                time.sleep(hold)
                write_atomic(self.offset_file, str(base_offset))
                self.note("controller clock stepped back")
            else:
                time.sleep(hold)
            if self.daemon.poll() is not None:
                self.note("daemon ended by itself with status %s; restarted" % self.daemon.returncode)
                self.ended_by_itself += 1
                self.start_daemon()


def run_seed(seed, args):
    rng = random.Random(seed)
    zone = rng.choice(ZONES)
    os.environ["TZ"] = zone
    time.tzset()
    now = int(time.time())
    changes = utc_offset_changes(now - 365 * 86400, now - 7 * 86400)
    if changes:
        change = rng.choice(changes)
        # on one of the first hours of the day after the change, so that the day of the
        # change is a complete daily record and the change lies among the hourly ones
        meter_now = day_start(change + 26 * 3600) + rng.randint(0, 8) * 3600
    else:
        change = None
        meter_now = now - rng.randint(7, 300) * 86400
    # a few minutes into an hour, so no new record appears while the scenario runs
    meter_now = hour_start(meter_now) + rng.randint(3, 30) * 60 + rng.randint(0, 59)
    offset = meter_now - now

    work = os.path.join(args.work, "seed-%d" % seed)
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    env = dict(os.environ)
    env.update({"TZ": zone, "MCD_TIME_SCALE": str(args.scale)})

    # enough hourly records to reach back past the change
    back = (hour_start(meter_now) - change) // 3600 if change else rng.randint(20, 30)
    hours = back + rng.randint(2, 5)
    days = rng.randint(3, 4)
    first_hour = hour_start(meter_now) - hours * 3600
    first_day = day_start(day_start(meter_now) - days * 86400 + 7200)
    # records the VKT-7 does not hold (it answers error code 3 for them), and archive
    # reads it answers with error code 2 (a record it holds: the walk comes back for it)
    holes = [hour_start(meter_now) - rng.randint(2, hours - 1) * 3600 for _ in range(rng.randint(0, 2))]
    error2 = sorted(rng.sample(range(3, 200), rng.randint(1, 4)))
    vkt = Line("vkt7", work, args.binary, env, {"71": None}, [
        os.path.join(TOOLS, "vkt7_sim.py"), "--first-hour", str(first_hour), "--first-day", str(first_day),
        "--error2-reads", ",".join(map(str, error2))] + (["--holes", ",".join(map(str, holes))] if holes else []),
        random.Random(seed * 7919 + 1))
    esko_meters = [("201", 1, "esko-mtr-06", "mtr06"), ("202", 2, "esko-tm3", "tm3e")][:args.esko_meters]
    esko_specs = []
    for ident, address, _, model in esko_meters:
        esko_specs += ["--meter", "%d:%s:%d:%d" % (address, model, back + rng.randint(2, 5), rng.randint(3, 4))]
    esko = Line("esko", work, args.binary, env, {m[0]: str(m[1]) for m in esko_meters},
                [os.path.join(TOOLS, "esko_sim.py")] + esko_specs, random.Random(seed * 7919 + 2))
    # gaps of the ESKO meters (answered "no record"), and the ESKO meter faults: error
    # answers to the find request in the middle of a walk, a clock that reads nonsense,
    # a clock days away from the controller's
    esko.base_control = {"no_record": [hour_start(meter_now) - rng.randint(2, back + 1) * 3600
                                       for _ in range(rng.randint(0, 2))]}
    errors = ("error answers", {"error_code": rng.choice((1, 2, 4, 5, 6, 7)), "error_every": rng.randint(2, 5)})
    esko.meter_faults = [
        errors, errors,  # twice as likely as each clock fault
        ("clock reading 00.00.2000", {"clock": "nonsense"}),
        ("clock days off", {"clock_offset": rng.choice((-1, 1)) * rng.randint(8, 40) * 86400})]
    lines = [vkt, esko]

    meters = {"71": {"manufacturer": "vkt-7", "period_current": "601",
                     "port_params": {"name": vkt.link, "speed": "9600"},
                     "systems": {"system_1": "1", "system_2": "1"}}}
    for ident, address, manufacturer, _ in esko_meters:
        meters[ident] = {"manufacturer": manufacturer, "serial": str(address), "period_current": "601",
                         "port_params": {"name": esko.link, "speed": "19200"},
                         "systems": {"system_1": "1", "system_2": "1"}}
    config = os.path.join(work, "config.json")
    write_atomic(config, json.dumps({"meters": meters}))
    # the server takes a free port itself and names it once it listens
    port_file = os.path.join(work, "server.port")
    server = subprocess.Popen([sys.executable, os.path.join(TOOLS, "config_server.py"), "--port", "0",
                               "--port-file", port_file, "--config", config], env=env,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    headline = "seed %d: %s, meters' clock %s%s" % (
        seed, zone, time.strftime("%Y-%m-%d %H:%M:%S %Z", time.localtime(meter_now)),
        ", change at %s" % time.strftime("%Y-%m-%d %H:%M %Z", time.localtime(change)) if change else "")
    problems = []
    try:
        deadline = time.monotonic() + 30
        while not os.path.exists(port_file) and server.poll() is None and time.monotonic() < deadline:
            time.sleep(0.05)
        if not os.path.exists(port_file):
            return headline, ["the configuration server did not start"], False
        with open(port_file, encoding="utf-8") as f:
            env["MCD_SERVER_URL"] = "http://127.0.0.1:%d/" % int(f.read())
        for line in lines:
            line.env["MCD_SERVER_URL"] = env["MCD_SERVER_URL"]
        for line in lines:
            write_atomic(line.offset_file, str(offset))
            if not line.start_sim(offset):
                problems.append("%s simulator did not start (or wrote no held-out file); see %s/sim.log"
                                % (line.name, line.root))
        if problems:
            return headline, problems, False
        held_at_start = {}
        for line in lines:
            with open(line.held, encoding="utf-8") as f:
                held_at_start[line.name] = f.read()
            line.start_daemon()

        # faults while the backfill runs, each line on its own
        until = time.monotonic() + args.fault_seconds
        players = [threading.Thread(target=line.play_faults, args=(until, offset)) for line in lines]
        for p in players:
            p.start()
        for p in players:
            p.join()

        # healthy until both daemons have caught up
        healthy_meter_time = int(time.time()) + offset
        for line in lines:
            line.set_faults()
            write_atomic(line.offset_file, str(offset))
            if line.daemon.poll() is not None:
                line.note("daemon ended by itself with status %s; restarted" % line.daemon.returncode)
                line.ended_by_itself += 1
                line.start_daemon()
        reach = {line.name: line.reach(healthy_meter_time) for line in lines}
        healthy = time.monotonic()
        deadline = healthy + args.catch_up_seconds
        while time.monotonic() < deadline and not all(line.caught_up(reach[line.name]) for line in lines):
            time.sleep(0.2)
        catch_up = time.monotonic() - healthy
        for line in lines:
            if not line.caught_up(reach[line.name]):
                problems.append("%s: not caught up within %ds" % (line.name, args.catch_up_seconds))
            status = line.stop_daemon()
            if status != 0:
                problems.append("%s: the daemon ended with status %s on SIGTERM" % (line.name, status))
            if line.ended_by_itself:
                problems.append("%s: the daemon ended %d times without being killed" % (line.name, line.ended_by_itself))
            with open(os.path.join(line.root, "daemon.log"), encoding="utf-8", errors="replace") as f:
                reports = [l.rstrip() for l in f if "Sanitizer" in l or "runtime error:" in l]
            if reports:
                problems.append("%s: sanitizer reports in daemon.log:\n%s" % (line.name, "\n".join(reports[:10])))
        for line in lines:
            line.stop_sim()
            with open(line.held, encoding="utf-8") as f:
                if f.read() != held_at_start[line.name]:
                    line.note("the simulator's held records changed during the run")

        totals = [0, 0, 0]
        for line in lines:
            argv = [sys.executable, os.path.join(TOOLS, "archive_check.py"), "--held-out", line.held,
                    "--storage", line.storage(), "--meter-time", str(healthy_meter_time)]
            for ident, address in line.meters.items():
                argv += ["--meter", ident + ("=" + address if address else "")]
            checked = subprocess.run(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     universal_newlines=True)
            report = checked.stdout.strip().splitlines()
            with open(os.path.join(line.root, "check.txt"), "w", encoding="utf-8") as f:
                f.write(checked.stdout)
            last = report[-1].split() if report else []
            if len(last) == 6 and last[0] == "lost":
                for i in range(3):
                    totals[i] += int(last[1 + 2 * i])
            else:
                problems.append("%s: the checker failed:\n%s" % (line.name, checked.stdout))
            if checked.returncode != 0:
                problems.append("%s (%d daemon starts; faults: %s):\n  %s" % (
                    line.name, line.daemon_starts, "; ".join(e.split(" ", 1)[1] for e in line.events),
                    "\n  ".join(report)))
        headline += ": lost %d duplicated %d wrong %d" % tuple(totals)
        headline += "; faults begun in the backfill: %s; catch-up %.0fs" % (", ".join(
            "%s %d of %d" % (line.name, line.faults_in_backfill, line.faults) for line in lines), catch_up)
        return headline, problems, not problems
    finally:
        for line in lines:
            if line.daemon and line.daemon.poll() is None:
                line.daemon.kill()
                line.daemon.wait()
            line.stop_sim()
        server.terminate()
        server.wait()
        with open(os.path.join(work, "events.txt"), "w", encoding="utf-8") as f:
            for line in lines:
                f.write("%s:\n  %s\n" % (line.name, "\n  ".join(line.events)))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", required=True, help="the mcd_main binary")
    parser.add_argument("--work", required=True, help="folder for the runs' files (seed-N below it)")
    parser.add_argument("--scale", type=int, default=1800, help="MCD_TIME_SCALE of the daemons")
    parser.add_argument("--fault-seconds", type=float, default=15, help="how long faults are played")
    parser.add_argument("--catch-up-seconds", type=int, default=150, help="time allowed to catch up")
    parser.add_argument("--esko-meters", type=int, choices=(1, 2), default=2,
                        help="meters on the ESKO line: the MTR-06, or the MTR-06 and the TM-3E")
    parser.add_argument("seeds", nargs="+", type=int)
    args = parser.parse_args()
    passed = failed = 0
    for seed in args.seeds:
        started = time.monotonic()
        headline, problems, ok = run_seed(seed, args)
        print("%s (%.0fs)%s" % (headline, time.monotonic() - started, "" if ok else " FAILED"))
        for p in problems:
            print("  " + p.replace("\n", "\n  "))
        sys.stdout.flush()
        if ok:
            passed += 1
        else:
            failed += 1
    print("%d passed, %d failed" % (passed, failed))
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
