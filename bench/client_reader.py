"""Follows 300 ranges through the Python module and prints how many milliseconds reading all their values takes."""
import pathlib
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "client/python"))
import voq  # noqa: E402

with voq.Port(sys.argv[1], byte_order=0) as port:
    ranges = port.subscribe(*(f"s1:a1:u16@{4 * i}*2,priority=1" for i in range(300)))
    end = time.monotonic() + 60
    while not all(each.reading.live for each in ranges):
        port.poll(1)
        if time.monotonic() > end:
            sys.exit("no live values")
    for _ in range(51):
        time.sleep(0.05)
        begin = time.perf_counter()
        port.poll()
        values = [each.value for each in ranges]
        print((time.perf_counter() - begin) * 1000)
