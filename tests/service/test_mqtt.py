"""voq-mqtt between the service and a real mosquitto: what arrives, what it writes, and what a cut anywhere leaves."""
import importlib
import json
import re
import shutil
import signal
import struct
import subprocess
import sys
import threading
import time

import pytest
from voqtest import BUILD, USER, WORK, Key, com_info, free_port, listening, program, voqctl, wait_for

DESCRIPTION = """port = [{link = "serial", number = 1, byte_order = 0x331}]
register = [
    {name = "level", station = 1, area = 1, type = "u16", address = 5, unit = "m", scale = 0.1, min = 0, max = 100},
    {name = "mode", station = 1, area = 1, type = "u16", address = 10, enum = {0 = "off", 1 = "on"}},
    {name = "label", station = 1, area = 1, type = "u16", address = 20, count = 4, text = 8},
    {name = "far", station = 2, area = 1, type = "s32", address = 40, count = 2},
"""
LEVEL, MODE, LABEL, FAR = Key(5, 1), Key(10, 1), Key(20, 4), Key(40, 2, layout=0x24, plcno=2)


def word(number):
    return number.to_bytes(2, "big")


class Broker:
    """A mosquitto that knows its subscribers again after a kill, and lets few messages be under way."""

    def __init__(self, more=""):
        self.port, self.more = free_port(), more
        self.start()

    def start(self):
        (WORK / "mosquitto.conf").write_text(f"user root\nlistener {self.port} 127.0.0.1\nallow_anonymous true\n"
                                             f"persistence true\npersistence_location {WORK}/\nautosave_on_changes true\n"
                                             "autosave_interval 1\nmax_queued_messages 100000\nmax_inflight_messages 3\n" + self.more)
        self.process = subprocess.Popen(["mosquitto", "-c", WORK / "mosquitto.conf"], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        wait_for(lambda: listening(self.port), "mosquitto")

    def kill(self):
        self.process.kill()
        self.process.wait()

    def publish(self, topic, text, *more):
        subprocess.run(["mosquitto_pub", "-p", str(self.port), "-q", "1", "-t", topic, "-m", text, *more], check=True)


class Listener:
    """All messages of a broker, as (topic, retained, QoS, payload), in their order."""

    def __init__(self, broker):
        self.messages = []
        self.process = subprocess.Popen(["mosquitto_sub", "-p", str(broker.port), "-c", "-i", "heard", "-q", "1", "-t", "#", "-F",
                                         "%t %r %q %x"], stdout=subprocess.PIPE, text=True)
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            topic, retained, qos, payload = line.rstrip("\n").split(" ")
            self.messages.append((topic, retained == "1", int(qos), bytes.fromhex(payload)))

    def of(self, topic):
        return [json.loads(payload) for at, _, _, payload in list(self.messages) if at == "voq/box/" + topic]

    def last(self, topic):
        return (self.of(topic) or [{}])[-1]


class Bridge:
    def __init__(self, broker, more, box, registers, protocol):
        (WORK / "project.toml").write_text(DESCRIPTION + registers + "]")
        (WORK / "mqtt.toml").write_text(f'[broker]\nhost = "127.0.0.1"\nport = {broker.port}\nretry_s = 1\nprotocol = "{protocol}"\n[box]\nname = "box"\n{box}'
                                        f'[spool]\nfile = "{WORK}/spool"\nwrites_per_minute = 60\n' + more)
        self.start()

    def start(self):
        with open(WORK / "bridge.log", "ab") as log:
            self.process = subprocess.Popen(program("voq-mqtt", "--dir", USER, "--project", WORK / "project.toml",
                                                    "--settings", WORK / "mqtt.toml"), stdout=log, stderr=log)

    def state(self):
        path = USER / "mqtt.state"
        return dict(line.split(" ", 1) for line in path.read_text().splitlines()) if path.exists() else {}

    def kill(self):
        self.process.kill()
        self.process.wait()

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(20) == 0


@pytest.fixture
def plant(start):
    """plant(settings, box, registers, pause, protocol): service, broker, listener and bridge; `box` for its table of the settings,
    `registers` for that of the description."""
    if not (BUILD / "bin/voq-mqtt").exists() or not shutil.which("mosquitto"):
        pytest.skip("built without libmosquitto, or there is no mosquitto")
    running = []

    def begin(more="", box="", registers="", pause=1, protocol="5"):
        service = start(com_info(pause=pause))
        service.sim.set(LEVEL, word(215))
        service.sim.set(MODE, word(0))
        service.sim.set(LABEL, b'\xff"\xc3\xa4\n\\z\0')
        service.sim.set(FAR, (-7).to_bytes(4, "big", signed=True) + (8).to_bytes(4, "big"))
        broker = Broker()
        running.extend([broker, Listener(broker), Bridge(broker, more, box, registers, protocol)])
        return service, broker, *running[-2:]
    yield begin
    for each in running[::-1]:
        each.process.kill()
        each.process.wait()


@pytest.mark.sanitized
def test_values_and_states(plant):
    service, broker, heard, bridge = plant('[[tell]]\ndeadband = 0.25\nmost_s = 1\nregisters = ["l*", "m*", "far"]\n')
    level = wait_for(lambda: (m := heard.last("value/level")).get("state") == "ok" and m, "a value")
    assert level["value"] == 21.5 and level["unit"] == "m" and 0 <= level["age_ms"] < 5000
    assert re.fullmatch(r"20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", level["time"])
    wait_for(lambda: heard.last("value/label").get("value") == '\ufffd"ä\n\\z', "a text, whatever the PLC holds")
    wait_for(lambda: heard.last("value/far").get("value") == [-7, 8], "several elements")
    assert heard.last("value/mode")["value"] == "off" and heard.last("value/mode")["number"] == 0
    assert heard.last("state")["state"] == "online" and heard.last("port/com_1")["state"] == "online"
    # A small change is told when it is time, a large one at once.
    count = len(heard.of("value/level"))
    service.sim.set(LEVEL, word(216))
    wait_for(lambda: heard.last("value/level")["value"] == 21.6, "the refresh")
    service.sim.set(LEVEL, word(250))
    wait_for(lambda: heard.last("value/level")["value"] == 25, "the change")
    assert len(heard.of("value/level")) > count
    service.sim.fail(service.sim.TIMEOUT, station=2)
    late = wait_for(lambda: (m := heard.last("value/far"))["state"] == "time-out" and m, "the time-out")
    assert late["value"] == [-7, 8] and heard.last("value/level")["state"] == "ok"
    service.stop()
    wait_for(lambda: heard.last("value/level")["state"] == "no service", "the end of the service")
    wait_for(lambda: heard.last("port/com_1")["state"] == "offline", "the end of the port")
    age = heard.last("value/level")["age_ms"]
    wait_for(lambda: heard.last("value/level")["age_ms"] > age + 900, "a value that ages")
    assert "upstream    connected to 127.0.0.1:" in voqctl("status", "--wait", 0).stdout
    bridge.kill()
    wait_for(lambda: heard.last("state")["state"] == "offline", "the will")
    bridge.start()
    wait_for(lambda: heard.last("state")["state"] == "online", "the bridge")
    bridge.stop()


def test_writes(plant):
    service, broker, heard, bridge = plant('[[tell]]\nregisters = ["level", "mode", "far"]\nwrites = true\n[[tell]]\n')
    wait_for(lambda: heard.last("value/label").get("state") == "ok", "a value")

    def ask(name, text, *more):
        count = len(heard.of(f"value/{name}/result"))
        broker.publish(f"voq/box/value/{name}/set", text, *more)
        return wait_for(lambda: heard.of(f"value/{name}/result")[count:], f"an answer to {name} {text}")[0]

    written = ask("level", '{"value": 30.5, "id": 7}')
    assert written["written"] and written["text"] == "written" and written["id"] == "7"
    assert service.sim.value(LEVEL) == word(305)
    assert ask("mode", "on")["written"] and service.sim.value(MODE) == word(1)
    assert ask("far", "[1, -2]")["written"] and service.sim.value(FAR)[4:] == b"\xff\xff\xff\xfe"
    wait_for(lambda: heard.last("value/far")["value"] == [1, -2], "what was written")
    for name, text, why in (("level", "100.1", "maximum of 100"), ("mode", "2", "none of off (0), on (1)"),
                            ("far", "1", "2"), ("label", "x", "writes = true"), ("nothing", "1", "no such register"),
                            ("level", '{"valu": 1}', '"value" is missing'), ("level", "[[1]]", "a value is"),
                            ("level", "[" * 4000, "[[")):
        answer = ask(name, text)
        assert not answer["written"] and why in answer["text"], (name, text, answer)
    writes = service.sim.writes
    assert "retained" in ask("level", "1", "-r")["text"]
    service.sim.fail(service.sim.TIMEOUT, command=service.sim.WRONE)
    assert "does not answer" in ask("mode", "off")["text"]
    service.sim.fail(0)
    # What was kept, and what was sent while nobody listened, is not carried out.
    bridge.stop()
    assert heard.last("state")["state"] == "offline"
    broker.publish("voq/box/value/level/set", "2")
    bridge.start()
    wait_for(lambda: heard.last("state")["state"] == "online", "the bridge")
    assert ask("mode", "off")["written"] and service.sim.value(LEVEL) == word(305)
    assert writes < service.sim.writes < writes + 10


@pytest.mark.parametrize("victim", ["broker", "bridge"])
def test_nothing_is_lost(plant, victim):
    service, broker, heard, bridge = plant('[[tell]]\nregisters = ["level", "mode"]\n',
                                           protocol="5" if victim == "broker" else "3.1.1")
    wait_for(lambda: heard.last("value/level").get("state") == "ok", "a value")
    broker.kill()
    wait_for(lambda: bridge.state()["state"] == "away", "the end of the connection")
    for number in range(300, 340):
        service.sim.set(LEVEL, word(number))
        wait_for(lambda: service.value(LEVEL) == word(number), "a reading")
    changed = int(time.time())
    wait_for(lambda: int(bridge.state()["updated"]) > changed + 1 and bridge.state()["spool_memory"] == "0", "the spool's file")
    spooled = int(bridge.state()["spooled"])
    assert spooled >= 2
    if victim == "bridge":
        bridge.kill()
    broker.start()
    if victim == "bridge":
        bridge.start()
    wait_for(lambda: heard.last("value/level").get("value") == 33.9, "the present")
    wait_for(lambda: heard.last("history/level").get("value") == 33.9, "the last of what was kept")
    kept = [m for m in heard.of("history/level") if m["state"] == "ok"]
    values, times = [m["value"] for m in kept], [m["time"] for m in kept]
    assert len([m for m in heard.messages if "/history/" in m[0]]) >= spooled and times == sorted(times) and values == sorted(values)
    wait_for(lambda: bridge.state().get("spooled") == "0", "an empty spool")


def test_tls(plant):
    subprocess.run(["sh", "-ec", """cd /w; echo topic readwrite "#" >acl; new="-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
        for ca in ca other; do openssl req -x509 $new -days 2 -subj /CN=$ca -keyout $ca.key -out $ca.pem; done
        for name in localhost box; do openssl req $new -subj /CN=$name -keyout $name.key -out $name.csr
            openssl x509 -req -days 2 -in $name.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out $name.pem; done"""], check=True)
    (service, broker, heard, bridge), tls = plant(), free_port()
    wait_for(lambda: heard.last("value/level").get("state") == "ok", "a value")
    broker.kill()
    broker.more = (f"acl_file {WORK}/acl\nlistener {tls} localhost\ncafile {WORK}/ca.pem\ncertfile {WORK}/localhost.pem\n"
                   f"keyfile {WORK}/localhost.key\nrequire_certificate true\n")
    broker.start()
    own = f'certificate = "{WORK}/box.pem"\nkey = "{WORK}/box.key"\n'
    for host, more, why in (('"\nhots = "x', own, 'mqtt.toml:3: unknown key "hots"'),
                            ('x"\nuser = "u"\npassword_file = "/dev/null', own, "/dev/null: the first line is empty"),
                            ("localhost", 'ca = "/etc"\n', "mqtt.toml:6: ca: /etc: Is a directory"),
                            ("localhost", own + '[[tell]]\nregisters = ["*", "n*"]\n', 'mqtt.toml:9: "n*" fits no register'),
                            ("localhost", f'ca = "{WORK}/other.pem"\n', "is `ca` the authority of the broker's certificate?"),
                            ("localhost", own, "set `ca` to the authority of the broker's certificate"),
                            ("127.0.0.1", f'ca = "{WORK}/ca.pem"\n' + own, "is `host` the name that stands in it?"),
                            ("localhost", f'ca = "{WORK}/ca.pem"\n', "certificate"),
                            ("localhost", f'ca = "{WORK}/ca.pem"\n' + own, "connected to localhost")):
        bridge.kill()
        (WORK / "bridge.log").write_text("")
        (WORK / "mqtt.toml").write_text(f'[broker]\nhost = "{host}"\nport = {tls}\nretry_s = 1\n[broker.tls]\n{more}'
                                        f'[box]\nname = "box"\n[spool]\nfile = "{WORK}/spool"\n')
        bridge.start()
        wait_for(lambda: why in (WORK / "bridge.log").read_text(), why)
    service.sim.set(LEVEL, word(333))
    wait_for(lambda: heard.last("value/level").get("value") == 33.3, "a value through TLS")
    broker.kill()
    (WORK / "acl").write_text("topic read #\n")
    broker.start()
    wait_for(lambda: int(bridge.state()["messages_refused"]) > 2, "messages that the broker refuses")
    assert (WORK / "bridge.log").read_text().count("the broker refuses") == 1


@pytest.fixture
def definition():
    """The messages of Sparkplug, by another implementation of their encoding."""
    shutil.copy("/co/upstream/mqtt/sparkplug.proto", WORK)
    subprocess.run(["protoc", f"-I{WORK}", f"--python_out={WORK}", WORK / "sparkplug.proto"], check=True)
    sys.path.insert(0, str(WORK))
    return importlib.import_module("sparkplug_pb2")


heard_of_node = []  # all messages of the edge node, for another decoder


def test_sparkplug(plant, definition):
    service, broker, heard, bridge = plant('[[tell]]\nregisters = ["level", "far"]\nwrites = true\n[[tell]]\n',
                                           'convention = "sparkplug"\ngroup = "plant"\nprimary_host = "scada"\n')

    def of(kind, device=None, since=0):
        topic = f"spBv1.0/plant/{kind}/box" + (f"/{device}" if device else "")
        return [definition.Payload.FromString(payload) for at, _, _, payload in list(heard.messages)[since:] if at == topic]

    def host(online, time):
        broker.publish("spBv1.0/STATE/scada", json.dumps({"online": online, "timestamp": time}), "-r")

    def order(kind, device, since=None, **fields):
        payload = definition.Payload(timestamp=len(heard.messages) if since is None else since)
        payload.metrics.add(**fields)
        (WORK / "payload").write_bytes(payload.SerializeToString())
        topic = f"spBv1.0/plant/{kind}/box" + (f"/{device}" if device else "")
        subprocess.run(["mosquitto_pub", "-p", str(broker.port), "-q", "1", "-t", topic, "-f", WORK / "payload"], check=True)

    # Nothing before the primary host is online; then births, of which every register is a metric.
    wait_for(lambda: bridge.state().get("state") == "held-up", "the wait for the host")
    wait_for(lambda: service.value(LEVEL) == word(215), "a reading")
    assert not [m for m in heard.messages if "BIRTH" in m[0]]
    host(True, 1000)
    node = wait_for(lambda: of("NBIRTH"), "the birth of the node")[0]
    bd, rebirth, port = node.metrics
    assert (bd.name, bd.datatype, rebirth.name, rebirth.datatype, rebirth.boolean_value) == \
        ("bdSeq", 4, "Node Control/Rebirth", 11, False) and not rebirth.HasField("alias") and node.seq == 0
    assert (port.name, port.string_value) == ("Ports/com_1", "ok")
    wait_for(lambda: of("DBIRTH", "com_1_s2"), "the births")
    births = {m.name: m for device in ("com_1_s1", "com_1_s2") for p in of("DBIRTH", device)[-1:] for m in p.metrics}
    wait_for(lambda: of("DDATA", "com_1_s1") or births["level"].double_value == 21.5, "a value")
    assert {n: m.datatype for n, m in births.items()} == {"level": 10, "mode": 6, "label": 12, "far": 24}
    assert len({m.alias for m in births.values()} | {port.alias}) == 5
    keys = dict(zip(births["level"].properties.keys, births["level"].properties.values))
    assert keys["engUnit"].string_value == "m" and keys["engHigh"].double_value == 100 and keys["Quality"].type == 3
    # Changes by alias alone; an order by alias or name, carried out once.
    service.sim.set(LEVEL, word(300))
    level = births["level"].alias

    def told(alias, device="com_1_s1"):
        return [m for p in of("DDATA", device) for m in p.metrics if m.alias == alias]
    data = wait_for(lambda: [m for m in told(level) if m.double_value == 30], "the change")[0]
    assert not data.name and not data.HasField("datatype") and data.timestamp and not data.is_historical
    order("DCMD", "com_1_s1", since=7, alias=level, double_value=40.5)
    wait_for(lambda: service.sim.value(LEVEL) == word(405), "the write")
    service.sim.set(LEVEL, word(1))
    order("DCMD", "com_1_s1", since=7, alias=level, double_value=40.5)
    order("DCMD", "com_1_s2", name="far", bytes_value=struct.pack("<2i", -3, 4))
    wait_for(lambda: service.sim.value(FAR)[:4] == b"\xff\xff\xff\xfd", "the list")
    assert service.sim.value(LEVEL) == word(1)
    wait_for(lambda: any(m.bytes_value == struct.pack("<2i", -3, 4) for m in told(births["far"].alias, "com_1_s2")), "its echo")
    count = len(told(births["mode"].alias))
    order("DCMD", "com_1_s1", alias=births["mode"].alias, int_value=1)
    wait_for(lambda: len(told(births["mode"].alias)) > count, "what is still so")
    assert service.sim.value(MODE) == word(0)
    # A rebirth is all births, and the same connection.
    since = len(heard.messages)
    order("NCMD", None, name="Node Control/Rebirth", boolean_value=True)
    again = wait_for(lambda: of("NBIRTH", since=since), "the rebirth")[0]
    assert again.seq == 0 and again.metrics[0].long_value == bd.long_value
    wait_for(lambda: of("DBIRTH", "com_1_s2", since), "the rebirth of the last device")
    # A station that fails dies and is born again.
    service.sim.fail(service.sim.TIMEOUT, station=2)
    wait_for(lambda: of("DDEATH", "com_1_s2"), "the death of a device")
    service.sim.fail(0)
    since = len(heard.messages)
    wait_for(lambda: of("DBIRTH", "com_1_s2", since), "its birth")
    # The host goes: the node dies and waits; what changed meanwhile is history. An older word of the host counts for nothing.
    host(False, 999)
    host(False, 2000)
    death = wait_for(lambda: of("NDEATH"), "the death of the node")[0]
    assert death.metrics[0].long_value == bd.long_value and not death.HasField("seq")
    wait_for(lambda: bridge.state()["state"] == "held-up" and bridge.state()["connections"] == "2", "the new connection")
    assert len(of("NDEATH")) == 2  # and as its will, which MQTT 5 has the broker publish at such a goodbye
    service.sim.set(LEVEL, word(777))
    wait_for(lambda: int(bridge.state()["spooled"]) > 0, "the spool")
    since = len(heard.messages)
    host(True, 3000)
    node = wait_for(lambda: of("NBIRTH", since=since), "the next birth")[0]
    assert node.metrics[0].long_value > bd.long_value
    wait_for(lambda: any(m.is_historical and m.double_value == 77.7 for m in told(level)), "the history")
    count = len(of("NDEATH"))
    bridge.kill()
    wait_for(lambda: len(of("NDEATH")) > count, "the will")
    assert of("NDEATH")[-1].metrics[0].long_value == node.metrics[0].long_value
    # Every message counts, and none is kept.
    ours = [m for m in heard.messages if re.match("spBv1.0/plant/[ND](BIRTH|DATA|DEATH)/", m[0])]
    expected = 0
    for topic, retained, qos, payload in ours:
        message = definition.Payload.FromString(payload)
        assert not retained and qos == ("NDEATH" in topic) and message.timestamp
        if "NDEATH" in topic:
            continue
        expected = 0 if "NBIRTH" in topic else expected
        assert message.seq == expected, (topic, message)
        expected = (expected + 1) % 256
    heard_of_node.extend(ours)


def test_sparkplug_as_another_decoder_reads_it(definition):
    if not heard_of_node or not (BUILD / "decoder/node_modules").exists():
        pytest.skip("npm's sparkplug-payload is not there, scripts/test-mqtt installs it: decoded by protobuf alone")
    script = """const { get } = require("sparkplug-payload"), decoder = get("spBv1.0");
        for (const line of require("fs").readFileSync(0, "utf8").trim().split("\\n"))
            console.log(JSON.stringify(decoder.decodePayload(Buffer.from(line, "hex")),
                        (key, value) => value && value.unsigned !== undefined ? value.high * 2 ** 32 + value.low : value));"""
    node = subprocess.run(["node", "-e", script], input="\n".join(m[3].hex() for m in heard_of_node), capture_output=True, text=True,
                          check=True, env={"PATH": "/usr/bin:/bin", "NODE_PATH": str(BUILD / "decoder/node_modules")})
    for (topic, _, _, payload), line in zip(heard_of_node, node.stdout.splitlines(), strict=True):
        decoded, message = json.loads(line), definition.Payload.FromString(payload)
        assert len(decoded["metrics"]) == len(message.metrics) and ("NDEATH" in topic or decoded["seq"] == message.seq)
        for theirs, metric in zip(decoded["metrics"], message.metrics):
            assert theirs.get("name", "") == metric.name and theirs.get("isHistorical", False) == metric.is_historical
            if metric.name in ("level", "mode", "label") and not metric.is_null:
                field = {"level": "double_value", "mode": "int_value", "label": "string_value"}[metric.name]
                assert theirs["value"] == getattr(metric, field)
