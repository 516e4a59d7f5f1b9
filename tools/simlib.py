"""Machinery shared by the meter simulators: the pseudo-terminal line, baud pacing,
fault switches and request statistics. Each simulator supplies a protocol object:

    class Protocol:
        def frame_length(self, buf: bytearray) -> int | None
            # bytes of the first request in buf once known; None = need more bytes;
            # 0 = buf[0] cannot start a request (it is dropped)
        def respond(self, request: bytes) -> bytes | None
            # the meter's answer, or None for no answer
        def corrupt_checksum(self, reply: bytes) -> bytes
            # the same reply with a broken checksum

Fault switches live in a JSON control file (--control) that is re-read whenever it
changes, so a test can switch faults on and off while the daemon runs:
    {"silent": false, "bad_checksum": false, "garbage": false, "every_other": false}
"""
import argparse
import json
import os
import random
import select
import signal
import sys
import time
import tty


def add_common_arguments(parser):
    parser.add_argument("--link", required=True,
                        help="path of a symbolic link to the simulator's serial device")
    parser.add_argument("--baud", type=int, default=0,
                        help="pace requests and answers as on a line of this speed (0: no pacing)")
    parser.add_argument("--control", default=None, help="JSON file with fault switches")
    parser.add_argument("--stats", default=None,
                        help="JSON file in which request and byte counts are kept up to date")
    parser.add_argument("--seed", type=int, default=1, help="seed for garbage bytes")
    parser.add_argument("--answer-pause", type=float, default=0.1,
                        help="pause the protocol prescribes between a request and the reading of its "
                             "answer, for the floor_seconds statistic")


class Faults:
    KEYS = ("silent", "bad_checksum", "garbage", "every_other")

    def __init__(self, path):
        self.path = path
        self.mtime = None
        self.state = {k: False for k in self.KEYS}

    def current(self):
        if not self.path:
            return self.state
        try:
            mtime = os.stat(self.path).st_mtime_ns
        except OSError:
            self.state = {k: False for k in self.KEYS}
            self.mtime = None
            return self.state
        if mtime != self.mtime:
            try:
                with open(self.path, encoding="utf-8") as f:
                    data = json.load(f)
                self.state = {k: bool(data.get(k, False)) for k in self.KEYS}
                self.mtime = mtime
            except (OSError, ValueError):
                pass  # half-written file: keep the previous switches, read again next time
        return self.state


class Stats:
    def __init__(self, path):
        self.path = path
        # floor_seconds: the least time the exchanges so far can take on the line: for
        # each, the wire time of request and answer, but at least the pause the protocol
        # prescribes between sending a request and reading its answer
        # gap_seconds: the time from the end of each answer (at the earliest the end of
        # the prescribed pause) to the first byte of the next request: the master's own
        # time between exchanges (the first request excluded)
        self.data = {"requests": 0, "answers": 0, "bytes_in": 0, "bytes_out": 0, "floor_seconds": 0.0,
                     "gap_seconds": 0.0, "gaps": 0, "gaps_over_100ms": 0.0}

    def add(self, key, n=1):
        self.data[key] += n

    def save(self):
        if not self.path:
            return
        tmp = self.path + ".tmp"
        with open(tmp, "w", encoding="utf-8") as f:
            json.dump(self.data, f)
        os.replace(tmp, self.path)


class Line:
    """The master side of a pseudo-terminal whose slave is reachable through a link."""

    def __init__(self, link, baud):
        self.master, self.slave = os.openpty()
        tty.setraw(self.master)
        # keep the slave open ourselves, so the master never sees EIO between
        # the daemon's opens and closes
        self.slave_name = os.ttyname(self.slave)
        self.link = link
        try:
            os.unlink(link)
        except FileNotFoundError:
            pass
        os.symlink(self.slave_name, link)
        self.baud = baud

    def byte_time(self):
        return 10.0 / self.baud if self.baud > 0 else 0.0

    @staticmethod
    def sleep_until(deadline):
        """Sleeps to an absolute monotonic deadline: an overslept sleep is not carried
        into the next one, as a UART's clock does not drift with the simulator's."""
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                return
            time.sleep(left)

    def send(self, data, start=None):
        """Hands data to the line as a UART would: each piece when its last byte has
        crossed the wire, counted from start (default: now). Returns when the last byte
        is through."""
        if self.baud <= 0:
            os.write(self.master, data)
            return
        start = time.monotonic() if start is None else start
        # pieces of 8 bytes at 9600 baud, as a UART's receive FIFO hands them over
        chunk = max(1, self.baud // 1200)
        for i in range(0, len(data), chunk):
            piece = data[i:i + chunk]
            self.sleep_until(start + (i + len(piece)) * self.byte_time())
            os.write(self.master, piece)

    def read_some(self, timeout):
        ready, _, _ = select.select([self.master], [], [], timeout)
        if not ready:
            return b""
        try:
            return os.read(self.master, 4096)
        except OSError:
            return b""

    def close(self):
        try:
            os.unlink(self.link)
        except OSError:
            pass


def serve(protocol, args):
    """Runs the simulator until it is terminated."""
    line = Line(args.link, args.baud)
    faults = Faults(args.control)
    stats = Stats(args.stats)
    rng = random.Random(args.seed)
    buf = bytearray()
    answered = 0
    arrived = time.monotonic()
    answer_end = None
    silence = getattr(protocol, "silence_chars", 0.0)
    stats.save()
    try:
        while True:
            chunk = line.read_some(0.5)
            if chunk:
                if not buf:
                    arrived = time.monotonic()  # the request starts on the wire about now
                    if answer_end is not None:
                        gap = arrived - answer_end
                        stats.data["gap_seconds"] += gap
                        stats.data["gaps"] += 1
                        if gap > 0.1:
                            stats.data["gaps_over_100ms"] += gap
                        answer_end = None
                buf += chunk
            while buf:
                n = protocol.frame_length(buf)
                if n is None:
                    break
                if n == 0:
                    del buf[0]
                    continue
                if len(buf) < n:
                    break
                request = bytes(buf[:n])
                del buf[:n]
                stats.add("requests")
                stats.add("bytes_in", len(request))
                # the request's own time on the wire, then the quiet by which an RTU
                # slave knows the request has ended
                answer_at = arrived + (len(request) + silence) * line.byte_time()
                paused_until = arrived + args.answer_pause  # the master reads no earlier
                arrived = time.monotonic()  # bytes already read after this request
                state = faults.current()
                reply = protocol.respond(request)
                wire_baud = args.baud if args.baud > 0 else 9600
                answered_bytes = 0 if (reply is None or state["silent"]) else len(reply)
                stats.data["floor_seconds"] += max(args.answer_pause,
                                                   (len(request) + answered_bytes) * 10.0 / wire_baud)
                if reply is None or state["silent"]:
                    stats.save()
                    continue
                answered += 1
                if state["every_other"] and answered % 2 == 0:
                    stats.save()
                    continue
                if state["garbage"]:
                    reply = bytes(rng.randrange(256) for _ in range(len(reply)))
                elif state["bad_checksum"]:
                    reply = protocol.corrupt_checksum(reply)
                line.sleep_until(answer_at)
                line.send(reply)
                answer_end = max(time.monotonic(), paused_until)
                stats.add("answers")
                stats.add("bytes_out", len(reply))
                stats.save()
    except KeyboardInterrupt:
        pass
    finally:
        line.close()


def main_with(protocol_factory, description):
    parser = argparse.ArgumentParser(description=description)
    add_common_arguments(parser)
    protocol_factory.add_arguments(parser)
    args = parser.parse_args()
    protocol = protocol_factory(args)
    def stop(*_):
        raise KeyboardInterrupt()

    signal.signal(signal.SIGTERM, stop)
    serve(protocol, args)
    return 0
