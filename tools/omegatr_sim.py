#!/usr/bin/env python3
"""OMEGA-TR meter simulator: ASCII frames ":" + hex body + LRC + CR LF on a
pseudo-terminal. The LRC is the two's complement of the 8-bit sum of the body's ASCII
characters (this meter sums the characters, not the bytes they stand for).

Functions answered (request: address, function, data):
  4, 20      read registers: data = register (2 bytes) and count (2 bytes); the reply
             carries the byte count and 2 bytes per register, derived from the register
             number; a count of 0 or above 60 gets a reply without data
  100..103   commands: address, function, 0, error byte (--command-error, default 0)
  104        version: address, function and two version bytes
Anything else gets address, function | 0x80, 1. Requests for another address or
with a wrong LRC stay unanswered.
"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import simlib  # noqa: E402


def lrc(text):
    return (256 - (sum(text) % 256)) % 256


def frame(binary):
    body = "".join("%02X" % b for b in binary).encode("ascii")
    return b":" + body + ("%02X" % lrc(body)).encode("ascii") + b"\r\n"


def register_value(function, register):
    base = 0x2000 if function == 20 else 0
    return (base + register * 3 + 1) & 0xFFFF


class OmegaTRProtocol:
    @staticmethod
    def add_arguments(parser):
        parser.add_argument("--address", type=int, default=1, help="network address of the meter")
        parser.add_argument("--command-error", type=int, default=0,
                            help="error byte reported for commands 100 to 103")

    def __init__(self, args):
        self.address = args.address
        self.command_error = args.command_error & 0xFF

    def frame_length(self, buf):
        if buf[0] != ord(":"):
            return 0
        end = buf.find(b"\n")
        if end < 0:
            return 0 if len(buf) > 600 else None
        return end + 1

    def respond(self, request):
        text = request[1:].rstrip(b"\r\n")
        if len(text) < 6 or len(text) % 2:
            return None
        body, received = text[:-2], text[-2:]
        try:
            if int(received, 16) != lrc(body):
                return None
            binary = bytes.fromhex(body.decode("ascii"))
        except ValueError:
            return None
        if binary[0] != self.address:
            return None
        function = binary[1]
        if function in (4, 20):
            if len(binary) < 6:
                return frame(bytes([self.address, function]))
            register = (binary[2] << 8) | binary[3]
            count = (binary[4] << 8) | binary[5]
            if count == 0 or count > 60:
                return frame(bytes([self.address, function]))
            data = bytearray()
            for r in range(register, register + count):
                value = register_value(function, r)
                data += bytes([value >> 8, value & 0xFF])
            return frame(bytes([self.address, function, len(data)]) + bytes(data))
        if 100 <= function <= 103:
            return frame(bytes([self.address, function, 0, self.command_error]))
        if function == 104:
            return frame(bytes([self.address, function, 0x01, 0x07]))
        return frame(bytes([self.address, function | 0x80, 1]))

    def corrupt_checksum(self, reply):
        # the LRC stands in the two characters before CR LF
        wrong = (int(reply[-4:-2], 16) + 1) & 0xFF
        return reply[:-4] + ("%02X" % wrong).encode("ascii") + b"\r\n"


if __name__ == "__main__":
    sys.exit(simlib.main_with(OmegaTRProtocol, "OMEGA-TR heat meter simulator"))
