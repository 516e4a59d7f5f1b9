#!/usr/bin/env python3
"""Benchmarks of mcd_main against the meter simulators of tools/. Prints its figures.

For every meter family in FAMILIES whose simulator is present:
 1. Backfill: N days (default 30) of missing hourly and daily archive at 9600 baud, one
    daemon at the production log level (-v 5, as the README recommends) on its own
    paced line. Wall time against the line's floor for the same exchanges (from the simulator's counters: each
    exchange's wire time, at least the pause the protocol prescribes, plus the RTU
    silences of Modbus families), and the records lost and filed twice, counted against
    the records the simulator held.
 2. CPU per 1,000 archive records and per poll cycle, at -v 5 and at -v 7: records from
    unpaced backfills, poll cycles of a meter polled every 20 s, both on the real clock.
 3. Bytes written to persistent storage per day in steady state, archive lines and
    diagnostic files apart (from the paced backfill and the poll cycles after it, and
    from the unpaced runs at -v 5 and -v 7).
Then for the daemon as a whole:
 4. Peak resident memory (VmHWM) and private memory, with 1 meter and with 16 meters on
    one line, and where the resident memory lies (shared libraries, thread stacks,
    heap and other anonymous memory).
 5. Idle CPU with 1 and with 16 meters, over a minute of waiting between polls (real
    time, no fast-forward).
--parts backfill,cpu,memory,idle runs only the parts named (memory and idle share
their runs; bytes per day come with backfill and cpu).
"""
import argparse
import collections
import concurrent.futures
import json
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TICK = os.sysconf("SC_CLK_TCK")
BITS_PER_BYTE = 10  # start bit, 8 data bits, stop bit: as the simulators pace the line


# --- the families -------------------------------------------------------------------

class Family:
    """One row of the table: how to simulate a meter of the family and what it holds.

    sim_args(hours, days, address) gives the simulator's own arguments for a meter
    holding `hours` hourly records up to the last complete hour and `days` daily
    records up to yesterday; config is the meter's entry for the configuration server
    (besides port and period); port is what its line needs besides name and speed;
    answer_pause is the pause the protocol prescribes between a request and the reading
    of its answer; rtu_silences is the number of 3.5-character silences that frame one
    exchange on a Modbus RTU line (request and answer: 2); period is the family's usual
    polling period in seconds, for the bytes written per day."""

    def __init__(self, name, tool, sim_args, config, answer_pause, rtu_silences, period, port=None):
        self.name, self.tool, self.sim_args, self.config = name, tool, sim_args, config
        self.answer_pause, self.rtu_silences, self.period = answer_pause, rtu_silences, period
        self.port = port or {}

    def present(self):
        return os.path.exists(os.path.join(ROOT, "tools", self.tool))


def vkt7_args(hours, days, address):
    now = time.time()
    return ["--first-hour", str(local_hours_back(now, hours)[0]), "--first-day", str(local_days_back(now, days)[0])]


def esko_args(hours, days, address):
    return ["--meter", "%d:mtr06:%d:%d" % (address, hours, days)]


def modbus_args(hours, days, address):
    return ["--address", str(address), "--hours", str(hours), "--days", str(days)]


def modbus_config(manufacturer):
    return lambda a: {"manufacturer": manufacturer, "serial": str(a), "heat_systems": "2",
                      "systems": {"system_1": "1", "system_2": "1"}}


MODBUS_PORT = {"protocol": "modbus"}

FAMILIES = [
    Family("VKT-7", "vkt7_sim.py", vkt7_args, {"manufacturer": "vkt-7"}, 0.1, 0, 5400),
    Family("MTR-06", "esko_sim.py", esko_args, lambda a: {"manufacturer": "esko-mtr-06", "serial": str(a)}, 0.1, 0, 20),
    # Modbus RTU families: floor = wire time of every byte + 2 silences per exchange
    Family("TSRV-024M", "tsrv_sim.py", modbus_args, modbus_config("tsrv-024m"), 0.0, 2, 20, MODBUS_PORT),
    Family("Magika", "magika_sim.py", modbus_args, modbus_config("magika-axxx"), 0.0, 2, 20, MODBUS_PORT),
]


def family_config(family, address):
    config = family.config(address) if callable(family.config) else dict(family.config)
    return config


# --- local calendar -----------------------------------------------------------------

def hour_start(t):
    lt = time.localtime(t)
    return int(time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday, lt.tm_hour, 0, 0, 0, 0, -1)))


def midnight(t, days=0):
    lt = time.localtime(t)
    return int(time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday + days, 0, 0, 0, 0, 0, -1)))


def local_hours_back(now, count):
    """The `count` local hour starts ending at the last complete hour, oldest first
    (a repeated local hour is one record, a left-out one none)."""
    hours, t = [], hour_start(now)
    while len(hours) < count:
        t = hour_start(t - 1)
        hours.append(t)
    return sorted(set(hours))


def local_days_back(now, count):
    """The `count` local midnights ending at yesterday's, oldest first."""
    return [midnight(now, -d) for d in range(count, 0, -1)]


# --- process figures ----------------------------------------------------------------

def cpu_seconds(pid):
    """User + system time of the whole process, exited threads included."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def thread_cpu_ns(pid):
    """Run time of the live threads in nanoseconds (finer than the 10 ms ticks)."""
    total = 0
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/schedstat" % (pid, tid)) as f:
                total += int(f.read().split()[0])
        except OSError:
            pass
    return total


def status_kib(pid, key):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return 0


def memory(pid):
    """Peak resident (VmHWM), resident and private KiB now, and the resident KiB by
    kind: shared libraries and the program (file-backed), thread stacks (the anonymous
    mappings holding a thread's stack pointer), heap and other anonymous memory."""
    stack_pointers = []
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/syscall" % (pid, tid)) as f:
                fields = f.read().split()
            if len(fields) >= 3:
                stack_pointers.append(int(fields[-2], 16))
        except (OSError, ValueError):
            pass
    kinds = collections.Counter()
    private = 0
    mapping = None
    with open("/proc/%d/smaps" % pid) as f:
        for line in f:
            m = re.match(r"^([0-9a-f]+)-([0-9a-f]+) \S+ \S+ \S+ (\d+)\s*(.*)$", line)
            if m:
                low, high, inode, name = int(m.group(1), 16), int(m.group(2), 16), m.group(3), m.group(4)
                if inode != "0":
                    kind = "libraries and program"
                elif name == "[stack]" or any(low <= sp < high for sp in stack_pointers):
                    kind = "thread stacks"
                else:
                    kind = "heap and other anonymous"
                mapping = kind
                continue
            if line.startswith("Rss:"):
                kinds[mapping] += int(line.split()[1])
            elif line.startswith(("Private_Clean:", "Private_Dirty:")):
                private += int(line.split()[1])
    return dict(hwm=status_kib(pid, "VmHWM"), rss=status_kib(pid, "VmRSS"), private=private,
                kinds=dict(kinds), threads=len(os.listdir("/proc/%d/task" % pid)))


def read_number(path):
    try:
        with open(path) as f:
            return int(f.read().strip() or 0)
    except (OSError, ValueError):
        return 0


def file_size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return 0


# --- the archive check --------------------------------------------------------------

def archive_files(storage, meter_id):
    for dirpath, _, files in os.walk(os.path.join(storage, meter_id)):
        if dirpath.endswith("tc_archives"):
            for name in files:
                yield os.path.join(dirpath, name)


def check_archives(storage, meter_id, want_hourly, want_daily):
    """Counts, over every archive file of the meter, the records held by the meter
    that were not filed (lost) and the lines whose record time is filed more than once
    (duplicated), and the bytes of the hourly and daily files."""
    want_h, want_d = set(want_hourly), set(want_daily)
    result = dict(files=0, lost=0, dup=0, hourly_bytes=0, daily_bytes=0, lines=0)
    for path in archive_files(storage, meter_id):
        with open(path, errors="replace") as f:
            times = [int(line.split(",", 1)[0]) for line in f if line.strip()]
        if not times:
            continue
        distinct = set(times)
        daily = all(t == midnight(t) for t in distinct) and (len(distinct) < 2 or
                                                             min(b - a for a, b in zip(sorted(distinct),
                                                                                       sorted(distinct)[1:])) >= 82800)
        want = want_d if daily else want_h
        result["files"] += 1
        result["lines"] += len(times)
        result["lost"] += len(want - distinct)
        result["dup"] += len(times) - len(distinct)
        result["daily_bytes" if daily else "hourly_bytes"] += file_size(path)
    return result


def diag_bytes(storage):
    """Bytes of the diagnostic files (the files directly under the storage root that are
    neither links nor bounds)."""
    total = 0
    for name in os.listdir(storage):
        path = os.path.join(storage, name)
        if os.path.isfile(path) and not os.path.islink(path) and name.endswith(".log"):
            total += file_size(path)
    return total


# --- the rig --------------------------------------------------------------------------

def free_port():
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def wait_for(pred, timeout, poll=0.5):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if pred():
            return True
        time.sleep(poll)
    return pred()


class Rig:
    """A relocated root, a configuration server, one simulator and one daemon."""

    def __init__(self, binary, name):
        self.binary = binary
        self.root = tempfile.mkdtemp(prefix="mcdbench-%s." % name)
        for sub in ("tmp", "storage", "leds"):
            os.makedirs(os.path.join(self.root, sub))
        self.port = free_port()
        self.meters = {}
        self.procs = []
        self.daemon = None

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def start(self, family, addresses, hours, days, baud, period, scale, verbose):
        link = self.path("line.tty")
        sim_args = []
        for a in addresses:
            sim_args += family.sim_args(hours, days, a)
            config = family_config(family, a)
            config.setdefault("systems", {"system_1": "1"})
            config.update(period_current=str(period), port_params=dict(family.port, name=link, speed="9600"))
            self.meters[str(a)] = config
        extra = ["--stats", self.path("stats.json"), "--answer-pause", str(family.answer_pause),
                 "--held-out", self.path("held.json")]
        if baud:
            extra += ["--baud", str(baud)]
        self.procs.append(subprocess.Popen([sys.executable, os.path.join(ROOT, "tools", family.tool), "--link", link]
                                           + extra + sim_args, stdout=subprocess.DEVNULL))
        if not wait_for(lambda: os.path.exists(link), 10, 0.05):
            raise RuntimeError("simulator %s did not start" % family.tool)
        with open(self.path("config.json"), "w") as f:
            json.dump({"meters": self.meters}, f)
        self.procs.append(subprocess.Popen([sys.executable, os.path.join(ROOT, "tools/config_server.py"), "--port",
                                            str(self.port), "--config", self.path("config.json")]))
        if not wait_for(lambda: self._accepts(), 10, 0.05):
            raise RuntimeError("configuration server did not start")
        env = dict(os.environ, MCD_TMP_DIR=self.path("tmp") + "/", MCD_STORAGE_DIR=self.path("storage") + "/",
                   MCD_LEDS_DIR=self.path("leds") + "/", MCD_SERVER_URL="http://127.0.0.1:%d/" % self.port)
        env.pop("MCD_TIME_SCALE", None)
        if scale:
            env["MCD_TIME_SCALE"] = str(scale)
        args = [self.binary, "-l", self.path("daemon.log"), "-v", str(verbose)]
        for a in addresses:
            args += ["-i", str(a)]
        self.daemon = subprocess.Popen(args, env=env, stdout=subprocess.DEVNULL)
        self.procs.append(self.daemon)
        return self.daemon

    def _accepts(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 0.2).close()
            return True
        except OSError:
            return False

    def check(self, meter_time):
        """tools/archive_check.py on meter 1 against the records the simulator holds (its
        held-out file): {"lost", "dup", "wrong"}, or None when it gave no totals."""
        argv = [sys.executable, os.path.join(ROOT, "tools", "archive_check.py"), "--held-out", self.path("held.json"),
                "--storage", self.path("storage"), "--meter", "1", "--meter-time", str(int(meter_time)), "--quiet"]
        done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, universal_newlines=True)
        last = done.stdout.strip().splitlines()[-1:] or [""]
        m = re.match(r"^lost (\d+) duplicated (\d+) wrong (\d+)$", last[0])
        return dict(lost=int(m.group(1)), dup=int(m.group(2)), wrong=int(m.group(3))) if m else None

    def stats(self):
        try:
            with open(self.path("stats.json")) as f:
                return json.load(f)
        except (OSError, ValueError):
            return {}

    def filed(self, addresses, last_hour, yesterday):
        return all(read_number(self.path("storage/%s/timestamp_max_hourly" % a)) >= last_hour and
                   read_number(self.path("storage/%s/timestamp_max_daily" % a)) >= yesterday for a in addresses)

    def newest_item(self):
        """The newest modification time (ns) of the meters' current-value files: each
        poll cycle writes them (stamped with the daemon's clock), whatever the log level."""
        newest = 0
        for dirpath, _, files in os.walk(self.path("tmp")):
            if dirpath.endswith("tc_items"):
                for name in files:
                    try:
                        newest = max(newest, os.stat(os.path.join(dirpath, name)).st_mtime_ns)
                    except OSError:
                        pass
        return newest

    def next_cycle(self, last, seconds, step=0.1):
        """The newest current-value time once it differs from `last` (a poll cycle has
        written its items), or None when `seconds` pass first."""
        end = time.time() + seconds
        while time.time() < end:
            now = self.newest_item()
            if now != last:
                return now
            time.sleep(step)
        return None

    def count_cycles(self, seconds, step=0.2):
        """Sleeps `seconds` and counts the poll cycles meanwhile (the times the newest
        current-value file changed; cycles are a second or more apart at the 60-fold
        clock)."""
        end, last, count = time.time() + seconds, self.newest_item(), 0
        while True:
            last = self.next_cycle(last, end - time.time(), step)
            if last is None:
                return count
            count += 1

    def stop(self):
        for p in reversed(self.procs):
            if p.poll() is None:
                p.terminate()
        # the daemon ends once the driver holding the turn has finished its cycle: the
        # force-update files start that cycle at once
        for meter_id in self.meters:
            open(self.path("tmp", "qmd_force_update_" + meter_id), "w").close()
        for p in self.procs:
            try:
                p.wait(timeout=20)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        shutil.rmtree(self.root, ignore_errors=True)


# --- the measurements -----------------------------------------------------------------

# Polling period of the paced backfills: above 600 s the daemon reads the archives in its
# first cycle (at 600 s and below it holds them back 600 s of meter time, 10 s of wall
# time at the 60-fold clock, which are no line time).
PACED_PERIOD = 601


def backfill(binary, family, days, baud, verbose, steady_seconds, scale=60, period=PACED_PERIOD):
    """One meter with `days` of missing archive; wall time to file it all, the floor,
    lost and duplicated records, CPU, memory, bytes written; then poll cycles. scale 0
    runs the daemon on the real clock."""
    rig = Rig(binary, family.name)
    try:
        now = time.time()
        want_hourly, want_daily = local_hours_back(now, days * 24), local_days_back(now, days)
        started = time.time()
        daemon = rig.start(family, [1], days * 24, days, baud, period, scale, verbose)
        done = wait_for(lambda: rig.filed([1], want_hourly[-1], want_daily[-1]), 3 * 3600)
        wall = time.time() - started
        cpu = cpu_seconds(daemon.pid)
        stats = rig.stats()
        check = check_archives(rig.path("storage"), "1", want_hourly, want_daily)
        # lost and duplicated against the records the meter held when the run began
        held = rig.check(now)
        check.update(held if held else dict(lost=-1, dup=-1, wrong=-1))
        diag_backfill = diag_bytes(rig.path("storage"))
        # poll cycles once everything is filed (fast-forwarded 60 times)
        t0, d0 = cpu_seconds(daemon.pid), diag_bytes(rig.path("storage"))
        cycles = rig.count_cycles(steady_seconds)
        t1, d1 = cpu_seconds(daemon.pid), diag_bytes(rig.path("storage"))
        mem = memory(daemon.pid)
        requests = stats.get("requests", 0)
        floor = stats.get("floor_seconds", 0.0) + requests * family.rtu_silences * 3.5 * BITS_PER_BYTE / baud \
            if baud else 0.0
        records = check["lines"]
        return dict(family=family.name, done=done, wall=wall, floor=floor, ratio=wall / floor if floor else 0.0,
                    requests=requests, bytes=stats.get("bytes_in", 0) + stats.get("bytes_out", 0),
                    gap=stats.get("gap_seconds", 0.0), gap_long=stats.get("gaps_over_100ms", 0.0),
                    lost=check["lost"], dup=check["dup"], wrong=check["wrong"], files=check["files"], records=records, cpu=cpu,
                    cpu_per_1000=1000.0 * cpu / records if records else 0.0, cycles=cycles,
                    cpu_per_cycle=(t1 - t0) / cycles if cycles else 0.0, mem=mem,
                    hourly_bytes_per_record=check["hourly_bytes"] / len(want_hourly),
                    daily_bytes_per_record=check["daily_bytes"] / len(want_daily),
                    diag_per_record=diag_backfill / (len(want_hourly) + len(want_daily)),
                    diag_per_cycle=(d1 - d0) / cycles if cycles else 0.0)
    finally:
        rig.stop()


STEADY_PERIOD = 20  # the polling period of the poll-cycle runs, every family


def steady(binary, family, verbose, cycles):
    """One meter holding a day of archive, the daemon on the real clock polling every
    STEADY_PERIOD seconds: CPU (every thread, in nanoseconds) and diagnostic bytes
    from a cycle boundary two periods after the first item file to the one `cycles`
    cycles later. The first archive reading is held back 600 s at such a period, so
    these are the cycles of current values with the archive-lag check that ends each;
    the hourly archive reading comes on top once an hour (its cost is in the per-record
    figure)."""
    rig = Rig(binary, "%s-steady" % family.name)
    try:
        daemon = rig.start(family, [1], 24, 1, 0, STEADY_PERIOD, 0, verbose)
        limit = 60 + 5 * STEADY_PERIOD
        # From a cycle boundary two periods after the first item file: the system values
        # are filed before the first cycle, and the first cycle ends with the search for
        # the oldest records (MTR-06: a bisection with error answers) after its items.
        mark = rig.next_cycle(0, limit)
        settled = time.time() + 2 * STEADY_PERIOD
        while mark is not None and time.time() < settled:
            mark = rig.next_cycle(mark, limit)
        n0, d0, counted = thread_cpu_ns(daemon.pid), diag_bytes(rig.path("storage")), 0
        while mark is not None and counted < cycles:
            mark = rig.next_cycle(mark, limit)
            counted += mark is not None
        n1, d1 = thread_cpu_ns(daemon.pid), diag_bytes(rig.path("storage"))
        return dict(done=counted == cycles, cycles=counted,
                    cpu_per_cycle=(n1 - n0) / 1e9 / counted if counted else 0.0,
                    diag_per_cycle=(d1 - d0) / counted if counted else 0.0)
    finally:
        rig.stop()


def many(binary, family, count, idle_seconds):
    """`count` meters on one unpaced line at real time, polled once an hour: memory once
    all have filed their (small) archives, then the CPU of a minute of waiting."""
    rig = Rig(binary, "%s-x%d" % (family.name, count))
    try:
        now = time.time()
        want_hourly, want_daily = local_hours_back(now, 24), local_days_back(now, 2)
        addresses = list(range(1, count + 1))
        daemon = rig.start(family, addresses, 24, 2, 0, 3600, 0, LEVEL)
        done = wait_for(lambda: rig.filed(addresses, want_hourly[-1], want_daily[-1]), 900)
        time.sleep(5)
        mem = memory(daemon.pid)
        n0, t0 = thread_cpu_ns(daemon.pid), time.time()
        idle_cycles = rig.count_cycles(idle_seconds, 1.0)
        n1, t1 = thread_cpu_ns(daemon.pid), time.time()
        return dict(family=family.name, count=count, done=done, mem=mem, idle_cpu=(n1 - n0) / 1e9,
                    idle_wall=t1 - t0, idle_cycles=idle_cycles, records=count * (24 + 2))
    finally:
        rig.stop()


def pool_run(jobs, workers):
    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        futures = [pool.submit(*job) for job in jobs]
        return [f.result() for f in futures]


def kib(value):
    return "%.1f MiB" % (value / 1024.0)


PARTS = ("backfill", "cpu", "memory", "idle")
LEVEL = 5  # the production log level the README recommends


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", default=os.path.join(ROOT, "build/bench/mcd_main"))
    parser.add_argument("--days", type=int, default=30, help="days of missing archive in the paced backfill")
    parser.add_argument("--cpu-days", type=int, default=10, help="days of archive in the unpaced CPU runs")
    parser.add_argument("--baud", type=int, default=9600)
    parser.add_argument("--steady-seconds", type=int, default=30,
                        help="real seconds of fast-forwarded poll cycles after a paced backfill (bytes per cycle)")
    parser.add_argument("--cycles", type=int, default=5, help="poll cycles measured on the real clock")
    parser.add_argument("--idle-seconds", type=int, default=60)
    parser.add_argument("--families", default="", help="comma-separated family names (default: every present one)")
    parser.add_argument("--parts", default=",".join(PARTS),
                        help="comma-separated parts to run: %s (default: all)" % ", ".join(PARTS))
    args = parser.parse_args()
    parts = set(p.strip() for p in args.parts.split(",") if p.strip())
    if not parts <= set(PARTS):
        parser.error("unknown part(s): %s" % ", ".join(sorted(parts - set(PARTS))))

    families = [f for f in FAMILIES if f.present() and (not args.families or f.name in args.families.split(","))]
    memory_family = next(f for f in families if f.name == "MTR-06") if any(
        f.name == "MTR-06" for f in families) else families[0]
    started = time.time()
    print("machine: %d cores; load average at the start %.2f %.2f %.2f" % ((os.cpu_count(),) + os.getloadavg()))
    print("families: %s; parts: %s" % (", ".join(f.name for f in families), ", ".join(p for p in PARTS if p in parts)))

    # Paced backfills, the real-time idle runs and the poll-cycle runs together: they wait
    # on the line and on the clock, not on the processor.
    jobs = []
    if "backfill" in parts:
        jobs += [(backfill, args.binary, f, args.days, args.baud, LEVEL, args.steady_seconds) for f in families]
    if parts & {"memory", "idle"}:
        jobs += [(many, args.binary, memory_family, n, args.idle_seconds) for n in (1, 16)]
    cycle_keys = [(f.name, level) for f in families for level in (LEVEL, 7)] if "cpu" in parts else []
    jobs += [(steady, args.binary, f, level, args.cycles) for f in families for level in (LEVEL, 7)
             if "cpu" in parts]
    results = pool_run(jobs, len(jobs)) if jobs else []
    paced = results[:len(families)] if "backfill" in parts else []
    fleets = results[len(paced):len(results) - len(cycle_keys)]
    cycle_runs = dict(zip(cycle_keys, results[len(results) - len(cycle_keys):]))
    load_a = os.getloadavg()
    # Unpaced backfills at both log levels, one at a time: they measure processor time
    # on the real clock (the supervisor and the turn polling wake at their real rate,
    # the whole archive in the first cycle).
    cpu_runs = {}
    if "cpu" in parts:
        for f in families:
            for level in (LEVEL, 7):
                r = backfill(args.binary, f, args.cpu_days, 0, level, 0, scale=0)
                c = cycle_runs[(f.name, level)]
                r.update(cycles=c["cycles"], cpu_per_cycle=c["cpu_per_cycle"], diag_per_cycle=c["diag_per_cycle"])
                r["done"] = r["done"] and c["done"]
                cpu_runs[(f.name, level)] = r
    load_b = os.getloadavg()

    ok = True
    if paced:
        print("\n1. Backfill of %d days at %d baud, -v %d (load average after the paced runs %.2f %.2f %.2f)"
              % ((args.days, args.baud, LEVEL) + load_a))
        for r in paced:
            clean = r["done"] and r["lost"] == 0 and r["dup"] == 0 and r["wrong"] == 0
            ok = ok and clean
            print("   %-9s wall %6.1f s, floor %6.1f s, ratio %.3f; lost %d, duplicated %d, wrong %d (%d lines in %d "
                  "files; %d exchanges, %d bytes)%s" % (r["family"], r["wall"], r["floor"], r["ratio"], r["lost"],
                                                       r["dup"], r["wrong"], r["records"], r["files"], r["requests"],
                                                       r["bytes"], "" if r["done"] else "  NOT FINISHED"))
            print("             between exchanges (answer end to next request) %.1f s, of which %.1f s in gaps over "
                  "100 ms" % (r["gap"], r["gap_long"]))
    if cpu_runs or paced:
        print("\n2. CPU (user + system) per 1,000 archive records (unpaced %d-day backfills, real clock) and per poll "
              "cycle (%d cycles of current values at a %d s period, real clock, unpaced) (load average after "
              "%.2f %.2f %.2f)" % ((args.cpu_days, args.cycles, STEADY_PERIOD) + load_b))
    for f in families if cpu_runs else []:
        for level in (LEVEL, 7):
            r = cpu_runs[(f.name, level)]
            ok = ok and r["done"] and r["lost"] == 0 and r["dup"] == 0
            print("   %-9s -v %d: %5.1f ms per 1,000 records (%d records, %.2f s), %5.1f ms per poll cycle (%d cycles); "
                  "lost %d, duplicated %d" % (f.name, level, r["cpu_per_1000"] * 1000, r["records"], r["cpu"],
                                              r["cpu_per_cycle"] * 1000, r["cycles"], r["lost"], r["dup"]))
    for r in paced:
        print("   %-9s -v %d paced: %5.1f ms per 1,000 records; lost %d, duplicated %d" % (
            r["family"], LEVEL, r["cpu_per_1000"] * 1000, r["lost"], r["dup"]))
    if paced or cpu_runs:
        print("\n3. Bytes written to persistent storage per day in steady state, one meter")
    for f in families:
        rows = [("-v %d paced" % LEVEL, r) for r in paced if r["family"] == f.name]
        rows += [("-v %d unpaced" % level, cpu_runs[(f.name, level)]) for level in (LEVEL, 7) if cpu_runs]
        for label, r in rows:
            lines = 24 * r["hourly_bytes_per_record"] + r["daily_bytes_per_record"]
            diag = 25 * r["diag_per_record"] + 86400.0 / f.period * r["diag_per_cycle"]
            print("   %-9s %-13s archive lines %8.0f bytes (24 hourly records x %.0f + 1 daily x %.0f); diagnostic "
                  "files %6.0f bytes (%.1f per archive record, %.1f per poll cycle at a %d s period); lost %d, "
                  "duplicated %d" % (f.name, label, lines, r["hourly_bytes_per_record"], r["daily_bytes_per_record"],
                                     diag, r["diag_per_record"], r["diag_per_cycle"], f.period, r["lost"], r["dup"]))
    if "memory" in parts:
        print("\n4. Memory (%s meters, unpaced line, after all were filed)" % memory_family.name)
        for r in fleets:
            m = r["mem"]
            print("   %2d meter%s: peak resident %s (%d KiB), private %s now; resident now %s = %s; %d threads%s" % (
                r["count"], "s" if r["count"] > 1 else " ", kib(m["hwm"]), m["hwm"], kib(m["private"]),
                kib(m["rss"]), ", ".join("%s %s" % (k, kib(v)) for k, v in sorted(m["kinds"].items(),
                                                                                   key=lambda kv: -kv[1])),
                m["threads"], "" if r["done"] else "  (not all filed)"))
        for r in paced:
            print("   %-9s paced backfill: peak resident %s, private %s" % (r["family"], kib(r["mem"]["hwm"]),
                                                                           kib(r["mem"]["private"])))
    if "idle" in parts:
        print("\n5. Idle (real time, polling period 3600 s)")
        for r in fleets:
            print("   %2d meter%s: %.1f ms CPU over %.0f s (%.3f %% of one core, %d poll cycles meanwhile)" % (
                r["count"], "s" if r["count"] > 1 else " ", r["idle_cpu"] * 1000, r["idle_wall"],
                100.0 * r["idle_cpu"] / r["idle_wall"], r["idle_cycles"]))
    print("\nload average at the end %.2f %.2f %.2f; %.0f s in all" % (os.getloadavg() + (time.time() - started,)))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
