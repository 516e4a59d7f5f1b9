#!/usr/bin/env python3
"""Runs a simulator of tools/ (first argument) with one more figure in its --stats file:
"floor_s", the least time the exchanges seen so far can take on the line.

For each exchange the reader pauses a fixed time after its request before it reads the
answer (--pause, 0.1 s), while the request and then the answer cross the line at the
--baud rate (10 bits per byte). The answer may arrive during the pause, so one exchange
takes at least max(pause, wire time of request + answer); a request without an answer
at least max(pause, its own wire time). The sum of these is the floor. The simulator's
own behaviour is unchanged.

    sim_with_floor.py [--pause S] tools/vkt7_sim.py --link ... --baud 9600 --stats ...
"""
import os
import runpy
import sys

TOOLS = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tools")


def option(argv, name, default):
    if name in argv:
        return argv[argv.index(name) + 1]
    return default


def main():
    argv = sys.argv[1:]
    pause = 0.1
    if argv[:1] == ["--pause"]:
        pause = float(argv[1])
        argv = argv[2:]
    script = argv[0]
    baud = int(option(argv, "--baud", "0"))
    byte_time = 10.0 / baud if baud > 0 else 0.0

    sys.path.insert(0, TOOLS)
    import simlib  # the simulators import the same module by this name

    class FloorStats(simlib.Stats):
        def __init__(self, path):
            super().__init__(path)
            self.data["floor_s"] = 0.0
            self.request_bytes = 0

        def add(self, key, n=1):
            super().add(key, n)
            if key == "bytes_in":
                # counted as unanswered until its answer goes out
                self.request_bytes = n
                self.data["floor_s"] += max(pause, n * byte_time)
            elif key == "bytes_out":
                self.data["floor_s"] += max(pause, (self.request_bytes + n) * byte_time) - \
                    max(pause, self.request_bytes * byte_time)

    simlib.Stats = FloorStats
    sys.argv = [script] + argv[1:]
    runpy.run_path(script, run_name="__main__")


if __name__ == "__main__":
    main()
