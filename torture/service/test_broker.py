"""Bridge, service and broker are killed in turn while writes and changes go through them: none is carried out twice, none that
was acknowledged is lost, and what waited in the spool arrives, in its order."""
import json
import random
import time

from test_mqtt import LEVEL, plant, word  # noqa: F401, a fixture
from voqtest import LONG, Key, com_info, figure, wait_for

WRITABLE = 400  # registers, each of one write at a time
REGISTER = '{{name = "w{0}", station = 3, area = 2, type = "u16", address = {0}, priority = 10}},\n'
OVER = 11 if LONG else 4  # s after which a write has been carried out, or is not any more
PAUSE = 20  # ms a turn: more calls than the simulated PLC logs would be made otherwise


class Writes:
    """Each to a register that has had none for long; what the PLC saw of it is looked at when it is over."""

    def __init__(self, sim, broker):
        self.sim, self.broker, self.seen = sim, broker, sim.logged
        self.sent, self.under_way, self.acknowledged, self.calls = 0, [], set(), [0] * WRITABLE
        self.done = self.twice = self.lost = 0

    def send(self):
        at, value = self.sent % WRITABLE, self.sent % 60000 + 1
        self.sent += 1
        self.calls[at] = 0
        self.under_way.append((time.monotonic(), at, value, str(self.sent)))
        self.broker.publish(f"voq/box/value/w{at}/set", json.dumps({"value": value, "id": str(self.sent)}))

    def look(self, heard):
        for call in self.sim.calls(self.seen):
            if call.command == self.sim.WRONE and call.plcno == 3:
                self.calls[call.addr] += 1
        self.seen = self.sim.logged
        for topic, _, _, payload in heard:
            if topic.endswith("/result") and (answer := json.loads(payload))["written"]:
                self.acknowledged.add(answer["id"])
        while self.under_way and self.under_way[0][0] < time.monotonic() - OVER:
            _, at, value, number = self.under_way.pop(0)
            there = int.from_bytes(self.sim.value(Key(at, 1, regid=2, plcno=3)), "big") == value
            self.done += there
            self.twice += self.calls[at] > 1
            self.lost += number in self.acknowledged and not there


def test_kills(start, plant):  # noqa: F811
    seconds, chance = 3600 if LONG else 4, random.Random(1)
    service, broker, heard, bridge = plant('[[tell]]\nregisters = ["level", "w*"]\nwrites = true\n', pause=PAUSE,
                                           registers="".join(map(REGISTER.format, range(WRITABLE))))
    wait_for(lambda: heard.last("value/w7").get("state") == "ok", "values")
    writes, kills, level, looked, outages, kept, disordered = Writes(service.sim, broker), {}, 1000, 0, 0, 0, 0

    def live(length):
        """Writes and changes for a while."""
        nonlocal level
        end = time.monotonic() + length
        while time.monotonic() < end:
            if broker.process.poll() is None:
                writes.send()
            level = level % 60000 + 1
            service.sim.set(LEVEL, word(level))
            if service.process.poll() is None:
                wait_for(lambda: service.value(LEVEL) == word(level), "a reading", 60)
            time.sleep(0.05)

    def told(since, kind):
        """(value, time, register) of what has arrived, each once: the broker may send twice what it has kept."""
        there = [(json.loads(payload), topic) for topic, _, _, payload in heard.messages[since:]
                 if topic.startswith(f"voq/box/{kind}/")]
        return list(dict.fromkeys((m["value"], m["time"], topic) for m, topic in there if "time" in m and "value" in m))

    def settled():
        """How many values wait in the spool, when no more come."""
        now = int(time.time())
        wait_for(lambda: int(bridge.state().get("updated", 0)) > now + 1, "the state", 60)
        return int(bridge.state()["spooled"])

    begin = time.monotonic()
    while time.monotonic() < begin + seconds or len(kills) < 3:
        victim = chance.choice([v for v in ("bridge", "service", "broker") if len(kills) == 3 or v not in kills])
        kills[victim] = kills.get(victim, 0) + 1
        live(chance.uniform(0.1, 1.5))
        killed = {"bridge": bridge, "service": service, "broker": broker}[victim].process
        killed.kill()
        killed.wait()
        if victim == "broker":
            wait_for(lambda: bridge.state().get("state") == "away", "the end of the connection", 60)
        since = len(heard.messages)
        live(chance.uniform(0.1, 2))
        if victim == "bridge":
            bridge.start()
        elif victim == "service":
            service = start(com_info(pause=PAUSE), sim=service.sim)
        else:
            spooled = settled()
            broker.start()
        service.sim.set(LEVEL, word(level := level % 60000 + 1))
        wait_for(lambda: round(level / 10, 1) in [value for value, _, _ in told(since, "value")], "the present", 60)
        if victim == "broker":
            wait_for(lambda: bridge.state().get("spooled") == "0", "an empty spool", 60)
            wait_for(lambda: len(told(since, "history")) >= spooled, f"{spooled} values of the spool", 300)
            times = [t for _, t, topic in told(since, "history") if topic.endswith("/level")]
            outages, kept, disordered = outages + 1, kept + spooled, disordered + (times != sorted(times))
        now = len(heard.messages)
        writes.look(heard.messages[looked:now])
        looked = now
    wait_for(lambda: writes.look(heard.messages[looked:]) or not writes.under_way, "the last writes", 60)
    figure(f"broker: kills in {seconds} s, {', '.join(f'{n} of {v}' for v, n in sorted(kills.items()))}",
           f"{writes.sent} writes, {writes.done} carried out, {len(writes.acknowledged)} acknowledged", "-", writes.done > 0)
    figure("broker: writes carried out twice", writes.twice, 0, writes.twice == 0)
    figure("broker: acknowledged writes that the PLC never got", writes.lost, 0, writes.lost == 0)
    figure(f"broker: values of the spool, all told, in {outages} outages of the broker", f"{kept}, {disordered} out of order",
           "none out of order", kept > 0 and disordered == 0)
