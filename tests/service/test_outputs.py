"""What voqctl shows and takes of described values, and its rows for other programs, against the real service."""
import csv
import json
import os
import pty
import select
import signal
import subprocess
from datetime import datetime, timedelta, timezone

import pyte
import pytest
from voqtest import SLOW, USER, WORK, Key, com_info, program, programs_folder, voqctl, wait_for

DESCRIPTION = """port = [{link = "serial", number = 1, byte_order = 0x331}]
register = [
    {name = "pump1", station = 1, area = 1, type = "s16", address = 0, scale = 0.1, unit = "°C", min = -5, max = 50},
    {name = "pump2", station = 1, area = 1, type = "u16", address = 1, enum = {0 = "off", 2 = "on, slow"}},
    {name = "pumps", station = 1, area = 1, type = "u16", address = 2, count = 2},
    {name = "alarm", station = 1, area = 1, type = "u16", address = 1, bits = {1 = "hot", 3 = "dry"}},
    {name = "label", station = 1, area = 1, text = 8, address = 10},
    {name = "flow", station = 2, area = 1, type = "float", address = 20, unit = "l/min"},
]
"""
ADDRESSED = {"pump1": Key(0), "pump2": Key(1), "pumps": Key(2, 2), "label": Key(10, 4), "flow": Key(20, 2, plcno=2)}
VALUES = {"pump1": b"\0\xd7", "pump2": b"\0\2", "pumps": b"\1\0\0\7", "label": b'a"\\,\x1b\xff\0\0', "flow": b"\x41\xac\0\0"}
SHOWN = {"pump1": 21.5, "pump2": "on, slow", "pumps": [256, 7], "alarm": "hot", "label": r'a"\,\x1b\xff', "flow": 21.5}
RAW = {"pump1": 215, "pump2": 2, "pumps": [256, 7], "alarm": 2, "label": [24866, 23596, 7167, 0], "flow": 21.5}
CHANGING = "time", "age_s", "watchdog", "main_loop", "period_s", "subscribed"  # between two calls
COMMON = ["time", "name", "port", "station", "expression", "state", "age_s", "value", "unit", "raw"]


@pytest.fixture
def plc(start):
    """A service, and its PLC's registers described with what they mean."""
    service = start(com_info(word=0x331, pause=1))
    (WORK / "described.toml").write_text(DESCRIPTION)
    for name, value in VALUES.items():
        service.sim.set(ADDRESSED[name], value)
    service.send(b"", "mek")
    return service


def ctl(command, *arguments, status=0):
    done = voqctl(command, "--project", WORK / "described.toml", *arguments)
    assert done.returncode == status, (command, arguments, done)
    return done.stderr if status else done.stdout


def rows(command, *arguments, status=0):
    """The rows of --json, which are those of --csv, times and ages apart."""
    done = [voqctl(command, "--project", WORK / "described.toml", form, *arguments) for form in ("--json", "--csv")]
    assert [d.returncode for d in done] == [status, status], done
    assert all(d.stdout.replace("\n", "").isprintable() for d in done), done
    objects = [json.loads(line) for line in done[0].stdout.splitlines()]
    table = list(csv.reader(done[1].stdout.splitlines()))
    for fields, each in zip(table[1:], objects, strict=True):
        assert table[0] == list(each)
        for (name, value), field in zip(each.items(), fields, strict=True):
            texts = ["" if v is None else str(v).lower() if v is True or v is False else str(v)
                     for v in (value if isinstance(value, list) else [value])]
            assert field == " ".join(texts) or name in CHANGING, (name, value, field)
    return objects


def test_described_values(plc):
    assert ctl("read", "flow") == "21.5 l/min\n" and ctl("read", "--raw", "pump1") == "215\n"
    text = "pump1\t21.5 °C\npump2\ton, slow\npumps\t256 7\n"
    assert ctl("read", "pump*") == text
    assert ctl("read", "pump2", "pump?") == "".join(sorted(text.splitlines(True), key=lambda t: t[:5] != "pump2"))
    assert ctl("read", "--iso", "pump1")[10:11] == "T"
    everything = rows("read", "--all")
    assert [list(each) for each in everything] == [COMMON] * len(SHOWN)
    assert {each["name"]: each["value"] for each in everything} == SHOWN
    assert {each["name"]: each["raw"] for each in everything} == RAW
    flow = everything[-1]
    assert (flow["port"], flow["station"], flow["state"], flow["unit"]) == (1, 2, "ok", "l/min")
    assert abs(datetime.fromisoformat(flow["time"].replace("Z", "+00:00")) - datetime.now(timezone.utc)) < timedelta(minutes=5)
    assert rows("read", flow["expression"])[0]["value"] == 21.5

    for value, raw in ("-3.14", b"\xff\xe1"), ("50", b"\1\xf4"):
        ctl("write", "pump1", "--", value)
        assert plc.sim.value(ADDRESSED["pump1"]) == raw
    ctl("write", "--raw", "pump1", "12"), ctl("write", "pump2", "off"), ctl("write", "label", "on")
    assert [plc.sim.value(ADDRESSED[n]) for n in ("pump1", "pump2", "label")] == [b"\0\x0c", b"\0\0", b"on" + bytes(6)]
    logged = plc.sim.logged
    for arguments, said in ((("pump1", "50.1"), "50.1 is above the maximum of 50"), (("pump1", "--", "-6"), "minimum of -5"),
                            (("--raw", "pump1", "501"), "above the maximum"), (("pump2", "fast"), "none of off (0)")):
        assert said in ctl("write", *arguments, status=2)
    for arguments, said in ((("read", "valve*"), "no register of this port"), (("read",), "which register"),
                            (("read", "--orders", "s1:a1:bit@0"), "no byte order"), (("watch", "--all", "--plot"), "up to 4"),
                            (("watch", "--plot", "label"), "no number")):
        assert said in ctl(*arguments, status=2)
    assert "--all takes the registers of a --project" in voqctl("read", "--all").stderr and plc.sim.logged == logged


def test_orders(plc):
    line = ctl("read", "--orders", "flow").splitlines()
    assert line[1].split() == ["low-byte-first", "low-word-first", "swapped", "high-word-first", "*"]
    assert line[3].split()[0] == "41ac0000" and line[3].endswith("  21.5 l/min")
    by_order = rows("read", "--orders", "pump1", "flow", "label")
    assert [each["order_3"] for each in by_order[:2]] == [21.5, 21.5] and by_order[0]["order_0"] == -1049.6
    assert by_order[2]["order_1"] == r'"a,\\xff\x1b'


def test_rows_of_what_is_there(plc):
    """Subscribed under every name, one log-on a range; then what the register database and the status say of it."""
    watch = [json.loads(line) for line in ctl("watch", "--json", "--all", "--count", 1, "--interval", 20).splitlines()]
    assert [list(each) for each in watch] == [COMMON] * len(watch)
    assert {each["name"]: each["value"] for each in watch if each["state"] == "ok"} == SHOWN
    wait_for(plc.sim.quiet, "the end of polling: a range logged on twice would stay")
    dump = rows("dump")
    assert len(dump) == 5 and dump[0]["bytes"] == "00d7" and dump[0]["on_chain"] is True
    assert list(dump[0])[:10] == COMMON and {each["name"]: each["value"] for each in dump}["label"] == SHOWN["label"]
    top = rows("top", "--interval", 100)
    assert [(each["name"], each["value"]) for each in top] == [(each["name"], each["value"]) for each in dump]
    status = rows("status", "--wait", 0)[0]
    assert (status["running"], status["records"], status["ok"], status["stations_off"]) == (True, 5, 5, [])


def test_many_reads_at_once(plc):
    """All are with the service together; what a failing port then refuses for being too many is asked again."""
    sim = plc.sim
    sim.fail(sim.HANG)
    command = program("voqctl", "read", "--dir", USER, "--project", WORK / "described.toml", "--json", "--all",
                      *(f"s1:a1:u16@{100 + 3 * i}" for i in range(20)))
    master, slave = pty.openpty()
    reader = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=slave, text=True)
    os.close(slave)
    wait_for(lambda: plc.peek("rtDataFileCount") == 26, "all requests with the service")
    wait_for(lambda: select.select([master], [], [], 0)[0], "progress")
    assert b"read: ranges 0 of 26" in os.read(master, 1000)
    sim.fail(sim.ERROR, station=2)
    states = {(each := json.loads(line))["name"]: each["state"] for line in reader.communicate()[0].splitlines()}
    assert reader.returncode == 4 and states.pop("flow") == "error" and set(states.values()) == {"ok"}
    assert voqctl("read", "s2:a1:bit@0").returncode == 4
    states = [each["state"] for each in rows("read", "flow", *(f"s{1 + i % 2}:a1:bit@{9 * i}" for i in range(8)), status=4)]
    assert states == ["error"] + ["ok", "error"] * 4
    sim.fail(sim.HANG)
    said = ctl("read", "--timeout", 0.2, "pump1", "pump2", status=6)
    assert said.count("no answer within 200 ms") == 2 and "may still carry 2 requests out. Process" in said
    sim.fail(0)
    wait_for(lambda: not any(path.name.isdigit() for path in plc.dir.iterdir()), "no answer left")


def test_curves(plc):
    """Up to four values on a terminal of 80 columns."""
    screen = pyte.Screen(80, 24)
    stream = pyte.ByteStream(screen)
    master, slave = pty.openpty()
    command = program("voqctl", "watch", "--dir", USER, "--project", WORK / "described.toml", "--plot", "--interval", 20,
                      "--minutes", 0.1, "pump1", "pumps", "alarm", "flow")
    watch = subprocess.Popen(command, stdout=slave, stderr=slave, env={**os.environ, "LC_ALL": "C.UTF-8"})

    def shows(*texts):
        def found():
            while select.select([master], [], [], 0)[0]:
                stream.feed(os.read(master, 65536))
            return all(text in "\n".join(screen.display) for text in texts)
        wait_for(found, screen.display)

    shows("pump1  ", "21.5 °C", "22.5 |", "20.5 |", "21.5 l/min", "-0.1 min", "now")
    plc.sim.set(ADDRESSED["pump1"], b"\0\x64")
    shows("10.0 °C", "21.5 |", "  10 |", "⡇")
    watch.send_signal(signal.SIGINT)
    assert watch.wait(20 * SLOW) == 0 and all(len(line.rstrip()) < 80 for line in screen.display)
    os.close(slave), os.close(master)


def test_questions_and_completion(plc):
    for name in "voq", "voqctl":
        asked = subprocess.run(program(name, "--version"), capture_output=True, text=True)
        assert (asked.returncode, asked.stdout.split()[0], asked.stdout.count(".")) == (0, name, 2)
    asked = subprocess.run(program("voq", "--help"), capture_output=True, text=True)
    assert asked.returncode == 0 and asked.stdout.startswith("usage: voq PROJECT PORTINDEX DRIVERDIR USERDIR RECIPEDIR\n")
    script = ('source /co/packaging/completion/voqctl.bash; COMP_WORDS=(voqctl "$@"); COMP_CWORD=$#; _voqctl; '
              'echo "${COMPREPLY[@]}"')
    environment = {**os.environ, "PATH": f"{programs_folder()}:{os.environ['PATH']}"}
    for words, offered in ((["pro"], "project"), (["project", "na"], "names"), (["read", "--js"], "--json"),
                           (["watch", "--plo"], "--plot"), (["read", "--link", "c"], "can"), (["read", "--dir", ""], ""),
                           (["read", "--project", WORK / "described.toml", "pu"], "pump1 pump2 pumps")):
        done = subprocess.run(["bash", "-c", script, "bash", *words], capture_output=True, text=True, env=environment)
        assert done.stdout == offered + "\n", (words, done)
