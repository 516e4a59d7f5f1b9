#!/usr/bin/env python3
"""Benchmarks of mcd_main against the meter simulators. Prints its figures.

1. Backfill: N days (default 30) of missing hourly and daily archive from a simulated
   VKT-7 and a simulated MTR-06, both pacing their answers at 9600 baud, each on its own
   line with its own daemon. Wall time against the protocol's lower bound for the same
   exchanges: the wire time of every byte that crossed the line (10 bits a byte at 9600
   baud) or the 100 ms that both protocols prescribe between sending a request and
   reading its answer, whichever is longer, summed over the exchanges by the simulators. The filed lines are checked against
   the records the simulators hold.
2. The daemon's CPU time (user + system) per 1,000 archive records filed (from the
   backfill runs) and per poll cycle (after the backfill), and its peak resident memory
   (VmHWM) with 1 meter and with 16 meters on one line.
3. CPU used over one minute of idle waiting between polls.
"""
import argparse
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TICK = os.sysconf("SC_CLK_TCK")


def free_port():
    s = socket.socket()
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK  # utime + stime


def vm_hwm_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    return 0


def hour_start(t):
    lt = time.localtime(t)
    return int(time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday, lt.tm_hour, 0, 0, 0, 0, -1)))


def midnight(t, days=0):
    lt = time.localtime(t)
    return int(time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday + days, 0, 0, 0, 0, 0, -1)))


def read_number(path):
    try:
        with open(path) as f:
            return int(f.read().strip() or 0)
    except (OSError, ValueError):
        return 0


def count_lines(path):
    try:
        with open(path) as f:
            return sum(1 for _ in f)
    except OSError:
        return 0


def archive_lines(storage, meter_id):
    total = 0
    for dirpath, _, files in os.walk(os.path.join(storage, meter_id)):
        if dirpath.endswith("tc_archives"):
            total += sum(count_lines(os.path.join(dirpath, f)) for f in files)
    return total


class Rig:
    """A demo root, a configuration server, simulators and daemons; stopped at the end."""

    def __init__(self, binary, name):
        self.binary = binary
        self.root = tempfile.mkdtemp(prefix="mcdbench-%s." % name)
        for sub in ("tmp", "storage", "leds"):
            os.makedirs(os.path.join(self.root, sub))
        self.port = free_port()
        self.meters = {}
        self.procs = []
        self.server = None

    def env(self, scale):
        env = dict(os.environ)
        env.update(MCD_TMP_DIR=self.path("tmp") + "/", MCD_STORAGE_DIR=self.path("storage") + "/",
                   MCD_LEDS_DIR=self.path("leds") + "/", MCD_SERVER_URL="http://127.0.0.1:%d/" % self.port)
        if scale:
            env["MCD_TIME_SCALE"] = str(scale)
        return env

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def add_meter(self, meter_id, config):
        self.meters[meter_id] = config

    def start_server(self):
        with open(self.path("config.json"), "w") as f:
            json.dump({"meters": self.meters}, f)
        self.server = subprocess.Popen([sys.executable, os.path.join(ROOT, "tools/config_server.py"), "--port",
                                        str(self.port), "--config", self.path("config.json")])
        self.procs.append(self.server)
        deadline = time.time() + 10
        while time.time() < deadline:
            try:
                socket.create_connection(("127.0.0.1", self.port), 0.2).close()
                return
            except OSError:
                time.sleep(0.05)
        raise RuntimeError("configuration server did not start")

    def start_sim(self, tool, link, args):
        p = subprocess.Popen([sys.executable, os.path.join(ROOT, "tools", tool), "--link", link] + args)
        self.procs.append(p)
        deadline = time.time() + 10
        while not os.path.exists(link):
            if time.time() > deadline:
                raise RuntimeError("simulator %s did not start" % tool)
            time.sleep(0.05)
        return p

    def start_daemon(self, ids, scale):
        args = [self.binary, "-l", self.path("daemon.log"), "-v", "6"]
        for i in ids:
            args += ["-i", i]
        p = subprocess.Popen(args, env=self.env(scale), stdout=subprocess.DEVNULL)
        self.procs.append(p)
        return p

    def stop(self):
        for p in reversed(self.procs):
            if p.poll() is None:
                p.terminate()
        for p in self.procs:
            try:
                p.wait(timeout=120)
            except subprocess.TimeoutExpired:
                p.kill()
        shutil.rmtree(self.root, ignore_errors=True)


def wait_for(pred, timeout, poll=0.5):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if pred():
            return True
        time.sleep(poll)
    return pred()


def backfill(binary, model, days, baud, cycle_seconds):
    """One daemon, one meter, `days` of missing archive at `baud`. Returns figures."""
    rig = Rig(binary, model)
    now = time.time()
    last_hour = hour_start(now) - 3600
    yesterday = midnight(now, -1)
    link = rig.path("line.tty")
    stats = rig.path("stats.json")
    config = {"period_current": "60", "port_params": {"name": link, "speed": "9600"},
              "systems": {"system_1": "1"}}
    try:
        if model == "vkt-7":
            first_hour = hour_start(now) - days * 86400
            first_day = midnight(now, -days)
            rig.start_sim("vkt7_sim.py", link, ["--baud", str(baud), "--stats", stats, "--first-hour",
                                                str(first_hour), "--first-day", str(first_day)])
            config["manufacturer"] = "vkt-7"
            hourly_name, daily_name = "A20", "A48"
            want_hourly = (last_hour - first_hour) // 3600 + 1
            want_daily = round((yesterday - first_day) / 86400) + 1
        else:
            rig.start_sim("esko_sim.py", link, ["--baud", str(baud), "--stats", stats, "--meter",
                                                "1:mtr06:%d:%d" % (days * 24, days)])
            config.update(manufacturer="esko-mtr-06", serial="1")
            hourly_name, daily_name = "A11", "A39"
            want_hourly, want_daily = days * 24, days
        rig.add_meter("1", config)
        rig.start_server()
        started = time.time()
        daemon = rig.start_daemon(["1"], scale=60)
        done = wait_for(lambda: read_number(rig.path("storage/1/timestamp_max_hourly")) >= last_hour and
                        read_number(rig.path("storage/1/timestamp_max_daily")) >= yesterday, 3 * 3600)
        wall = time.time() - started
        cpu_backfill = cpu_seconds(daemon.pid)
        with open(stats) as f:
            counts = json.load(f)
        arch = rig.path("storage/1/1/tc_archives")
        hourly = count_lines(os.path.join(arch, hourly_name))
        daily = count_lines(os.path.join(arch, daily_name))
        records = archive_lines(rig.path("storage"), "1")

        # poll cycles after the backfill (the period is 60 s, fast-forwarded 60 times)
        def cycles():
            try:
                with open(rig.path("daemon.log"), errors="replace") as f:
                    return f.read().count("CMcdBaseDriver::functionThread end all current values.")
            except OSError:
                return 0
        c0, t0 = cycles(), cpu_seconds(daemon.pid)
        time.sleep(cycle_seconds)
        c1, t1 = cycles(), cpu_seconds(daemon.pid)
        hwm = vm_hwm_kib(daemon.pid)
        bound = counts["floor_seconds"]
        return dict(model=model, done=done, wall=wall, bound=bound, ratio=wall / bound if bound else 0,
                    requests=counts["requests"], bytes=counts["bytes_in"] + counts["bytes_out"],
                    hourly=hourly, want_hourly=want_hourly, daily=daily, want_daily=want_daily,
                    records=records, cpu=cpu_backfill,
                    cpu_per_1000=1000.0 * cpu_backfill / records if records else 0,
                    cycles=c1 - c0, cpu_per_cycle=(t1 - t0) / (c1 - c0) if c1 > c0 else 0, hwm=hwm)
    finally:
        rig.stop()


def many_meters(binary, count):
    """`count` MTR-06 meters on one unpaced line; peak memory once all have filed."""
    rig = Rig(binary, "many")
    link = rig.path("line.tty")
    try:
        args = []
        for a in range(1, count + 1):
            args += ["--meter", "%d:mtr06:48:7" % a]
            rig.add_meter(str(a), {"manufacturer": "esko-mtr-06", "serial": str(a), "period_current": "60",
                                   "port_params": {"name": link}, "systems": {"system_1": "1"}})
        rig.start_sim("esko_sim.py", link, args)
        rig.start_server()
        daemon = rig.start_daemon([str(a) for a in range(1, count + 1)], scale=60)
        yesterday = midnight(time.time(), -1)
        done = wait_for(lambda: all(read_number(rig.path("storage/%d/timestamp_max_daily" % a)) >= yesterday
                                    for a in range(1, count + 1)), 1800)
        time.sleep(5)
        return dict(count=count, done=done, hwm=vm_hwm_kib(daemon.pid), threads=len(os.listdir("/proc/%d/task" % daemon.pid)))
    finally:
        rig.stop()


def idle(binary, seconds):
    """CPU of a daemon that waits out its polling period (real time, no fast-forward)."""
    rig = Rig(binary, "idle")
    link = rig.path("line.tty")
    try:
        now = time.time()
        rig.start_sim("vkt7_sim.py", link, ["--first-hour", str(hour_start(now) - 86400),
                                            "--first-day", str(midnight(now, -2))])
        rig.add_meter("1", {"manufacturer": "vkt-7", "period_current": "3600",
                            "port_params": {"name": link}, "systems": {"system_1": "1"}})
        rig.start_server()
        daemon = rig.start_daemon(["1"], scale=0)
        yesterday = midnight(now, -1)
        done = wait_for(lambda: read_number(rig.path("storage/1/timestamp_max_daily")) >= yesterday, 600)
        time.sleep(5)
        t0 = cpu_seconds(daemon.pid)
        time.sleep(seconds)
        return dict(done=done, seconds=seconds, cpu=cpu_seconds(daemon.pid) - t0)
    finally:
        rig.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--binary", default=os.path.join(ROOT, "build/bench/mcd_main"))
    parser.add_argument("--days", type=int, default=30, help="days of missing archive in the backfill")
    parser.add_argument("--baud", type=int, default=9600)
    parser.add_argument("--idle-seconds", type=int, default=60)
    args = parser.parse_args()

    print("load average before: %.2f %.2f %.2f" % os.getloadavg())
    import concurrent.futures as cf
    with cf.ThreadPoolExecutor(4) as pool:
        jobs = [pool.submit(backfill, args.binary, m, args.days, args.baud, 30) for m in ("vkt-7", "esko-mtr-06")]
        many = pool.submit(many_meters, args.binary, 16)
        idle_job = pool.submit(idle, args.binary, args.idle_seconds)
        results = [j.result() for j in jobs]
        many, idle_result = many.result(), idle_job.result()

    ok = True
    print("\n1. Backfill of %d days at %d baud" % (args.days, args.baud))
    for r in results:
        complete = r["done"] and r["hourly"] == r["want_hourly"] and r["daily"] == r["want_daily"]
        ok = ok and complete
        print("   %-12s wall %7.1f s, lower bound %7.1f s, ratio %.2f (%d exchanges, %d bytes); "
              "hourly lines %d of %d, daily lines %d of %d%s" % (
                  r["model"], r["wall"], r["bound"], r["ratio"], r["requests"], r["bytes"], r["hourly"],
                  r["want_hourly"], r["daily"], r["want_daily"], "" if complete else "  INCOMPLETE"))
    print("\n2. CPU and memory")
    for r in results:
        print("   %-12s %.3f s CPU per 1000 archive records (%d records, %.2f s); %.4f s CPU per poll cycle "
              "(%d cycles); peak RSS %d KiB" % (r["model"], r["cpu_per_1000"], r["records"], r["cpu"],
                                                 r["cpu_per_cycle"], r["cycles"], r["hwm"]))
    print("   16 MTR-06 meters on one line: peak RSS %d KiB, %d threads%s" % (
        many["hwm"], many["threads"], "" if many["done"] else "  (not all filed)"))
    print("\n3. Idle: %.2f s CPU over %d s of waiting between polls (%.3f%% of one core)" % (
        idle_result["cpu"], idle_result["seconds"], 100.0 * idle_result["cpu"] / idle_result["seconds"]))
    print("\nload average after: %.2f %.2f %.2f" % os.getloadavg())
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
