#!/usr/bin/env python3
"""Runs mcd_main against the local configuration server and simulated meters of every
implemented model, then shows what it filed.

Four serial lines, one mcd_main per line as on a controller:
  line 1 (vkt7.tty): a VKT-7, meter id 71;
  line 2 (esko.tty): an MTR-06 (101), a TM-3E (102) and a second MTR-06 (103);
  line 3 (tsrv.tty, Modbus): a TSRV-024M (81);
  line 4 (magika.tty, Modbus): a MAGIKA gateway (91).
The Modbus simulators write the records they hold (--held-out); after the run every
archive file of those meters is compared with them.
Everything lives under --root (default ./demo-root): the daemons' volatile and
persistent trees, the lamp files, the lines, the configuration and the logs.
MCD_TIME_SCALE makes the daemons' polling waits short, so archives are read and a few
poll cycles pass within a minute or two. The daemons are stopped with SIGTERM and must
exit with status 0; the exit status of this script says whether all went well.
"""
import argparse
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import textwrap
import time

HERE = os.path.dirname(os.path.abspath(__file__))

VKT7 = {"id": "71", "manufacturer": "vkt-7", "label": "VKT-7", "systems": 2}
ESKO = [
    {"id": "101", "manufacturer": "esko-mtr-06", "label": "MTR-06", "addr": 1, "model": "mtr06", "systems": 3},
    {"id": "102", "manufacturer": "esko-tm3", "label": "TM-3E", "addr": 2, "model": "tm3e", "systems": 3},
    {"id": "103", "manufacturer": "esko-mtr-06", "label": "MTR-06", "addr": 3, "model": "mtr06", "systems": 3},
]
MODBUS = [
    {"id": "81", "manufacturer": "tsrv-024m", "label": "TSRV-024M", "script": "tsrv_sim.py", "tty": "tsrv.tty",
     "systems": 2, "line": "mcd_main_line3"},
    {"id": "91", "manufacturer": "magika-axxx", "label": "MAGIKA", "script": "magika_sim.py", "tty": "magika.tty",
     "systems": 2, "line": "mcd_main_line4"},
]
HOURS = 30      # hourly records each simulated meter holds
DAYS = 4        # daily records


def local_hour_start(t):
    lt = time.localtime(t)
    return int(time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday, lt.tm_hour, 0, 0, 0, 0, -1)))


def local_midnight(t):
    lt = time.localtime(t)
    return int(time.mktime((lt.tm_year, lt.tm_mon, lt.tm_mday, 0, 0, 0, 0, 0, -1)))


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


def stamp(t):
    return time.strftime("%d.%m %H:%M", time.localtime(t))


class Demo:
    def __init__(self, args):
        self.args = args
        self.root = os.path.abspath(args.root)
        self.children = []   # (name, Popen)
        self.daemons = []    # (name, Popen)

    # --- set-up ---
    def prepare(self):
        if os.path.isdir(self.root):
            shutil.rmtree(self.root)
        for sub in ("tmp", "storage", "leds", "logs"):
            os.makedirs(os.path.join(self.root, sub))
        for lamp in ("kr_red", "lan"):
            with open(os.path.join(self.root, "leds", lamp), "w") as f:
                f.write("0")

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def spawn(self, name, argv, env=None, daemon=False):
        log = open(self.path("logs", name + ".log"), "w")
        proc = subprocess.Popen(argv, stdout=log, stderr=subprocess.STDOUT, env=env)
        log.close()
        (self.daemons if daemon else self.children).append((name, proc))
        return proc

    def start_server(self):
        self.port = free_port()
        systems = lambda n: {"system_%d" % (i + 1): "1" for i in range(n)}
        meters = {VKT7["id"]: {"manufacturer": VKT7["manufacturer"], "period_current": "601",
                               "port_params": {"name": self.path("vkt7.tty"), "speed": "9600"},
                               "systems": systems(VKT7["systems"])}}
        for m in ESKO:
            meters[m["id"]] = {"manufacturer": m["manufacturer"], "serial": str(m["addr"]), "period_current": "601",
                               "port_params": {"name": self.path("esko.tty"), "speed": "19200"},
                               "systems": systems(m["systems"])}
        for m in MODBUS:
            meters[m["id"]] = {"manufacturer": m["manufacturer"], "serial": "1", "period_current": "601",
                               "heat_systems": str(m["systems"]),
                               "port_params": {"name": self.path(m["tty"]), "speed": "19200", "protocol": "modbus"},
                               "systems": systems(m["systems"])}
        with open(self.path("config.json"), "w", encoding="utf-8") as f:
            json.dump({"meters": meters}, f, indent=1)
        self.spawn("config_server", [sys.executable, os.path.join(HERE, "config_server.py"), "--port",
                                     str(self.port), "--config", self.path("config.json"),
                                     "--log", self.path("logs", "server_requests.log")])
        self.wait_for(lambda: self.accepts(self.port), 10, "the configuration server")

    @staticmethod
    def accepts(port):
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return True
        except OSError:
            return False

    def start_meters(self):
        now = time.time()
        first_hour = local_hour_start(now) - HOURS * 3600
        first_day = local_midnight(local_midnight(now) - DAYS * 86400 + 7200)
        self.spawn("vkt7_sim", [sys.executable, os.path.join(HERE, "vkt7_sim.py"), "--link", self.path("vkt7.tty"),
                                "--first-hour", str(first_hour), "--first-day", str(first_day)])
        argv = [sys.executable, os.path.join(HERE, "esko_sim.py"), "--link", self.path("esko.tty")]
        for m in ESKO:
            argv += ["--meter", "%d:%s:%d:%d" % (m["addr"], m["model"], HOURS, DAYS)]
        self.spawn("esko_sim", argv)
        for m in MODBUS:
            self.spawn(m["script"][:-3], [sys.executable, os.path.join(HERE, m["script"]), "--link", self.path(m["tty"]),
                                          "--hours", str(HOURS), "--days", str(DAYS), "--missing-hours", "7",
                                          "--held-out", self.path(m["id"] + ".held.json")])
        ttys = ["vkt7.tty", "esko.tty"] + [m["tty"] for m in MODBUS]
        self.wait_for(lambda: all(os.path.exists(self.path(t)) for t in ttys), 10, "the simulated lines")

    def start_daemons(self):
        env = dict(os.environ)
        env.update({"MCD_TMP_DIR": self.path("tmp") + "/", "MCD_STORAGE_DIR": self.path("storage") + "/",
                    "MCD_LEDS_DIR": self.path("leds") + "/", "MCD_SERVER_URL": "http://127.0.0.1:%d/" % self.port,
                    "MCD_TIME_SCALE": str(self.args.time_scale)})
        binary = os.path.abspath(self.args.binary)
        self.spawn("mcd_main_line1", [binary, "-e", "-v", "6", "-i", VKT7["id"]], env, daemon=True)
        argv = [binary, "-e", "-v", "6"]
        for m in ESKO:
            argv += ["-i", m["id"]]
        self.spawn("mcd_main_line2", argv, env, daemon=True)
        for m in MODBUS:
            self.spawn(m["line"], [binary, "-e", "-v", "6", "-i", m["id"]], env, daemon=True)

    # --- running ---
    def wait_for(self, pred, timeout, what):
        deadline = time.time() + timeout
        while time.time() < deadline:
            if pred():
                return
            time.sleep(0.2)
        raise RuntimeError("timed out waiting for " + what)

    def meters(self):
        return [VKT7] + ESKO + MODBUS

    def caught_up(self, m):
        now = time.time()
        hour_end = local_hour_start(now) - 3600
        day_end = local_midnight(local_midnight(now) - 43200)
        return (read_number(self.path("storage", m["id"], "timestamp_max_hourly")) >= hour_end and
                read_number(self.path("storage", m["id"], "timestamp_max_daily")) >= day_end)

    def cycles(self, name):
        try:
            with open(self.path("logs", name + ".log"), encoding="utf-8", errors="replace") as f:
                return f.read().count("CMcdBaseDriver::functionThread end all current values.")
        except OSError:
            return 0

    def run(self):
        started = time.time()
        last_note = 0
        while True:
            for name, proc in self.daemons:
                if proc.poll() is not None:
                    raise RuntimeError("%s ended early with status %d (see logs/%s.log)" % (name, proc.returncode, name))
            done = [m for m in self.meters() if self.caught_up(m)]
            # every meter filed, and a few poll cycles of current values on each line
            if len(done) == len(self.meters()) and self.cycles("mcd_main_line1") >= 3 and \
                    self.cycles("mcd_main_line2") >= 3 * len(ESKO) and \
                    all(self.cycles(m["line"]) >= 3 for m in MODBUS):
                print("  all meters filed after %.0f s" % (time.time() - started))
                return
            if time.time() - last_note >= 10:
                last_note = time.time()
                print("  %3.0f s: archives complete for %d of %d meters, poll cycles %d + %d" % (
                    time.time() - started, len(done), len(self.meters()), self.cycles("mcd_main_line1"),
                    self.cycles("mcd_main_line2")))
            if time.time() - started > self.args.timeout:
                raise RuntimeError("the meters were not all read within %d s" % self.args.timeout)
            time.sleep(0.5)

    def stop(self):
        ok = True
        for name, proc in self.daemons:
            if proc.poll() is None:
                proc.send_signal(signal.SIGTERM)
        for name, proc in self.daemons:
            try:
                status = proc.wait(60)
            except subprocess.TimeoutExpired:
                proc.kill()
                status = proc.wait()
            print("  %s stopped with exit status %d" % (name, status))
            ok = ok and status == 0
        self.daemons = []
        for name, proc in self.children:
            if proc.poll() is None:
                proc.send_signal(signal.SIGTERM)
        for name, proc in self.children:
            try:
                proc.wait(10)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()
        self.children = []
        return ok

    # --- report ---
    def summary(self):
        for m in self.meters():
            mid = m["id"]
            print("\nMeter %s (%s)" % (mid, m["label"]))
            items_root = self.path("tmp", mid)
            for system in sorted(d for d in os.listdir(items_root) if d.isdigit()):
                items_dir = os.path.join(items_root, system, "tc_items")
                values = []
                for name in sorted(os.listdir(items_dir)):
                    with open(os.path.join(items_dir, name), encoding="utf-8", errors="replace") as f:
                        values.append("%s=%s" % (name, f.read().strip()))
                if system == "1":
                    print("  system 1, %d items:" % len(values))
                    for line in textwrap.wrap(" ".join(values), 96):
                        print("    " + line)
                    self.archive_lines(mid, system)
                else:
                    print("  system %s: %d items, %s" % (system, len(values), self.archive_counts(mid, system)))
            print("  bounds: hourly %s, daily %s" % (
                stamp(read_number(self.path("storage", mid, "timestamp_max_hourly"))),
                stamp(read_number(self.path("storage", mid, "timestamp_max_daily")))))

    def check_held_out(self):
        """Compares every archive file of the Modbus meters with what their simulators hold."""
        ok = True
        for m in MODBUS:
            with open(self.path(m["id"] + ".held.json"), encoding="utf-8") as f:
                held = json.load(f)
            want = {}
            for kinds in held.values():
                for kind in ("hourly", "daily"):
                    for t, files in kinds[kind].items():
                        for rel, (text, quality) in files.items():
                            want.setdefault(rel, []).append((int(t), "%s,%d,%s" % (t, quality, text)))
            storage = self.path("storage", m["id"])
            have = set()
            for system in os.listdir(storage):
                arch = os.path.join(storage, system, "tc_archives")
                if system.isdigit() and os.path.isdir(arch):
                    have.update("%s/tc_archives/%s" % (system, n) for n in os.listdir(arch))
            wrong = 0
            for rel in sorted(have | set(want)):
                try:
                    with open(os.path.join(storage, rel), encoding="utf-8") as f:
                        got = f.read().splitlines()
                except OSError:
                    got = []
                if got != [line for _, line in sorted(want.get(rel, []))]:
                    wrong += 1
            print("  %s (%s): %d archive files, %d differ from the records the simulator holds" % (
                m["id"], m["label"], len(have | set(want)), wrong))
            ok = ok and wrong == 0
        return ok

    def short(self, text, width):
        return text if len(text) <= width else text[:width - 3] + "..."

    def archive_groups(self, mid, system):
        """(line count, first time, last time) -> archive file names."""
        arch_dir = self.path("storage", mid, system, "tc_archives")
        groups = {}
        if not os.path.isdir(arch_dir):
            return groups
        for name in sorted(os.listdir(arch_dir), key=lambda n: (len(n), n)):
            with open(os.path.join(arch_dir, name), encoding="utf-8", errors="replace") as f:
                times = [int(line.split(",", 1)[0]) for line in f if line.strip()]
            if times:
                groups.setdefault((len(times), min(times), max(times)), []).append(name)
        return groups

    def archive_lines(self, mid, system):
        groups = self.archive_groups(mid, system)
        if not groups:
            print("    no archives")
        for (count, first, last), names in sorted(groups.items(), key=lambda kv: -kv[0][0]):
            print("    %4d archive lines each, %s .. %s: %s" % (count, stamp(first), stamp(last),
                                                                self.short(" ".join(names), 80)))

    def archive_counts(self, mid, system):
        groups = self.archive_groups(mid, system)
        if not groups:
            return "no archives"
        return ", ".join("%d archive files of %d lines" % (len(names), count)
                         for (count, _, _), names in sorted(groups.items(), key=lambda kv: -kv[0][0]))

    def where(self):
        print("\nFiles:")
        print("  current values  %s/<meter>/<system>/tc_items/<name>" % self.path("tmp"))
        print("  archive lines   %s/<meter>/<system>/tc_archives/<name>  (time,quality,value)" % self.path("storage"))
        print("  bounds          %s/<meter>/timestamp_max_hourly, timestamp_max_daily" % self.path("storage"))
        print("  daemon logs     %s" % self.path("logs"))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--binary", required=True, help="the mcd_main binary")
    parser.add_argument("--root", default="demo-root")
    parser.add_argument("--time-scale", type=int, default=300)
    parser.add_argument("--timeout", type=int, default=240)
    args = parser.parse_args()

    demo = Demo(args)
    ok = False
    try:
        demo.prepare()
        print("Starting the configuration server and the simulated meters under %s" % demo.root)
        demo.start_server()
        demo.start_meters()
        print("Starting mcd_main: line 1 VKT-7 (71); line 2 MTR-06 (101), TM-3E (102), MTR-06 (103); "
              "line 3 TSRV-024M (81); line 4 MAGIKA (91)")
        demo.start_daemons()
        demo.run()
        print("Stopping")
        ok = demo.stop()
        demo.summary()
        print("\nModbus meters against their simulators' records:")
        ok = demo.check_held_out() and ok
        demo.where()
    except (RuntimeError, OSError) as e:
        print("demo failed: %s" % e, file=sys.stderr)
    finally:
        if demo.daemons or demo.children:
            demo.stop()
    print("\nDemo %s." % ("done" if ok else "FAILED"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
