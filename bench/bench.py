#!/usr/bin/env python3
"""Benchmarks of mcd_main against the simulated meters of tools/ (standard library only).

  backfill  N days of hourly and daily archive from a VKT-7 and from an MTR-06, each on
            its own line paced at 9600 baud, each read by its own mcd_main: wall time
            against the protocol's lower bound for the same exchanges, and a check that
            every record the meter holds was filed once.
  cpu       unpaced lines and a fast clock (MCD_TIME_SCALE): CPU time (user + system) per
            1,000 archive records filed and per poll cycle, peak resident memory (VmHWM),
            with 1 and with 16 MTR-06 meters on one line.
  idle      CPU used by mcd_main during one minute of waiting between polls, after the
            first poll cycle, at real time.

Everything runs under --root (default build/bench/run): volatile and persistent trees,
lamp files, lines, configuration, simulator statistics and daemon logs. Figures are
printed as they come and written to <root>/results.json.

Lower bound of one backfill: every byte the simulator received or sent (its --stats
counts) at 10 bits per byte at 9600 baud, plus the pauses the protocols prescribe:
100 ms between a request and the reading of its answer for every request, and for an
ESKO meter 500 ms after every error answer (counted from the daemon's log).
"""
import argparse
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOOLS = os.path.join(os.path.dirname(HERE), "tools")
CLK_TCK = os.sysconf("SC_CLK_TCK")
BAUD = 9600
CYCLE_LINE = "CMcdBaseDriver::functionThread end all current values."
ESKO_ERROR_LINE = "LowLevelConnector::CheckResult - Error on return answer."


# ---------------------------------------------------------------- small helpers

def local_hour_start(t):
    lt = time.localtime(t)
    return int(time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday, lt.tm_hour, 0, 0, 0, 0, -1)))


def local_midnight(t):
    lt = time.localtime(t)
    return int(time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday, 0, 0, 0, 0, 0, -1)))


def last_hour(t):
    """Start of the last complete hour: the newest hourly bound the daemon can reach."""
    return local_hour_start(t) - 3600


def yesterday(t):
    """Local midnight that starts yesterday: the newest daily bound."""
    return local_midnight(local_midnight(t) - 43200)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def read_number(path):
    try:
        with open(path, encoding="utf-8") as f:
            return int(f.read().strip() or 0)
    except (OSError, ValueError):
        return 0


def read_json(path):
    try:
        with open(path, encoding="utf-8") as f:
            return json.load(f)
    except (OSError, ValueError):
        return {}


def count_in_file(path, needle):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read().count(needle)
    except OSError:
        return 0


def cpu_seconds(pid):
    """User + system time of the whole process (all threads), from /proc/<pid>/stat."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    # after the command: state is field 3, utime 14, stime 15 (1-based, man 5 proc)
    return (int(fields[11]) + int(fields[12])) / CLK_TCK


def cpu_ns(pid):
    """Time on the CPU of the live threads in nanoseconds (schedstat): finer than ticks."""
    total = 0
    task_dir = "/proc/%d/task" % pid
    for tid in os.listdir(task_dir):
        try:
            with open(os.path.join(task_dir, tid, "schedstat")) as f:
                total += int(f.read().split()[0])
        except (OSError, ValueError, IndexError):
            pass
    return total


def thread_ns(pid):
    """{thread id: (name, nanoseconds on the CPU)} of the live threads."""
    out = {}
    task_dir = "/proc/%d/task" % pid
    for tid in os.listdir(task_dir):
        try:
            with open(os.path.join(task_dir, tid, "comm")) as f:
                name = f.read().strip()
            with open(os.path.join(task_dir, tid, "schedstat")) as f:
                out[tid] = (name, int(f.read().split()[0]))
        except (OSError, ValueError, IndexError):
            pass
    return out


def status_kb(pid, key):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return 0


def load_average():
    return os.getloadavg()


# ---------------------------------------------------------------- one rig

class Rig:
    """One line: a simulator, the configuration server and one mcd_main, under a root."""

    def __init__(self, root, binary):
        self.root = os.path.abspath(root)
        self.binary = os.path.abspath(binary)
        if os.path.isdir(self.root):
            shutil.rmtree(self.root)
        for sub in ("tmp", "storage", "leds", "logs"):
            os.makedirs(os.path.join(self.root, sub))
        for lamp in ("kr_red", "lan"):
            with open(os.path.join(self.root, "leds", lamp), "w") as f:
                f.write("0")
        self.children = []
        self.daemon = None
        self.ids = []
        self.rusage = None
        self.status = None
        self.link = self.path("line.tty")
        self.stats = self.path("sim_stats.json")

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def spawn(self, name, argv, env=None):
        with open(self.path("logs", name + ".log"), "w") as log:
            return subprocess.Popen(argv, stdout=log, stderr=subprocess.STDOUT, env=env)

    def start_server(self, meters):
        self.port = free_port()
        with open(self.path("config.json"), "w", encoding="utf-8") as f:
            json.dump({"meters": meters}, f, indent=1)
        self.children.append(self.spawn("config_server", [
            sys.executable, os.path.join(TOOLS, "config_server.py"), "--port", str(self.port),
            "--config", self.path("config.json")]))
        wait_for(lambda: accepts(self.port), 10, "the configuration server")

    def start_simulator(self, script, options, baud):
        argv = [sys.executable, os.path.join(HERE, "sim_with_floor.py"), os.path.join(TOOLS, script),
                "--link", self.link, "--stats", self.stats, "--baud", str(baud)] + options
        self.children.append(self.spawn("simulator", argv))
        wait_for(lambda: os.path.exists(self.link) and os.path.exists(self.stats), 10, "the simulated line")

    def start_daemon(self, ids, time_scale):
        env = dict(os.environ)
        env.update({"MCD_TMP_DIR": self.path("tmp") + "/", "MCD_STORAGE_DIR": self.path("storage") + "/",
                    "MCD_LEDS_DIR": self.path("leds") + "/", "MCD_SERVER_URL": "http://127.0.0.1:%d/" % self.port,
                    "MCD_TIME_SCALE": str(time_scale)})
        self.ids = list(ids)
        argv = [self.binary, "-e", "-v", "6"]
        for i in ids:
            argv += ["-i", str(i)]
        self.daemon = self.spawn("mcd_main", argv, env)
        self.started = time.time()
        return self.daemon.pid

    @property
    def log(self):
        return self.path("logs", "mcd_main.log")

    def cycles(self):
        return count_in_file(self.log, CYCLE_LINE)

    def alive(self):
        if self.daemon is None or self.status is not None:
            return False
        pid, status, rusage = os.wait4(self.daemon.pid, os.WNOHANG)
        if pid == 0:
            return True
        self.status, self.rusage = status, rusage
        self.daemon.returncode = os.waitstatus_to_exitcode(status)
        return False

    def check_alive(self):
        if not self.alive():
            raise RuntimeError("mcd_main ended early (status %s), see %s" % (self.daemon.returncode, self.log))

    def stop_daemon(self):
        """SIGTERM; returns the exit status and keeps the rusage of the whole run.

        The daemon ends once the pass under way is over, that is when the driver holding
        the turn has finished its next cycle; a driver waiting out its polling period is
        woken with its force-update file so that no one waits a whole period."""
        if self.daemon is None:
            return None
        if self.status is None:
            self.daemon.send_signal(signal.SIGTERM)
            for meter_id in self.ids:
                with open(self.path("tmp", "qmd_force_update_%s" % meter_id), "w"):
                    pass
            deadline = time.time() + 60
            while True:
                pid, status, rusage = os.wait4(self.daemon.pid, os.WNOHANG)
                if pid:
                    self.status, self.rusage = status, rusage
                    break
                if time.time() > deadline:
                    self.daemon.kill()
                    _, self.status, self.rusage = os.wait4(self.daemon.pid, 0)
                    break
                time.sleep(0.1)
            self.daemon.returncode = os.waitstatus_to_exitcode(self.status)
        return self.daemon.returncode

    def close(self):
        try:
            self.stop_daemon()
        finally:
            for proc in self.children:
                if proc.poll() is None:
                    proc.send_signal(signal.SIGTERM)
            for proc in self.children:
                try:
                    proc.wait(10)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()
            self.children = []

    # --- what was filed
    def bound(self, meter_id, kind):
        return read_number(self.path("storage", str(meter_id), "timestamp_max_" + kind))

    def archive_files(self, meter_id):
        """{path: [record times]} of every archive file of the meter."""
        out = {}
        base = self.path("storage", str(meter_id))
        for system in sorted(os.listdir(base)) if os.path.isdir(base) else []:
            arch = os.path.join(base, system, "tc_archives")
            if not os.path.isdir(arch):
                continue
            for name in sorted(os.listdir(arch)):
                with open(os.path.join(arch, name), encoding="utf-8", errors="replace") as f:
                    out[os.path.join(system, name)] = [int(line.split(",", 1)[0]) for line in f if line.strip()]
        return out


def accepts(port):
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=0.5):
            return True
    except OSError:
        return False


def wait_for(pred, timeout, what, rigs=()):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if pred():
            return
        for rig in rigs:
            rig.check_alive()
        time.sleep(0.2)
    raise RuntimeError("timed out after %d s waiting for %s" % (timeout, what))


def check_archive(files, hourly_held, daily_held, hours_turned, days_turned):
    """Every file must hold one line per record, oldest first, with no gap and no
    duplicate: exactly the records the meter held when the run began, plus at most the
    records that appeared while it ran. Returns (problems, hourly files, daily files,
    lines filed)."""
    problems = []
    hourly = daily = lines = 0
    for name, times in files.items():
        lines += len(times)
        if len(set(times)) != len(times):
            problems.append("%s: duplicate record times" % name)
        if times != sorted(times):
            problems.append("%s: out of order" % name)
        steps = {b - a for a, b in zip(times, times[1:])}
        if steps <= {3600} and hourly_held <= len(times) <= hourly_held + hours_turned and len(times) > daily_held + days_turned:
            hourly += 1
        elif steps <= set(range(82800, 90001)) and daily_held <= len(times) <= daily_held + days_turned:
            daily += 1
        else:
            problems.append("%s: %d lines, steps %s: neither %d hourly nor %d daily records in a row" % (
                name, len(times), sorted(steps)[:4], hourly_held, daily_held))
    if hourly == 0:
        problems.append("no hourly archive file")
    if daily == 0:
        problems.append("no daily archive file")
    return problems, hourly, daily, lines


def meter_entry(manufacturer, link, period, serial=None, systems=2):
    entry = {"manufacturer": manufacturer, "period_current": str(period),
             "port_params": {"name": link, "speed": str(BAUD)},
             "systems": {"system_%d" % (i + 1): "1" for i in range(systems)}}
    if serial is not None:
        entry["serial"] = str(serial)
    return entry


def fmt_s(seconds):
    return "%.0f s (%.1f min)" % (seconds, seconds / 60.0)


# ---------------------------------------------------------------- 1. backfill

class Backfill:
    """One paced backfill: a simulator holding `days` days of records, one daemon."""

    def __init__(self, name, root, binary, days):
        self.name = name
        self.days = days
        self.rig = Rig(root, binary)
        self.result = {"meter": name, "days": days}

    def start(self):
        now = time.time()
        self.start_time = now
        self.hourly_held = 24 * self.days
        self.daily_held = self.days
        rig = self.rig
        if self.name == "VKT-7":
            self.meter_id = 71
            first_hour = local_hour_start(now) - self.hourly_held * 3600
            first_day = local_midnight(local_midnight(now) - self.days * 86400 + 7200)
            rig.start_simulator("vkt7_sim.py", ["--first-hour", str(first_hour), "--first-day", str(first_day)], BAUD)
            rig.start_server({"71": meter_entry("vkt-7", rig.link, 601)})
        else:
            self.meter_id = 101
            rig.start_simulator("esko_sim.py", ["--meter", "1:mtr06:%d:%d" % (self.hourly_held, self.daily_held)],
                                BAUD)
            rig.start_server({"101": meter_entry("esko-mtr-06", rig.link, 601, serial=1)})
        # what the daemon must reach: the newest records held when the run begins
        self.hour_target, self.day_target = last_hour(now), yesterday(now)
        self.pid = rig.start_daemon([self.meter_id], 1)
        self.done = None

    def poll(self):
        """True once both bounds have reached the newest records of the start."""
        if self.done is not None:
            return True
        self.rig.check_alive()
        if (self.rig.bound(self.meter_id, "hourly") >= self.hour_target and
                self.rig.bound(self.meter_id, "daily") >= self.day_target):
            self.done = time.time()
            self.stats = read_json(self.rig.stats)
            self.cpu_at_done = cpu_seconds(self.pid)
            self.errors = count_in_file(self.rig.log, ESKO_ERROR_LINE) if self.name != "VKT-7" else 0
            return True
        return False

    def progress(self):
        return "%s hourly bound %s" % (self.name, time.strftime("%d.%m %H:%M", time.localtime(
            self.rig.bound(self.meter_id, "hourly"))))

    def finish(self):
        rig = self.rig
        status = rig.stop_daemon()
        end = time.time()
        wall = self.done - rig.started
        s = self.stats
        wire = (s.get("bytes_in", 0) + s.get("bytes_out", 0)) * 10.0 / BAUD
        pauses = 0.1 * s.get("requests", 0) + 0.5 * self.errors
        additive = wire + pauses
        # the answer travels while the reader pauses: per exchange max(pause, wire)
        bound = s.get("floor_s", 0.0) + 0.5 * self.errors
        files = rig.archive_files(self.meter_id)
        hours_turned = (local_hour_start(end) - local_hour_start(self.start_time)) // 3600
        days_turned = 1 if local_midnight(end) != local_midnight(self.start_time) else 0
        problems, nh, nd, lines = check_archive(files, self.hourly_held, self.daily_held, hours_turned, days_turned)
        if status != 0:
            problems.append("mcd_main exit status %s" % status)
        self.result.update({
            "wall_s": round(wall, 1), "lower_bound_s": round(bound, 1), "ratio": round(wall / bound, 3),
            "wire_plus_pauses_s": round(additive, 1), "ratio_to_wire_plus_pauses": round(wall / additive, 3),
            "wire_s": round(wire, 1), "pauses_s": round(pauses, 1), "requests": s.get("requests", 0),
            "bytes_in": s.get("bytes_in", 0), "bytes_out": s.get("bytes_out", 0), "error_answers": self.errors,
            "records_held": self.hourly_held + self.daily_held, "hourly_files": nh, "daily_files": nd,
            "lines_filed": lines, "cpu_s_at_done": round(self.cpu_at_done, 2),
            "cpu_ms_per_1000_lines": round(1e6 * self.cpu_at_done / lines, 1) if lines else None,
            "exit_status": status, "problems": problems, "hours_turned": hours_turned})
        return self.result


def report_backfill(r):
    print("  %s: %d days = %d hourly + %d daily records" % (r["meter"], r["days"], 24 * r["days"], r["days"]))
    print("    %d requests, %d + %d bytes, %d error answers: wire %.1f s, prescribed pauses %.1f s" % (
        r["requests"], r["bytes_in"], r["bytes_out"], r["error_answers"], r["wire_s"], r["pauses_s"]))
    print("    wall time %s; lower bound %s (per exchange the longer of the 100 ms pause and the wire time)" % (
        fmt_s(r["wall_s"]), fmt_s(r["lower_bound_s"])))
    print("    ratio wall / lower bound: %.2f   (wall / (wire + pauses) = %s / %s = %.2f)" % (
        r["ratio"], fmt_s(r["wall_s"]), fmt_s(r["wire_plus_pauses_s"]), r["ratio_to_wire_plus_pauses"]))
    print("    filed: %d hourly files and %d daily files, %d lines; CPU %.2f s (%.1f ms per 1,000 lines)" % (
        r["hourly_files"], r["daily_files"], r["lines_filed"], r["cpu_s_at_done"], r["cpu_ms_per_1000_lines"] or 0))
    if r["problems"]:
        print("    FAILED: " + "; ".join(r["problems"]))
    else:
        print("    every archive file holds each record the meter holds exactly once%s" % (
            " (the hour turned %d times during the run)" % r["hours_turned"] if r["hours_turned"] else ""))


def run_backfill(args, results):
    print("\n== 1. Backfill at %d baud, %d days (started %s, load %.2f %.2f %.2f)" % (
        (BAUD, args.days, time.strftime("%H:%M:%S")) + load_average()))
    runs = [Backfill("VKT-7", os.path.join(args.root, "backfill_vkt7"), args.binary, args.days),
            Backfill("MTR-06", os.path.join(args.root, "backfill_mtr06"), args.binary, args.days)]
    try:
        for r in runs:
            r.start()
        last_note = time.time()
        while not all(r.poll() for r in runs):
            if time.time() - last_note >= 60:
                last_note = time.time()
                print("  %4.0f s: %s" % (time.time() - runs[0].rig.started, "; ".join(r.progress() for r in runs)))
                sys.stdout.flush()
            if time.time() - runs[0].rig.started > args.timeout:
                raise RuntimeError("backfill not done within %d s" % args.timeout)
            time.sleep(0.2)
        for r in runs:
            res = r.finish()
            results.setdefault("backfill", []).append(res)
            report_backfill(res)
    finally:
        for r in runs:
            r.rig.close()
    print("  load after: %.2f %.2f %.2f" % load_average())
    return all(not res["problems"] for res in results.get("backfill", []))


# ---------------------------------------------------------------- 2. CPU and memory

def run_cpu(args, results, meters, hours, days, cycles):
    """`meters` MTR-06 meters on one unpaced line, each holding `hours` hourly and `days`
    daily records; CPU per record while they are filed, then per poll cycle."""
    rig = Rig(os.path.join(args.root, "cpu_%d" % meters), args.binary)
    ids = [300 + a for a in range(1, meters + 1)]
    ok = True
    try:
        options = []
        for a in range(1, meters + 1):
            options += ["--meter", "%d:mtr06:%d:%d" % (a, hours, days)]
        rig.start_simulator("esko_sim.py", options, 0)
        rig.start_server({str(i): meter_entry("esko-mtr-06", rig.link, 601, serial=i - 300) for i in ids})
        now = time.time()
        hour_target, day_target = last_hour(now), yesterday(now)
        load0 = load_average()
        pid = rig.start_daemon(ids, args.time_scale)
        wait_for(lambda: all(rig.bound(i, "hourly") >= hour_target and rig.bound(i, "daily") >= day_target
                             for i in ids), args.timeout, "the %d-meter backfill" % meters, [rig])
        cpu_fill = cpu_seconds(pid)
        fill_wall = time.time() - rig.started
        cycles_fill = rig.cycles()
        lines = sum(len(t) for i in ids for t in rig.archive_files(i).values())
        # meter records: an hourly file's lines plus a daily file's lines, per meter
        records = 0
        for i in ids:
            counts = [len(t) for t in rig.archive_files(i).values()]
            records += max(counts) + min(counts) if counts else 0
        c0, cpu0 = rig.cycles(), cpu_seconds(pid)
        wait_for(lambda: rig.cycles() >= c0 + cycles, args.timeout, "%d poll cycles" % cycles, [rig])
        c1, cpu1 = rig.cycles(), cpu_seconds(pid)
        hwm = status_kb(pid, "VmHWM")
        rss = status_kb(pid, "VmRSS")
        threads = len(os.listdir("/proc/%d/task" % pid))
        status = rig.stop_daemon()
        ru = rig.rusage
        r = {"meters": meters, "hourly_per_meter": hours, "daily_per_meter": days, "time_scale": args.time_scale,
             "backfill_wall_s": round(fill_wall, 1), "cpu_s_backfill": round(cpu_fill, 2),
             "archive_lines": lines, "meter_records": records,
             "cpu_ms_per_1000_lines": round(1e6 * cpu_fill / lines, 1) if lines else None,
             "cpu_ms_per_1000_records": round(1e6 * cpu_fill / records, 1) if records else None,
             "poll_cycles": c1 - c0, "cpu_ms_per_poll_cycle": round(1000.0 * (cpu1 - cpu0) / (c1 - c0), 2),
             "cycles_during_backfill": cycles_fill,
             "vmhwm_kb": hwm, "vmrss_kb": rss, "threads": threads,
             "rusage_user_s": round(ru.ru_utime, 2), "rusage_sys_s": round(ru.ru_stime, 2),
             "rusage_maxrss_kb": ru.ru_maxrss, "exit_status": status, "load_before": load0,
             "load_after": load_average()}
        net = cpu_fill - cycles_fill * (cpu1 - cpu0) / (c1 - c0)
        r["cpu_ms_per_1000_lines_net"] = round(1e6 * net / lines, 1) if lines else None
        r["cpu_ms_per_1000_records_net"] = round(1e6 * net / records, 1) if records else None
        results.setdefault("cpu", []).append(r)
        print("  %2d meter(s), %d hourly + %d daily records each, unpaced, MCD_TIME_SCALE=%d:" % (
            meters, hours, days, args.time_scale))
        print("    backfill: %d archive lines (%d meter records) in %.1f s, CPU %.2f s: %.1f ms per 1,000 lines, "
              "%.0f ms per 1,000 records" % (lines, records, fill_wall, cpu_fill, r["cpu_ms_per_1000_lines"],
                                             r["cpu_ms_per_1000_records"]))
        print("    less the %d poll cycles made meanwhile (at the per-cycle cost below): %.1f ms per 1,000 lines, "
              "%.0f ms per 1,000 records" % (cycles_fill, r["cpu_ms_per_1000_lines_net"],
                                             r["cpu_ms_per_1000_records_net"]))
        print("    poll cycles: %d meter cycles, CPU %.2f s: %.2f ms per cycle" % (
            c1 - c0, cpu1 - cpu0, r["cpu_ms_per_poll_cycle"]))
        print("    peak resident memory VmHWM %d kB (VmRSS %d kB, %d threads); whole run user %.2f s + system %.2f s;"
              " exit status %s" % (hwm, rss, threads, ru.ru_utime, ru.ru_stime, status))
        ok = status == 0
    finally:
        rig.close()
    return ok


# ---------------------------------------------------------------- 3. idle

def run_idle(args, results):
    """One MTR-06 with a day of records, real time, polling period one hour: the CPU
    used in one minute of waiting after the first poll cycle."""
    rig = Rig(os.path.join(args.root, "idle"), args.binary)
    ok = True
    try:
        rig.start_simulator("esko_sim.py", ["--meter", "1:mtr06:24:2"], 0)
        rig.start_server({"401": meter_entry("esko-mtr-06", rig.link, 3600, serial=1)})
        now = time.time()
        hour_target, day_target = last_hour(now), yesterday(now)
        pid = rig.start_daemon([401], 1)
        wait_for(lambda: rig.cycles() >= 1 and rig.bound(401, "hourly") >= hour_target and
                 rig.bound(401, "daily") >= day_target, args.timeout, "the first poll cycle", [rig])
        requests_before = read_json(rig.stats).get("requests", 0)
        time.sleep(5)  # the cycle's last lag test and the turn hand-back
        load0 = load_average()
        r0, t0, n0, w0 = read_json(rig.stats).get("requests", 0), cpu_seconds(pid), cpu_ns(pid), time.time()
        threads0 = thread_ns(pid)
        time.sleep(args.idle_seconds)
        r1, t1, n1, w1 = read_json(rig.stats).get("requests", 0), cpu_seconds(pid), cpu_ns(pid), time.time()
        threads1 = thread_ns(pid)
        per_thread = {}
        for tid, (name, ns) in threads1.items():
            key = "%s (%s)" % (name, tid)
            per_thread[key] = round((ns - threads0.get(tid, (name, 0))[1]) / 1e6, 3)
        cycles = rig.cycles()
        status = rig.stop_daemon()
        r = {"seconds": round(w1 - w0, 1), "cpu_s_ticks": round(t1 - t0, 3), "cpu_ms_schedstat": round((n1 - n0) / 1e6, 3),
             "cpu_percent": round(100.0 * (n1 - n0) / 1e9 / (w1 - w0), 4), "requests_during": r1 - r0,
             "requests_after_first_cycle": r0 - requests_before, "cycles": cycles, "exit_status": status,
             "load_before": load0, "load_after": load_average(), "ms_per_thread": per_thread}
        results["idle"] = r
        print("  one MTR-06, polling period 3600 s, real time, after the first cycle:")
        print("    over %.1f s: CPU %.3f ms (threads' schedstat), %.2f s (stat ticks of %d ms), %.4f %% of one core; "
              "%d meter requests meanwhile; exit status %s" % (
                  r["seconds"], r["cpu_ms_schedstat"], r["cpu_s_ticks"], 1000 // CLK_TCK, r["cpu_percent"],
                  r["requests_during"], status))
        print("    per thread (ms): " + ", ".join("%s %.3f" % kv for kv in sorted(per_thread.items())))
        ok = status == 0 and r1 == r0
    finally:
        rig.close()
    return ok


# ---------------------------------------------------------------- main

def main():
    parser = argparse.ArgumentParser(description="mcd_main benchmarks")
    parser.add_argument("--binary", required=True, help="the mcd_main binary")
    parser.add_argument("--root", default="build/bench/run")
    parser.add_argument("--days", type=int, default=30, help="days of archive in the paced backfill (default 30)")
    parser.add_argument("--cpu-days", type=int, default=10, help="days of archive for the 1-meter CPU run")
    parser.add_argument("--cpu16-hours", type=int, default=24, help="hourly records per meter, 16-meter CPU run")
    parser.add_argument("--cycles", type=int, default=40, help="poll cycles measured per CPU run")
    parser.add_argument("--time-scale", type=int, default=600, help="MCD_TIME_SCALE of the CPU runs")
    parser.add_argument("--idle-seconds", type=float, default=60.0)
    parser.add_argument("--timeout", type=int, default=3600, help="limit of each waiting step, seconds")
    parser.add_argument("--only", default="backfill,cpu,idle", help="comma-separated parts to run")
    args = parser.parse_args()
    args.root = os.path.abspath(args.root)
    os.makedirs(args.root, exist_ok=True)
    parts = args.only.split(",")

    results = {"started": time.strftime("%Y-%m-%d %H:%M:%S"), "cpus": os.cpu_count(), "load_start": load_average(),
               "clk_tck": CLK_TCK}
    print("mcd_main benchmarks: %s, %d CPUs, load %.2f %.2f %.2f" % (
        (os.path.abspath(args.binary), os.cpu_count()) + load_average()))
    ok = True
    try:
        if "cpu" in parts:
            print("\n== 2. CPU time and peak memory (started %s, load %.2f %.2f %.2f)" % (
                (time.strftime("%H:%M:%S"),) + load_average()))
            ok &= run_cpu(args, results, 1, 24 * args.cpu_days, args.cpu_days, args.cycles)
            ok &= run_cpu(args, results, 16, args.cpu16_hours, 2, args.cycles)
        if "idle" in parts:
            print("\n== 3. Idle CPU between polls (started %s, load %.2f %.2f %.2f)" % (
                (time.strftime("%H:%M:%S"),) + load_average()))
            ok &= run_idle(args, results)
        if "backfill" in parts:
            ok &= run_backfill(args, results)
    except (RuntimeError, OSError) as e:
        print("benchmark failed: %s" % e, file=sys.stderr)
        ok = False
    results["load_end"] = load_average()
    results["ok"] = bool(ok)
    with open(os.path.join(args.root, "results.json"), "w", encoding="utf-8") as f:
        json.dump(results, f, indent=1)
    print("\nload at the end: %.2f %.2f %.2f; figures in %s" % (
        load_average() + (os.path.join(args.root, "results.json"),)))
    print("Benchmarks %s." % ("done" if ok else "FAILED"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
