#!/usr/bin/env python3
"""VKT-9 meter simulator: binary frames of network address, function, data and a
CRC-16 (Modbus polynomial, low byte first), answered on a pseudo-terminal.

Functions answered:
  0x03, 0x04  read registers (register and count, big-endian); each register holds a
              value derived from its number, so a test can predict it
  0x06        write one register: the request is echoed
  0x11        identification: byte count, "VKT-9", run indicator 0xFF
  0x41        block read: the flag byte of the request (bits 0x08, 0x10, 0x20) is
              answered with the same flags and 3 or 47 data bytes plus 106 per extra block
  0x42        clock: the count 5, then day, month, year - 2000, hour, minute of the
              host's local time
Anything else is answered with an error reply (function | 0x80, code 1); a read of 0
or more than 125 registers with code 3. Requests for another address or with a wrong
CRC stay unanswered.
"""
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import simlib  # noqa: E402


def crc16(data):
    crc = 0xFFFF
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0xA001 if crc & 1 else crc >> 1
    return crc


def with_crc(body):
    crc = crc16(body)
    return bytes(body) + bytes([crc & 0xFF, crc >> 8])


def register_value(function, register):
    base = 0x1000 if function == 0x04 else 0
    return (base + register * 7 + 3) & 0xFFFF


def block_data(flags):
    n = 47 if flags & 0x08 else 3
    if flags & 0x10:
        n += 106
    if flags & 0x20:
        n += 106
    return bytes((i * 5 + flags) & 0xFF for i in range(n))


class VKT9Protocol:
    # whole request length (address .. CRC) by function code
    FIXED = {0x03: 8, 0x04: 8, 0x06: 8, 0x11: 4, 0x41: 5, 0x42: 4}

    @staticmethod
    def add_arguments(parser):
        parser.add_argument("--address", type=int, default=1, help="network address of the meter")

    def __init__(self, args):
        self.address = args.address

    def frame_length(self, buf):
        if len(buf) < 2:
            return None
        function = buf[1]
        if function == 0x10:
            if len(buf) < 7:
                return None
            return 9 + buf[6]
        if function in self.FIXED:
            return self.FIXED[function]
        # a function this meter does not know: the frame ends where a CRC fits
        for n in range(4, len(buf) + 1):
            if crc16(buf[:n - 2]) == buf[n - 2] | (buf[n - 1] << 8):
                return n
        return None if len(buf) < 32 else 0

    def error(self, function, code):
        return with_crc([self.address, function | 0x80, code])

    def respond(self, request):
        if len(request) < 4 or crc16(request[:-2]) != request[-2] | (request[-1] << 8):
            return None
        if request[0] != self.address:
            return None
        function = request[1]
        if function in (0x03, 0x04):
            register = (request[2] << 8) | request[3]
            count = (request[4] << 8) | request[5]
            if count == 0 or count > 125:
                return self.error(function, 3)
            data = bytearray()
            for r in range(register, register + count):
                value = register_value(function, r)
                data += bytes([value >> 8, value & 0xFF])
            return with_crc(bytes([self.address, function, len(data)]) + bytes(data))
        if function == 0x06:
            return with_crc(request[:6])
        if function == 0x11:
            ident = b"VKT-9" + bytes([0xFF])
            return with_crc(bytes([self.address, 0x11, len(ident)]) + ident)
        if function == 0x41:
            flags = request[2] & 0x38
            return with_crc(bytes([self.address, 0x41, 0x00, flags]) + block_data(flags))
        if function == 0x42:
            now = time.localtime()
            return with_crc(bytes([self.address, 0x42, 5, now.tm_mday, now.tm_mon, now.tm_year - 2000,
                                   now.tm_hour, now.tm_min]))
        return self.error(function, 1)

    def corrupt_checksum(self, reply):
        return reply[:-1] + bytes([reply[-1] ^ 0xFF])


if __name__ == "__main__":
    sys.exit(simlib.main_with(VKT9Protocol, "VKT-9 heat calculator simulator"))
