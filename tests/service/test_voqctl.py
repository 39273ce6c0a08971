"""voqctl's one-shot requests and prepared sets against the real service."""
import fcntl
import os
import pathlib
import random
import shutil
import signal
import struct
import subprocess
import time

import pytest
from test_operator import database
from voqtest import PROJECT, SLOW, USER, WRITE, Key, com_info, frame, on_port, program, project, voqctl, wait_for

WORD = 0x331  # 16-bit integers high byte first, 32-bit values and floats high word first too
NAMES = {"u16": "H", "s16": "h", "u32": "I", "s32": "i", "float": "f", "double": "d"}
LAYOUTS = {"H": 0x22, "h": 0x22, "I": 0x24, "i": 0x24, "f": 0x24, "d": 0x28}


@pytest.fixture
def start(start):
    """Starts the service and waits until it reads the FIFO that voqctl writes into."""
    def begin_reading(*arguments, **options):
        service = start(*arguments, **options)
        if (service / "mekfifo").exists():
            service.send(b"", "mek")
        return service

    return begin_reading


def ordered(word=WORD, **options):
    return com_info(word=word, **options)


def image(kind, word, *values):
    """The bytes of numbers in the order that the word says for their class: code 1 swaps the bytes of each word, code 2
    the words, code 3 both."""
    code = {"H": word, "I": word >> 4, "F": word >> 8, "D": 0}[kind.upper()] & 3
    raw = b""
    for value in values:
        words = [struct.pack(f"<{kind}", value)[i: i + 2] for i in range(0, struct.calcsize(kind), 2)]
        words = words[::-1] if code & 2 else words
        raw += b"".join(word[::-1] if code in (1, 3) else word for word in words)
    return raw


def ctl(command, *arguments, word=WORD, status=0):
    done = voqctl(command, "--byte-order", word, *arguments)
    assert done.returncode == status, (command, arguments, done)
    return (done.stdout if status == 0 else done.stderr).strip()


def begin(command, *arguments):
    """The same without waiting for its end."""
    return subprocess.Popen(on_port(command, *arguments), stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def left_over(service):
    return [p.name for p in (service / "").iterdir() if p.name.isdigit() or p.name.startswith("rtData")]


@pytest.mark.sanitized
@pytest.mark.parametrize("word", [0, WORD, 0x112, 0x223])
def test_reads_and_writes(start, word):
    service = start(ordered(word))
    for kind, values in (("u16", (0, 65535, 0x1234)), ("s16", (-2, 32767)), ("u32", (0x12345678, 9)), ("s32", (-70000,)),
                         ("float", (-0.15625, 1e20)), ("double", (3.0000000000000004, -1e-300))):
        code = NAMES[kind]
        key, what = Key(40, len(values), layout=LAYOUTS[code]), f"s1:a1:{kind}@40*{len(values)}"
        assert ctl("write", what, *values, word=word) == "written"
        assert service.sim.value(key) == image(code, word, *values)
        shown = map(float if code in "fd" else int, ctl("read", what, word=word).split())
        assert image(code, word, *shown) == image(code, word, *values)
    assert ctl("write", "s1:a1:bit@7*3", 1, 0, 1, word=word) == "written"
    assert service.sim.value(Key(7, 3, layout=0)) == b"\1\0\1" and ctl("read", "s1:a1:bit@7*3", word=word) == "1 0 1"
    ctl("write", "s1:a1:u32@60,bcd", "12345678", word=word)
    assert service.sim.value(Key(60, layout=0x24)) == image("I", word, 0x12345678)
    assert ctl("read", "s1:a1:u32@60,bcd", word=word) == "12345678"
    raw = "s1:a1:raw:3@70,unit=1"
    ctl("write", raw, "0a0b0c", word=word)
    assert service.sim.value(Key(70, 1, layout=0x13)) == b"\n\v\f" and ctl("read", raw, word=word) == "0a0b0c"
    for what, value, raw in (("u16@40,big_endian", 0x0102, b"\1\2"), ("raw:3@40,big_endian", "0a0b0c", b"\n\v\f"),
                             ("double@40,big_endian", 1.5, b"\x3f\xf8" + bytes(6))):
        ctl("write", "s1:a1:" + what, value, word=word)
        assert service.sim.value(Key(40, layout=0x20 + len(raw))) == raw
        assert ctl("read", "s1:a1:" + what, word=word) == str(value)
    service.sim.set(Key(40), image("H", word, 0x49C0))  # a nibble beyond 9 does not come back
    assert ctl("read", "s1:a1:u16@40,bcd", word=word) == "0x49c0(no bcd)"
    assert left_over(service) == []


CHANGES = [  # type and options, value before, arguments, value behind, answer; what the service makes of it is tested there
    ("u16", 90, "add 20 --max 100 --min 7 --wrap", 7, "changed"), ("u16", 65530, "add 10", 65535, "changed"),
    ("u16", 99, "add 9 --max 100 --bounce --reversed", 90, "changed; next: --reversed"),
    ("s16", -3, "sub 10 --min -8", -8, "changed"), ("s32", -70000, "sub 1", -70001, "changed"),
    ("u32", 4294967295, "add 1 --wrap", 0, "changed"), ("double", 0.5, "sub 0.25 --min -1", 0.25, "changed"),
    ("float", 1.5, "add 1 --max 2 --bounce", 2.0, "changed; next: --reversed"),
    ("u16,bcd", 0x0099, "add 1 --max 9999", 0x0100, "changed"), ("u16,bcd", 0x0909, "digit-up 3", 0x0009, "changed"),
    ("u16", 10, "digit-down 1", 19, "changed"), ("u16", 0x1234, "and 0xff00", 0x1200, "changed"),
    ("s16", 0x1234, "or 0x8001", 0x9235 - 65536, "changed"), ("u32", 0x12345678, "xor 0xff", 0x12345687, "changed"),
    ("s32", 0, "not", -1, "changed"), ("u32", 0xffffffff, "toggle 3", 0xfffffff7, "changed"),
    ("u32", 0, "set 17", 0x20000, "changed"), ("u16", 0xffff, "clear 2", 0xfffb, "changed"),
    ("u16", 0xabcd, "field 4 4 0x1", 0xab1d, "changed"), ("u32", 0xffffffff, "field 16 16 0x1234", 0x1234ffff, "changed"),
    ("u32", 0, "field 0 32 0x12345678", 0x12345678, "changed"),
]


@pytest.mark.sanitized
@pytest.mark.parametrize("word", [0, WORD])
def test_changes(start, word):
    service = start(ordered(word))
    for what, before, arguments, behind, answer in CHANGES:
        code = NAMES[what.split(",")[0]]
        key = Key(80, 3, layout=LAYOUTS[code])
        service.sim.set(key, image(code, word, before, before, before))
        kind, _, options = what.partition(",")
        register = f"s1:a1:{kind}@80,{options}".rstrip(",")
        assert ctl("change", register, *arguments.split(), word=word) == answer, (what, arguments)
        assert service.sim.value(key) == image(code, word, behind, before, before), (what, arguments)
    words = Key(80, 3)
    service.sim.set(words, image("H", word, 0x1111, 0x2222, 0x3333))
    ctl("change", "s1:a1:u16@80*3", "xor", "0xf0f0", word=word)  # one mask for every element
    ctl("change", "s1:a1:u16@80*3", "toggle", 16 + 9, word=word)  # a bit of the second
    assert service.sim.value(words) == image("H", word, 0xe1e1, 0xd0d2, 0xc3c3)
    ctl("change", "s1:a1:u16@80*3", "field", 16 + 8, 8 if word else 24, 0x55 if word else 0x777755, word=word)
    assert service.sim.value(words) == image("H", word, 0xe1e1, 0x55d2, 0xc3c3 if word else 0x7777)
    bits = Key(3, 4, layout=0)
    service.sim.set(bits, b"\1\0\1\0")
    ctl("change", "s1:a1:bit@3*4", "not", word=word)
    ctl("change", "s1:a1:bit@3*4", "toggle", 2, word=word)
    assert service.sim.value(bits) == b"\0\1\1\1"
    assert left_over(service) == []


def test_pulse(start):
    service, key, before = start(ordered(pause=1)), Key(5), image("H", WORD, 0xf0f)
    service.sim.set(key, before)
    began = time.monotonic()
    process = begin("pulse", "--byte-order", WORD, "s1:a1:u16@5", "--bit", 9, "--ms", 400, "--value", 0)
    wait_for(lambda: service.sim.value(key) == image("H", WORD, 0xd0f), "the pulse")
    assert process.communicate()[0] == b"pulsed\n" and time.monotonic() - began >= 0.4
    assert service.sim.value(key) == before and left_over(service) == []


def test_refused_before_anything_is_sent(start):
    service = start(ordered(), [Key(0, 1)])
    wait_for(service.sim.quiet, "the first reads")
    logged = service.sim.logged
    one, two = "s1:a1:u16@1", "s1:a1:u16@1*2"
    for arguments, text in (
            (("write", one, 65536), "65536 does not fit u16: 0 to 65535"),
            (("write", "s1:a1:s16@1", -32769), "does not fit s16"),
            (("write", one + ",bcd", 10000), "0 to 9999"),
            (("write", "s1:a1:float@1", "1e39"), "1e39 does not fit float"),
            (("write", two, 1), "the range has 2 element(s), 1 value(s) are given"),
            (("write", one, "1.5"), "not an integer"),
            (("write", "s1:a1:bit@1", 2), "0 to 1"), (("write", "s1:a1:raw:2@1", "abc"), "4 hexadecimal digits"),
            (("change", one, "add", 1, "--min", 5, "--max", 4), "minimum is above"),
            (("change", "s1:a1:s16@1", "add", -1), "negative"),
            (("change", one, "add", 1, "--max", 70000), "70000 does not fit"),
            (("change", one, "add"), "1 operand(s), not 0"), (("change", two, "sub", 1), "takes one element"),
            (("change", one, "toggle", 16), "not within 0 to 15"),
            (("change", one, "or", 1, "--wrap"), "for add and sub"),
            (("change", "s1:a1:float@1", "or", 1), "no bits"), (("change", one, "digit-up", 6), "1 to 5"),
            (("change", one, "halve"), "none of add, sub"), (("change", one, "field", 4, 8, 1), "no single run"),
            (("change", one, "field", 0, 4, 16), "does not fit 4 bits"),
            (("change", "s1:a1:double@1,big_endian", "add", 1), "byte-order word"),
            (("pulse", "s1:a1:bit@1", "--ms", 150), "steps of 100"), (("pulse", one, "--ms", 100), "which bit"),
            (("watch", one, "s1:a1:u16@0x1"), "are the same range"),
            (("read", "counter"), "no expression"), (("read", "p2:" + one), "of port 2")):
        assert text in ctl(*arguments, status=2), arguments
    assert "the limit is 4096" in ctl("write", "s1:a1:u16@1*2040", *range(2040), status=1)
    assert "written" == ctl("write", "--only-writer", "s1:a1:u16@1*2040", *range(2040)) and left_over(service) == []
    calls = service.sim.calls(logged)
    assert {c.command for c in calls} == {service.sim.WRONE} and {c.addr for c in calls} == set(range(1, 2041, 64))


def test_where_the_byte_order_comes_from(start):
    """The service's own word; --byte-order and the project go before it, and differing from it is said. Without any of
    them no number of several bytes is sent; what needs no word is."""
    service, one, described = start(ordered()), "s1:a1:u16@1", USER / "one.toml"
    wait_for(service.sim.quiet, "the first reads")
    described.write_text('[[port]]\nlink = "serial"\nnumber = 1\n')
    for what, arguments, value in ((one, (), b"\0\1"), (one, ("--byte-order", 0), b"\1\0"), (one, ("--project", described), b"\1\0"),
                                   (one + ",big_endian", (), b"\0\1"), ("s1:a1:raw:2@1", (), b"\0\1")):
        service.sim.set(Key(1), b"\7\7")
        done = voqctl("write", *arguments, what, "0001")
        assert done.stdout == "written\n" and service.sim.value(Key(1)) == value, what
        assert ("the service goes by another byte-order word" in done.stderr) == bool(arguments), done
    assert (done := voqctl("read", one)).stdout == "1\n" and done.stderr == ""
    service.stop()
    for arguments in (("write", one, 5), ("write", "s1:a1:double@1", 5), ("change", one, "add", 1),
                      ("pulse", one, "--bit", 0, "--ms", 100)):
        done = voqctl(*arguments)
        assert (done.returncode, done.stdout) == (2, "") and "give --project or --byte-order" in done.stderr, done
    assert voqctl("write", "s1:a1:bit@1", 1).returncode == 7
    assert "values are shown lowest byte first" in voqctl("dump").stderr


def test_control_characters_do_not_reach_the_terminal():
    foreign = USER / "foreign\x1b[2J.toml"
    foreign.write_text('[[port]]\nlink = "grüß\\u001b[31m\\u009b\\n"\nnumber = 1\n')
    described = r'foreign\x1b[2J.toml:2: link: "grüß\x1b[31m\xc2\x9b\x0a" is none of'
    for command, text in ((("project", "build", foreign, "-o", USER / "x"), described),
                          (("status", "--dir", USER, "--project", foreign), described),
                          (("status", "--dir", USER, "more\x1b"), r"more\x1b")):
        done = subprocess.run(program("voqctl", *command), capture_output=True, text=True)
        assert done.returncode != 0 and text in done.stderr and done.stderr.replace("\n", "").isprintable(), done.stderr


def test_watch(start):
    service = start(ordered(pause=1), [Key(0, 2), Key(0, 1)])
    wait_for(lambda: all(n.state == 1 for n in service.chain()), "first values")
    os.truncate(service / "im1_1_22_0", 12)  # the rest is found along the chain
    service.sim.set(Key(0, 2), b"\1\2\3\4")
    done = voqctl("watch", "--interval", 10, "--count", 2, "s1:a1:u16@0*2", "s1:a1:u16@0", "s1:a1:u16@50,priority=1")
    assert done.returncode == 0, done
    lines = [line.split("\t")[1:] for line in done.stdout.splitlines()]
    assert ["s1:a1:u16@0*2", "ok", "258 772"] in [line[:2] + line[3:] for line in lines]
    names = {f"s1:a1:u16@{text}" for text in ("0*2", "0", "50,priority=1")}
    assert lines[-1][1] == "ok" and {line[0] for line in lines} == names
    wait_for(lambda: service.subscribed() == 0, "log-off")
    service.sim.fail(service.sim.ERROR)
    done = voqctl("watch", "--interval", 10, "--for", 0.3, "s1:a1:u16@0")
    assert done.returncode == 1 and "\terror\t" in done.stdout
    with open(service / "org", "r+b") as org:  # readers wait for the service
        fcntl.lockf(org, fcntl.LOCK_EX)
        reader = begin("dump")
        wait_for(lambda: pathlib.Path("/proc/locks").read_text().count("-> OFDLCK ADVISORY  READ "), "a reader")
    assert b"state 3 " in reader.communicate()[0] and reader.returncode == 0


def test_watch_goes_on_with_the_next_service(start):
    service = start(ordered(pause=1), [Key(0, 1)])
    watch = begin("watch", "--interval", 10, "--for", 60 * SLOW, "s1:a1:u16@0")
    wait_for(lambda: service.subscribed() == 1, "the first log-on")
    service.stop()
    assert any(b"\tno service\t" in line for line in watch.stdout)
    service = start(ordered(pause=1))
    wait_for(lambda: service.subscribed() == 1, "the second log-on")
    service.sim.set(Key(0, 1), b"\0\7")  # read since, unlike what is kept of the first one
    assert any(line.endswith(b"\t7\n") for line in watch.stdout)
    watch.send_signal(signal.SIGINT)
    watch.communicate()
    wait_for(lambda: service.subscribed() == 0, "log-off")
    assert watch.returncode == 0


def test_which_port_and_where_its_counter_is(start):
    """Two ports; the counter of the first one moves, nobody reads the second one's FIFOs."""
    start()
    toml = USER / "two.toml"
    toml.write_text('[[port]]\nlink = "serial"\nnumber = 1\n[[port]]\nlink = "ethernet"\nnumber = 2\n')
    (USER / "tcp_2").mkdir()
    for name in ("guififo", "mekfifo"):
        os.mkfifo(USER / "tcp_2" / name)

    def status(*arguments):
        done = subprocess.run(program("voqctl", "status", "--dir", USER, *arguments), capture_output=True, text=True)
        return done.returncode, (done.stdout.splitlines() or done.stderr.splitlines())[-1]

    described = ("--wait", 1, "--project", toml)
    assert status(*described, "--port", 2) == status(*described, "--index", 1) == (1, "service     not running")
    assert status("--port", 2)[0] == 1 and status("--port", 2)[1].endswith("is the counter that of --index 0?")
    assert status("--port", 2, "--index", 0) == (0, "service     running")  # whoever says so knows
    for arguments, text in ((("--port", 2, "--index", 0), "has ethernet port 2 at index 1"),
                            (("--port", 1), "has no ethernet port 1"), (("--link", "serial"), "--link goes with"),
                            (("--index", 2), "has 2 port(s)"), (("--wait", "nan"), "nan is no number")):
        code, error = status(*described, *arguments)
        assert code == 2 and error.startswith("voqctl: ") and text in error, error

    # Output that cannot be written.
    PROJECT.write_bytes(project([com_info()], [Key(n) for n in range(1000)]))  # several buffers of text
    full, (reader, left) = os.open("/dev/full", os.O_WRONLY), os.pipe()
    os.close(reader)
    for output, command, code, said in (
            (full, ("status", "--dir", USER, "--port", 2, "--index", 0), 2, "No space left on device\n"),
            (full, ("project", "show", PROJECT), 1, "not all was written\n"),
            (left, ("project", "show", PROJECT), 0, "")):  # who left wanted no more
        done = subprocess.run(program("voqctl", *command), stdout=output, stderr=subprocess.PIPE, text=True)
        assert (done.returncode, done.stderr) == (code, said and "voqctl: standard output: " + said)
    os.close(full), os.close(left)


def test_failures_and_late_answers(start):
    """Each failure has its sentence and status; an answer that comes too late is removed all the same."""
    service = start(ordered())
    sim, what = service.sim, "s1:a1:u16@1"
    sim.fail(sim.ERROR)
    assert ctl("read", what, status=4) == f"voqctl: {what}: communication error"
    assert "communication error" in ctl("change", what, "not", status=4)
    sim.fail(0)
    ctl("read", what)  # ends the state in which requests are refused
    sim.fail(sim.HANG)
    assert "no answer within 300 ms; the service may still carry" in ctl("read", "--timeout", 0.3, what, status=6)
    wait_for(lambda: sim.hanging, "the driver in the read")
    process = begin("write", "--byte-order", 0, what, 9)
    wait_for(lambda: any(name.startswith("rtData") for name in left_over(service)), "a listed write")
    process.send_signal(signal.SIGINT)
    assert b"interrupted" in process.communicate(timeout=20 * SLOW)[1] and process.returncode == 128 + signal.SIGINT
    sim.fail(0)
    wait_for(lambda: sim.value(Key(1)) == b"\x09\0", "the write carried out")
    wait_for(lambda: left_over(service) == [], "no file left")
    wait_for(sim.quiet, "the end of the first read's attempts")

    sim.fail(sim.HANG)
    one = "--first-number", 700, "--last-number", 700
    process = begin("read", *one, what)
    wait_for(lambda: sim.hanging, "the driver in the read")
    answer = Key(0).pack() + struct.pack("<HBB4xHHI", 3, 1, 1, 700, 0, 0)
    (service / "new").write_bytes(answer)
    (service / "new").rename(service / "700")
    assert b"that of another client" in process.communicate()[1] and process.returncode == 1
    sim.fail(0)
    wait_for(lambda: (service / "700").exists(), "the answer itself")
    assert "no request number from 700 to 700 is free" in ctl("read", *one, what, status=1)
    (service / "700").unlink()

    sim.fail(sim.TIMEOUT)
    assert ctl("read", what, status=3) == f"voqctl: {what}: time-out: the PLC does not answer"
    sim.fail(sim.HANG)
    service.send(b"".join(frame(WRITE, Key(i), 100 + i, payload=b"\0\0") for i in range(3)))
    wait_for(lambda: len(left_over(service)) == 3, "three listed requests")
    assert "refused: the port is in time-out" in ctl("read", what, status=5)
    sim.fail(0)
    wait_for(lambda: sorted(left_over(service)) == ["100", "101", "102"], "the other client's answers")
    sim.fail(sim.HANG)
    ctl("read", "--timeout", 0.1, *one, what, status=6)
    (service / "700").write_bytes(bytes(12))  # cut short: goes when the service is gone
    service.stop()
    wait_for(lambda: not (service / "700").exists(), "nothing left")
    assert "service not running" in ctl("read", what, status=7)
    (service / "guififo").unlink()
    (service / "guififo").write_bytes(b"")
    assert "not a FIFO" in ctl("read", "--fifo", "gui", what, status=1)


def test_prepared_set(start):
    rng = random.Random(5)
    keys = [Key(rng.randrange(60), rng.randrange(4), rng.randrange(3), rng.choice((0x00, 0x22, 0x14)), rng.randrange(2),
                rng.choice((0, 1, 0x70001)), rng.choice((0, 0x200, 0x10000)), rng.choice((1, 1, 1, 2)),
                rng.choice((0, 0, 5, 0x10000))) for _ in range(400)] + [Key(0, 40000), Key(61, 2)]
    service = start(ordered(mode=1), keys, driver=None)  # a slave does not poll: the set stays as it was built
    download = pathlib.Path("/home/Bin/map/com_1")
    download.parent.mkdir(parents=True)
    prepare = program("voqctl", "project", "prepare", PROJECT, "--port-index")
    done = subprocess.run([*prepare, "0", "-o", download], capture_output=True, text=True)
    assert done.returncode == 0 and "left out, as the service does: p1:s1:a1:u16@0*40000" in done.stderr
    assert subprocess.run([*prepare, "0", "-o", download], capture_output=True).returncode == 1  # not over what is there
    assert subprocess.run([*prepare, "1", "-o", "/w/x"], capture_output=True).returncode == 1
    assert not pathlib.Path("/w/x").exists()
    files = database(download)
    assert len(files) > 20 and files == database(service.dir)
    org = (download / "org").read_bytes()
    assert all(abs(struct.unpack_from("<i", org, o + 24)[0] - time.time()) < 60 for o in range(12, len(org), 56))
    service.stop()

    def compare(status):
        done = subprocess.run(program("voqctl", "compare", download, USER / "com_1"), capture_output=True, text=True)
        assert done.returncode == status, done
        return done.stdout

    assert compare(0) == ""
    shutil.rmtree(USER / "com_1")
    compare(2)
    PROJECT.write_bytes(project([com_info()]))
    service = start()  # takes the prepared set over and polls it
    assert service.count("download orgfile find") == 1
    wait_for(lambda: all(n.state == 1 for n in service.chain()), "first values")
    assert compare(0) == "" and voqctl("check").returncode == 0
    service.stop()
    some_map = next(name for name in files if name.startswith("im"))
    for name, place, said in (("org", 12 + 44, "org 12: dataoffset 0 / 1\n"), ("org", 12 + 16, "org 12: range p1:"),
                              ("index", 12, "index 0: entry "), (some_map, 8, some_map + " 0: entry ")):
        whole = (service / name).read_bytes()
        (service / name).write_bytes(whole[:place] + bytes([whole[place] ^ 1]) + whole[place + 1:])
        assert compare(1).startswith(said) and compare(1).count("\n") == 1
        (service / name).write_bytes(whole)
    (service / some_map).unlink()
    os.truncate(service / "data", 10)
    assert compare(1).count("\n") == 2 and voqctl("check", "--quiet").returncode == 1
    os.truncate(service / "org", (64 << 20) + 1)
    assert "67108865 bytes" in voqctl("check").stderr
