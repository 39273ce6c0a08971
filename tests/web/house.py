"""A boiler house to look at: examples/plant.toml, a PLC whose values live, the service, a subscriber and voq-web."""
import math
import os
import pathlib
import shutil
import signal
import socket
import socketserver
import struct
import subprocess
import tempfile
import threading
import time
import urllib.request

TREE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("VOQ_BUILD", TREE / "build/release"))


def wait_for(condition, what, timeout=20):
    end = time.monotonic() + timeout
    while not (value := condition()):
        assert time.monotonic() < end, f"waited in vain for {what}"
        time.sleep(0.05)
    return value


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Plc:
    """A Modbus TCP gateway with two stations. `dead` stations do not answer, `refused` are addresses of input registers
    that no station has."""

    def __init__(self):
        self.dead, self.refused, self.start = set(), set(), time.monotonic() - 1000
        self.written = {}
        plc = self

        class Handler(socketserver.BaseRequestHandler):
            def handle(self):
                while head := plc.receive(self.request, 7):
                    number, _, length, station = struct.unpack(">HHHB", head)
                    pdu = plc.receive(self.request, length - 1)
                    if pdu and station not in plc.dead:
                        answer = plc.answer(station, pdu)
                        self.request.sendall(struct.pack(">HHHB", number, 0, len(answer) + 1, station) + answer)

        class Server(socketserver.ThreadingTCPServer):
            allow_reuse_address = daemon_threads = True

        self.server = Server(("127.0.0.1", 0), Handler)
        self.port = self.server.server_address[1]
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    @staticmethod
    def receive(connection, length):
        data = b""
        while len(data) < length:
            try:
                more = connection.recv(length - len(data))
            except OSError:
                return b""
            if not more:
                return b""
            data += more
        return data

    def answer(self, station, pdu):
        code, address, count = struct.unpack(">BHH", pdu[:5])
        if code == 4 and self.refused & set(range(address, address + count)):
            return bytes([code | 0x80, 2])
        if code in (3, 4):
            words = [self.word(station, code, at) & 0xFFFF for at in range(address, address + count)]
            return struct.pack(f">BB{count}H", code, 2 * count, *words)
        if code in (1, 2):
            bits = [self.written.get((station, code, at), at % 3 == 0) for at in range(address, address + count)]
            packed = [sum(bit << i for i, bit in enumerate(bits[at: at + 8])) for at in range(0, count, 8)]
            return bytes([code, len(packed), *packed])
        for i in range(count if code == 16 else 1):
            value = struct.unpack_from(">H", pdu, 6 + 2 * i)[0] if code == 16 else count
            self.written[station, 3 if code in (6, 16) else 1, address + i] = value
        return pdu[:5]

    def word(self, station, code, at):
        if (station, code, at) in self.written:
            return self.written[station, code, at]
        t = time.monotonic() - self.start
        slow, fast = math.sin(t / 50), math.sin(t / 7)
        heat, gas, label = struct.pack(">f", 182.4 + 30 * slow + 2 * fast), struct.pack(">f", 19.1), b"Boiler house 2  "
        if station == 1 and code == 4:
            values = {0: 682 + 55 * slow + 6 * fast, 1: 523 + 30 * slow, 2: 74, 3: 161 + 9 * slow, 4: 178 + 3 * fast,
                      5: 6, 10: struct.unpack(">H", heat[:2])[0], 11: struct.unpack(">H", heat[2:])[0],
                      12: struct.unpack(">H", gas[2:])[0], 13: struct.unpack(">H", gas[:2])[0], 14: 3, 15: 41210 + t / 10,
                      16: 4211 + t, 17: 12}
            return int(values.get(at, 650 + 40 * math.sin(at / 4) if 20 <= at < 44 else 0))
        if station == 1:
            text = struct.unpack(">8H", label)
            return {100: 1, 101: 700, 103: 7}.get(at, text[at - 130] if 130 <= at < 138 else 0)
        return {0: 1450 + int(20 * fast), 1: 1450, 2: 312 + int(9 * slow), 3: 2}.get((at - 200) % 10, 0)


class House:
    """Everything of it, in a folder of its own; stop() ends it all."""

    def __init__(self, description="examples/plant.toml", subscribe=True, edit=lambda text: text, web=()):
        self.place = pathlib.Path(tempfile.mkdtemp(prefix="voq.", dir="/tmp"))
        self.processes = {}
        self.plc = Plc()
        self.user = self.place / "user"
        for folder in ("user", "rcp", "drv/Ethernet"):
            (self.place / folder).mkdir(parents=True)
        shutil.copy(BUILD / "drivers/modbus_tcp.so", self.place / "drv/Ethernet/drv_1.so")
        text = (TREE / description).read_text().replace("15020", str(self.plc.port))
        self.toml = self.place / "house.toml"
        self.toml.write_text(edit(text))
        self.tool("project", "build", self.toml, "-o", self.place / "ophmi.bin")
        self.start_service()
        if subscribe:
            self.subscribe()
        self.port = free_port()
        self.web_arguments = web
        self.start_web()

    def run(self, name, *command):
        log = (self.place / f"{name}.log").open("ab")
        self.processes[name] = subprocess.Popen([str(part) for part in command], stdout=log, stderr=log, cwd="/")

    def tool(self, *command):
        done = subprocess.run([BUILD / "bin/voqctl", *map(str, command)], capture_output=True, text=True, timeout=60)
        assert done.returncode == 0, done

    def start_service(self):
        self.run("voq", BUILD / "bin/voq", self.place / "ophmi.bin", 0, self.place / "drv", self.user, self.place / "rcp")
        wait_for(lambda: b"GlobeWatchDogAddr" in (self.place / "voq.log").read_bytes(), "the service")

    def voqctl(self, command):
        return [BUILD / "bin/voqctl", command, "--dir", self.user, "--project", self.toml]

    def subscribe(self):
        names = [line.split('"')[1] for line in self.toml.read_text().splitlines() if "name = " in line]
        plain = [name for name in names if name.startswith("boiler.")]
        pumps = [f"pump{n}.{name}" for n in range(1, 6) for name in names if name in
                 ("speed", "speed_set", "current", "state", "power", "hours", "on")]
        self.run("watch", *self.voqctl("watch"), *plain, *pumps)

    def start_web(self):
        self.run("web", BUILD / "bin/voq-web", "--dir", self.user, "--project", self.toml, "--listen",
                 f"127.0.0.1:{self.port}", *self.web_arguments)
        wait_for(self.answers, "voq-web")

    def answers(self):
        try:
            return self.get("/api/ports")
        except OSError:
            return None

    def url(self, path="/"):
        return f"http://127.0.0.1:{self.port}{path}"

    def get(self, path):
        with urllib.request.urlopen(self.url(path), timeout=10) as answer:
            return answer.read().decode()

    def end(self, name, how=signal.SIGTERM):
        process = self.processes.pop(name)
        process.send_signal(how)
        process.send_signal(signal.SIGCONT)  # a test that failed may have left it stopped
        process.wait()

    def stop(self):
        for name in list(self.processes)[::-1]:
            self.end(name, signal.SIGINT if name == "watch" else signal.SIGTERM)
        self.plc.server.shutdown()
        shutil.rmtree(self.place)
