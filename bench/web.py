#!/usr/bin/env python3
"""What voq-web costs: 300 ranges that all move, 20 browsers' streams at four updates a second: bench/web.py [SECONDS]

Prints processor time, memory of its own over time, and how long a browser takes to the first view. Needs the programs of
build/release and what scripts/packages web installs.
"""
import pathlib
import shutil
import socket
import statistics
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/web"))
from browser import Browser  # noqa: E402
from house import House, wait_for  # noqa: E402

RANGES, READERS = 300, 20
PORT = '[[port]]\nnumber = 1\ndriver = "modbus_tcp"\naddress = "127.0.0.1"\ntcp_port = 15020\n'
REGISTER = '[[register]]\nname = "range{0}"\nstation = 1\narea = "holding"\ntype = "u16"\naddress = {0}\nscale = 0.1\nunit = "bar"\n'


def processor_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / 100


def own_memory(pid):
    """KiB that the process has written: what no other shares."""
    rollup = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    return sum(int(line.split()[1]) for line in rollup.splitlines() if line.startswith("Private_Dirty"))


class Stream(threading.Thread):
    def __init__(self, port):
        super().__init__(daemon=True)
        self.socket = socket.create_connection(("127.0.0.1", port))
        self.socket.sendall(b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n")
        self.bytes = self.updates = 0
        self.start()

    def run(self):
        while data := self.socket.recv(65536):
            self.bytes += len(data)
            self.updates += data.count(b"event: ranges")


# Notes when the last row has its value and is painted.
OBSERVER = """new MutationObserver((seen, observer) => {
  if (document.querySelectorAll("td.value").length !== %d) return;
  observer.disconnect();
  requestAnimationFrame(() => { window.painted = performance.now(); });
}).observe(document, { childList: true, subtree: true });""" % RANGES


def first_view(house):
    """Milliseconds from the navigation on; the first is that of a browser that has just started."""
    browser = Browser()
    times = []
    try:
        browser.call("POST", "/goog/cdp/execute", {"cmd": "Page.addScriptToEvaluateOnNewDocument",
                                                   "params": {"source": OBSERVER}})
        for _ in range(6):
            browser.open("about:blank")
            browser.open(house.url())
            times.append(wait_for(lambda: browser.script("return window.painted"), "the first view"))
    finally:
        browser.close()
    return times


def measure(seconds, say):
    """Samples: `first`, ms to the first view of a browser that has just started; `next`, of its further ones; `cpu`, % of a
    core; `memory`, KiB. Without a browser the first two are empty."""
    with tempfile.NamedTemporaryFile("w", suffix=".toml") as description:
        description.write(PORT + "".join(REGISTER.format(i) for i in range(RANGES)))
        description.flush()
        house = House(description.name, subscribe=False)
    samples = {"first": [], "next": [], "cpu": [], "memory": []}
    try:
        house.plc.word = lambda station, code, at: int((time.monotonic() * 100 + at) * 7) % 1000
        house.run("watch", *house.voqctl("watch"), "--all", "--for", 100000)
        pid = house.processes["web"].pid
        wait_for(lambda: house.get("/api/ranges").count('"subscribed":true') == RANGES, "all ranges")
        if shutil.which("chromedriver"):
            samples["first"], samples["next"] = zip(*(((t := first_view(house))[0], statistics.median(t[1:])) for _ in range(3)))
            say("first view in a browser that has just started, ms:", *(f"{t:.0f}" for t in samples["first"]))
            say("first view in one that runs, ms:", *(f"{t:.0f}" for t in samples["next"]))
        say(f"memory of its own without a reader: {own_memory(pid)} KiB")
        streams = [Stream(house.port) for _ in range(READERS)]
        time.sleep(5)
        begin = time.monotonic()
        counted = [(s.bytes, s.updates) for s in streams]
        while time.monotonic() - begin < seconds:
            since, used = time.monotonic(), processor_seconds(pid)
            time.sleep(min(60, seconds / 4))
            samples["cpu"].append(100 * (processor_seconds(pid) - used) / (time.monotonic() - since))
            samples["memory"].append(own_memory(pid))
            say(f"after {time.monotonic() - begin:.0f} s: {samples['memory'][-1]} KiB, {samples['cpu'][-1]:.2f} % of a core")
        took = time.monotonic() - begin
        read = sum(s.bytes for s in streams) - sum(c[0] for c in counted)
        updates = (sum(s.updates for s in streams) - sum(c[1] for c in counted)) / READERS / took
        say(f"{READERS} readers, {updates:.1f} updates/s each, {read / took / READERS / 1024:.1f} KiB/s each")
        assert updates > 3, "the browsers were not told four times a second"
    finally:
        house.stop()
    return samples


if __name__ == "__main__":
    measure(int(sys.argv[1]) if len(sys.argv) > 1 else 60, lambda *what: print(*what, flush=True))
