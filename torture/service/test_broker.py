"""Bridge, service and broker are killed in turn while writes and changes go through them: none is carried out twice, none that
was acknowledged is lost, and what changes while the broker is away arrives, in its order."""
import json
import random
import time

from test_mqtt import LEVEL, plant, word  # noqa: F401, a fixture
from voqtest import LONG, Key, com_info, figure, wait_for

WRITABLE = 400  # registers, each of one write at a time
REGISTER = '[[register]]\nname = "w{0}"\nstation = 3\narea = 2\ntype = "u16"\naddress = {0}\npriority = 10\n'
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
    writes, kills, level, looked, outages, changed, missing = Writes(service.sim, broker), {}, 1000, 0, 0, 0, 0

    def live(length):
        """Writes and changes for a while; returns the values that the service has read."""
        nonlocal level
        seen, end = [], time.monotonic() + length
        while time.monotonic() < end:
            if broker.process.poll() is None:
                writes.send()
            level = level % 60000 + 1
            service.sim.set(LEVEL, word(level))
            if service.process.poll() is None:
                wait_for(lambda: service.value(LEVEL) == word(level), "a reading", 60)
                seen.append(round(level / 10, 1))
            time.sleep(0.06)  # longer than the bridge leaves between two looks
        return seen

    def told(since, kind):
        return [(m["value"], m["time"]) for topic, _, _, payload in heard.messages[since:] if topic == f"voq/box/{kind}/level"
                for m in [json.loads(payload)] if m["state"] == "ok"]

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
        since, seen = len(heard.messages), live(chance.uniform(0.1, 2))
        if victim == "bridge":
            bridge.start()
        elif victim == "service":
            service = start(com_info(pause=PAUSE), sim=service.sim)
        else:
            broker.start()
        service.sim.set(LEVEL, word(level := level % 60000 + 1))
        wait_for(lambda: (round(level / 10, 1)) in [value for value, _ in told(since, "value")], "the present", 60)
        if victim == "broker":
            wait_for(lambda: bridge.state().get("spooled") == "0", "an empty spool", 60)
            wait_for(lambda: seen[-1] in [value for value, _ in told(since, "history")], "the last of what was kept", 60)
            kept = list(dict.fromkeys(told(since, "history")))  # the broker may send twice what it has kept
            outages, changed = outages + 1, changed + len(seen)
            missing += len(set(seen) - {value for value, _ in kept}) + ([t for _, t in kept] != sorted(t for _, t in kept))
        now = len(heard.messages)
        writes.look(heard.messages[looked:now])
        looked = now
    wait_for(lambda: writes.look(heard.messages[looked:]) or not writes.under_way, "the last writes", 60)
    figure(f"broker: kills in {seconds} s, {', '.join(f'{n} of {v}' for v, n in sorted(kills.items()))}",
           f"{writes.sent} writes, {writes.done} carried out, {len(writes.acknowledged)} acknowledged", "-", writes.done > 0)
    figure("broker: writes carried out twice", writes.twice, 0, writes.twice == 0)
    figure("broker: acknowledged writes that the PLC never got", writes.lost, 0, writes.lost == 0)
    figure(f"broker: changes lost or out of order of {changed} in {outages} outages of the broker", missing, 0, missing == 0)
