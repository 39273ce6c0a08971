#!/usr/bin/python3
"""Level control: keeps a tank between two levels with a pump.

    level.py DIRECTORY BYTE_ORDER LEVEL PUMP LOW HIGH      level.py /home/user/tcp_1 0 s1:a4:u16@100 s1:a0:bit@5 200 800

The pump is switched on below LOW and off above HIGH. A level that is not fresh switches it off: the example errs on the
safe side. Until it is interrupted, and then the pump is off.
"""
import asyncio
import signal
import sys

import voq


def wanted(reading, on, low, high):
    if reading is None or not reading.live:
        return 0
    return 1 if reading.value < low else 0 if reading.value > high else on


async def control(port, level, pump, low, high):
    on, known = 0, False
    while True:
        before, on = on, wanted(level.reading, on, low, high)
        if on != before or not known:
            try:
                await pump.write_async(on, timeout=5)
                known = True
                print("pump", "on" if on else "off", flush=True)
            except voq.Error as error:
                known = False
                print(f"level: pump not switched: {error}", file=sys.stderr)
                await asyncio.sleep(1)
                continue
        await port.poll_async()


async def main(directory, byte_order, level, pump, low, high):
    with voq.Port(directory, byte_order=int(byte_order, 0)) as port:
        running = asyncio.create_task(control(port, port[level].subscribe(), port[pump], float(low), float(high)))
        for number in (signal.SIGINT, signal.SIGTERM):
            asyncio.get_running_loop().add_signal_handler(number, running.cancel)
        try:
            await running
        except asyncio.CancelledError:
            port[pump].value = 0


if __name__ == "__main__":
    if len(sys.argv) != 7:
        sys.exit(__doc__)
    try:
        asyncio.run(main(*sys.argv[1:]))
    except voq.Error as error:
        sys.exit(f"level: {error}")
