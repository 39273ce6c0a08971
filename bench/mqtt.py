#!/usr/bin/env python3
"""What voq-mqtt costs and how late it is: 300 ranges that change once a second, at a mosquitto of this machine; then an outage of
the broker, and many boxes at one broker: bench/mqtt.py [SECONDS OF MEASURING, OF OUTAGE, BOXES]

Needs the programs of build/release and what scripts/packages mqtt installs.
"""
import json
import os
import pathlib
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/web"))
from house import BUILD, House, free_port, wait_for  # noqa: E402
from web import PORT, REGISTER, own_memory, processor_seconds  # noqa: E402

RANGES, OF_A_BOX = 300, 10
SETTINGS = """[broker]
host = "127.0.0.1"
port = {port}
retry_s = 1
[box]
name = "{name}"
convention = "{convention}"
[spool]
file = "{spool}"
[[tell]]
registers = {registers}
most_s = 0
"""


class Broker:
    """A mosquitto that keeps what subscribers miss while it is away itself."""

    def __init__(self, place):
        self.port, self.config = free_port(), place / "mosquitto.conf"
        self.config.write_text(f"user root\nlistener {self.port} 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n"
                               f"persistence true\nsys_interval 1\npersistence_location {place}/\n")
        self.start()

    def start(self):
        path = {**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"}
        self.process = subprocess.Popen(["mosquitto", "-c", self.config], env=path, stderr=subprocess.DEVNULL)
        wait_for(self.listens, "mosquitto")

    def listens(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def stop(self):
        self.process.terminate()
        self.process.wait()


class Subscriber(threading.Thread):
    """Everything that arrives, as (time of arrival, topic, payload), both in seconds since 1970."""

    def __init__(self, broker, topic):
        super().__init__(daemon=True)
        self.process = subprocess.Popen(["mosquitto_sub", "-p", str(broker.port), "-q", "1", "-c", "-i", "bench", "-t", topic,
                                         "-F", "%U %t %p"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.messages = []
        self.start()

    def run(self):
        for line in self.process.stdout:
            at, topic, payload = line.rstrip(b"\n").split(b" ", 2)
            self.messages.append((float(at), topic.decode(), payload))


def seconds_of(text):
    """Of a time as voq-mqtt writes it."""
    import datetime
    return datetime.datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


class Plant:
    """A PLC whose registers count seconds, each at a moment of its own, the service, a broker."""

    def __init__(self):
        with tempfile.NamedTemporaryFile("w", suffix=".toml") as description:
            plain = REGISTER.replace('scale = 0.1\nunit = "bar"\n', "")
            description.write(PORT + "".join(plain.format(i) for i in range(RANGES)))
            description.flush()
            self.house = House(description.name, subscribe=False)
        self.house.end("web")
        self.house.plc.word = lambda station, code, at: int(time.monotonic() + at / RANGES)
        self.broker = Broker(self.house.place)

    def bridge(self, name, convention="plain", registers=("*",)):
        place = self.house.place
        settings = place / f"{name}.toml"
        settings.write_text(SETTINGS.format(port=self.broker.port, name=name, convention=convention, spool=place / f"{name}.spool",
                                            registers=json.dumps(list(registers))))
        self.house.run(name, BUILD / "bin/voq-mqtt", "--dir", self.house.user, "--project", self.house.toml, "--settings", settings)
        return self.house.processes[name].pid

    def state(self, name):
        lines = (self.house.user / "mqtt.state").read_text().splitlines()
        return dict(line.split(" ", 1) for line in lines)[name]

    def stop(self):
        self.house.stop()
        self.broker.stop()


def cost(plant, convention, seconds):
    """CPU in % of a core, KiB of memory of its own, ms from a reading to its arrival."""
    subscriber = Subscriber(plant.broker, "voq/box/value/+")
    pid = plant.bridge("box", convention)
    time.sleep(5)
    samples = {"cpu": [], "memory": [], "late": []}
    begin = len(subscriber.messages)
    for _ in range(4):
        since, used = time.monotonic(), processor_seconds(pid)
        time.sleep(seconds / 4)
        samples["cpu"].append(100 * (processor_seconds(pid) - used) / (time.monotonic() - since))
        samples["memory"].append(own_memory(pid))
    for at, _, payload in subscriber.messages[begin:]:
        samples["late"].append(1000 * (at - seconds_of(json.loads(payload)["time"])))
    subscriber.process.kill()
    plant.house.end("box")
    return samples


def outage(plant, seconds, say):
    """How many values were lost, how many came in another order, how old the oldest live one was a second after the
    connection stood again, how long the spool took."""
    subscriber, begin = Subscriber(plant.broker, "voq/#"), time.time()
    plant.bridge("box")
    wait_for(lambda: len(subscriber.messages) > 2 * RANGES, "values", 60)
    plant.broker.stop()
    time.sleep(seconds)
    plant.broker.start()
    back = time.time()
    wait_for(lambda: any(at > back and "/history/" in topic for at, topic, _ in subscriber.messages[-5000:]), "the spool", 120)
    up = next(at for at, topic, _ in subscriber.messages if at > back and topic == "voq/box/state")
    wait_for(lambda: plant.state("spooled") == "0", "an empty spool", 300)
    emptied = time.time() - up
    time.sleep(3)
    values, kept, live = {}, {}, []
    for at, topic, payload in subscriber.messages:
        kind, _, name = topic.removeprefix("voq/box/").partition("/")
        if kind not in ("value", "history"):
            continue
        message = json.loads(payload)
        if message["state"] == "ok" and seconds_of(message["time"]) > begin:  # not one that was kept before
            values.setdefault(name, set()).add(message["value"])
        if kind == "history":
            kept.setdefault(name, []).append(message["value"])
        elif at > up + 1:
            live.append(at - seconds_of(message["time"]))
    lost = sum(max(each) - min(each) + 1 - len(each) for each in values.values())
    disordered = sum(a > b for each in kept.values() for a, b in zip(each, each[1:]))
    say(f"outage of {seconds} s: {sum(map(len, kept.values()))} values kept, {lost} lost, {disordered} out of order, "
        f"spool empty after {emptied:.1f} s, oldest live value {max(live):.3f} s")
    subscriber.process.kill()
    plant.house.end("box")
    return {"lost": lost, "disordered": disordered, "emptied": emptied, "live": max(live)}


def many(plant, boxes, seconds, say):
    """Messages a second of so many boxes, and what share of a core the broker takes. Each holds one of the user's inotify
    instances."""
    limit = int(pathlib.Path("/proc/sys/fs/inotify/max_user_instances").read_text()) - 16
    boxes = min(boxes, limit)
    for i in range(boxes):
        first = i * OF_A_BOX % RANGES
        plant.bridge(f"box{i}", registers=[f"range{n}" for n in range(first, first + OF_A_BOX)])
    time.sleep(10)
    pid = plant.broker.process.pid

    subscriber = Subscriber(plant.broker, "voq/+/value/+")
    time.sleep(3)
    used, messages, since = processor_seconds(pid), len(subscriber.messages), time.monotonic()
    time.sleep(seconds)
    took = time.monotonic() - since
    rate, share = (len(subscriber.messages) - messages) / took, 100 * (processor_seconds(pid) - used) / took
    subscriber.process.kill()
    say(f"{boxes} boxes of {OF_A_BOX} ranges: {rate:.0f} messages/s in and out of the broker, {share:.1f} % of a core, "
        f"{own_memory(pid)} KiB")
    for i in range(boxes):
        plant.house.end(f"box{i}")
    return {"boxes": boxes, "rate": rate, "share": share}


def measure(seconds, away, boxes, say):
    plant = Plant()
    try:
        samples = cost(plant, "plain", seconds)
        late = sorted(samples["late"])
        samples["late"] = [late[len(late) * 99 // 100]]
        say(f"CPU {statistics.median(samples['cpu']):.2f} %, memory {max(samples['memory'])} KiB, {len(late)} messages, late: "
            f"median {statistics.median(late):.1f} ms, 99th percentile {samples['late'][0]:.1f} ms, most {late[-1]:.1f} ms")
        samples["sparkplug"] = cost(plant, "sparkplug", seconds)["cpu"]
        say(f"as Sparkplug: CPU {statistics.median(samples['sparkplug']):.2f} %")
        samples.update(outage(plant, away, say))
        samples.update(many(plant, boxes, seconds, say))
    finally:
        plant.stop()
    return samples


if __name__ == "__main__":
    given = [int(each) for each in sys.argv[1:]]
    measure(*(given + [60, 600, 200][len(given):]), lambda *what: print(*what, flush=True))
