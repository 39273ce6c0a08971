#!/usr/bin/python3
"""A small Modbus TCP PLC whose registers move: plc.py [PORT [ADDRESS]], 15020 on 127.0.0.1 when not given.

Holding registers: 0 counts up ten times a second, 1 and 2 are a sine and a cosine scaled to 0..20000, 3 holds seconds;
from 10 on they keep what is written. Input registers: 0 a sine shifted by 1000, 1 a saw tooth. Coils: 0 toggles every
half second, 1 every second; from 8 on they keep what is written. Discrete inputs: 0 toggles every two seconds.
"""
import asyncio
import math
import sys
import time

from pymodbus import server
from pymodbus.datastore import ModbusSequentialDataBlock, ModbusServerContext, ModbusSlaveContext

COILS, DISCRETE, HOLDING, INPUT = 1, 2, 3, 4  # function codes, by which the store is addressed


def step(plc, now):
    wave = math.sin(now)
    plc.setValues(HOLDING, 0, [int(now * 10) & 0xFFFF, int(10000 + 10000 * wave),
                               int(10000 + 10000 * math.cos(now)), int(now) & 0xFFFF])
    plc.setValues(INPUT, 0, [int(1000 + 500 * wave), int(now * 100) % 1000])
    plc.setValues(COILS, 0, [int(now * 2) % 2 == 1, int(now) % 2 == 1])
    plc.setValues(DISCRETE, 0, [int(now / 2) % 2 == 1])


async def move(plc):
    start = time.monotonic()
    while True:
        step(plc, time.monotonic() - start)
        await asyncio.sleep(0.05)


async def main():
    port = int(sys.argv[1]) if len(sys.argv) > 1 else 15020
    address = sys.argv[2] if len(sys.argv) > 2 else "127.0.0.1"
    # The store counts from one. Version 3.0 of the library, Debian 12's, takes a port again only when told so.
    plc = ModbusSlaveContext(**{name: ModbusSequentialDataBlock(1, [0] * 1000) for name in ("co", "di", "hr", "ir")})
    again = {} if hasattr(server, "ModbusTcpServer") else {"allow_reuse_address": True}
    mover = asyncio.create_task(move(plc))
    try:
        await server.StartAsyncTcpServer(ModbusServerContext(slaves=plc, single=True), address=(address, port), **again)
    finally:
        mover.cancel()


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except KeyboardInterrupt:
        pass
