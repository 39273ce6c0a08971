#!/usr/bin/python3
"""A PLC that takes lines of text over TCP, for the example driver: plc.py [PORT], 7000 on 127.0.0.1 when not given.

Area 1, address 0 counts up ten times a second; every other word keeps what is written. Area 9 does not exist.
"""
import socketserver
import sys
import time

WORDS = {}


def answer(command, station, area, address, *rest):
    if area == 9:
        raise ValueError("no such area")
    if command == "w":
        WORDS.update({(station, area, address + i): value & 0xFFFF for i, value in enumerate(rest)})
        return "ok"
    WORDS[station, 1, 0] = int(time.monotonic() * 10) & 0xFFFF
    return " ".join(str(WORDS.get((station, area, address + i), 0)) for i in range(rest[0]))


class Lines(socketserver.StreamRequestHandler):
    def handle(self):
        for line in self.rfile:
            try:
                command, *numbers = line.decode().split()
                reply = answer(command, *map(int, numbers))
            except (ValueError, TypeError, IndexError) as reason:
                reply = f"! {reason}"
            self.wfile.write(f"{reply}\n".encode())


class Plc(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True


if __name__ == "__main__":
    Plc(("127.0.0.1", int(sys.argv[1]) if len(sys.argv) > 1 else 7000), Lines).serve_forever()
