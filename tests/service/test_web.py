"""voq-web's side of HTTP: what it serves, whom it refuses, what it bears. The page itself is tested in a browser."""
import contextlib
import fcntl
import http.client
import json
import re
import signal
import socket
import subprocess

import pytest
from voqtest import BUILD, USER, WORK, Key, com_info, free_port, listening, log_on, program, wait_for

TOKEN = "0123456789abcdef"
DESCRIPTION = """port = [{link = "serial", number = 1, byte_order = 0x331}]
register = [
    {name = "level", station = 1, area = 1, type = "u16", address = 5, count = 2, min = 0, max = 1000},
    {name = "label", station = 1, area = 1, type = "u16", address = 20, count = 4, text = 8},
]
"""
KEY, LABEL = Key(5, 2), Key(20, 4)


class Web:
    def __init__(self, *arguments):
        self.port = free_port()
        (WORK / "web.toml").write_text(DESCRIPTION)
        (WORK / "token").write_text(TOKEN + "\n")
        command = program("voq-web", "--dir", USER, "--project", WORK / "web.toml", "--listen", f"127.0.0.1:{self.port}",
                          *arguments)
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
        wait_for(lambda: listening(self.port), "voq-web")

    def ask(self, path, method="GET", body=None, timeout=20, **headers):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)
        connection.request(method, path, body, {name.replace("_", "-"): value for name, value in headers.items()})
        answer = connection.getresponse()
        text = answer.read().decode()
        connection.close()
        return answer.status, text, answer

    def json(self, path):
        status, text, _ = self.ask(path)
        assert status == 200, text
        return json.loads(text)

    def range(self):
        return next(iter(self.json("/api/ranges")["ranges"]), None)

    def connect(self, request):
        s = socket.create_connection(("127.0.0.1", self.port), timeout=20)
        s.sendall(request)
        return s

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(20) == 0


@pytest.fixture
def web():
    running = []

    def begin(*arguments):
        running.append(Web(*arguments))
        return running[-1]
    if not (BUILD / "bin/voq-web").exists():
        pytest.skip("built without libmicrohttpd")
    yield begin
    for each in running:
        each.stop()


def test_serves(start, web):
    service = start(com_info(pause=1))
    service.sim.set(KEY, bytes([1, 2, 3, 4]))
    server = web()
    status, page, answer = server.ask("/")
    assert status == 200 and "<script src" in page and not re.search(r"<(script|style)>| on\w+=| style=", page)
    assert "script-src 'self'" in answer.headers["Content-Security-Policy"]
    assert all(server.ask(path)[0] == 200 for path in ("/page.js", "/page.css", "/icon.svg"))
    stream = server.connect(b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n").makefile("rb")
    wait_for(lambda: b"event: hello" in stream.readline(), "the stream")
    service.send(log_on(KEY, 1))
    wait_for(lambda: b"event: list" in stream.readline(), "the new range")
    found = wait_for(lambda: (r := server.range()) and r["value"] and r["subscribed"] and r, "its value")
    assert found["name"] == "level" and found["state"] == "ok" and found["value"] == [0x0102, 0x0304]
    service.sim.set(KEY, bytes([1, 2, 3, 5]))
    changed = wait_for(lambda: (line := stream.readline()).startswith(b"data: [[") and b"[258,773]" in line and line, "the change")
    assert json.loads(changed[6:])[0][0] == found["id"]
    service.sim.set(LABEL, b'\xff"\xc3\xa4\n\\\x01z')  # a text of the PLC may be anything
    service.send(log_on(LABEL, 2))
    wait_for(lambda: [r["value"] for r in server.json("/api/ranges")["ranges"]][1:] == [['\ufffd"ä\n\\\x01z']], "the text")
    wait_for(lambda: 258 in server.json(f"/api/history?id={found['id']}")["values"], "the history")
    explained = wait_for(lambda: (e := server.json(f"/api/explain?id={found['id']}"))["subscribed"] and e, "the explanation")
    assert explained["asked"] == "every turn" and server.ask("/api/explain?id=99")[0] == 404
    ports = server.json("/api/ports")
    assert ports["ports"][0]["service"] == "runs" and not ports["writes"]
    assert ports["ports"][0]["stations"][0]["state"] == "answers"
    figures = server.ask("/metrics")[1]
    assert 'voq_up{port="com_1"} 1\n' in figures
    assert re.search(r'voq_driver_calls_total{port="com_1",command="read",result="ok"} [1-9]', figures)
    samples = [line.split("{")[0].split()[0] for line in figures.splitlines() if not line.startswith("#")]
    named = re.findall(r"^# TYPE (\w+) (\w+)$", figures, re.M)
    assert all(any(s.startswith(name) for name, _ in named) for s in samples)
    assert all(name.endswith("_total") == (kind == "counter") for name, kind in named)
    with open(service / "org", "r+b") as org:  # a lock that somebody keeps says nothing against the service
        fcntl.lockf(org, fcntl.LOCK_EX)
        port = web().json("/api/ports")["ports"][0]
        assert port["service"] == "runs" and "org: locked by process" in port["text"]
    service.stop()
    wait_for(lambda: server.json("/api/ports")["ports"][0]["service"] == "away", "the end of the service")
    assert 'voq_up{port="com_1"} 0\n' in server.ask("/metrics")[1]


def test_refuses(start, web):
    start()
    server = web("--host", "plant.example")
    for status, path, method, body, headers in (
            (200, "/", "GET", None, {"Host": "LOCALHOST:81"}), (200, "/", "HEAD", None, {"Host": "[::1]:8081"}),
            (200, "/metrics", "GET", None, {"Host": "plant.example"}),
            (200, "/", "GET", None, {"Host": "localhost:1", "Origin": "http://localhost:1"}),
            (403, "/", "GET", None, {"Host": "elsewhere.example"}), (403, "/", "GET", None, {"Host": "localhost.example"}),
            (403, "/", "GET", None, {"Host": ""}), (403, "/api/ports", "GET", None, {"Origin": "http://elsewhere.example"}),
            (403, "/api/ports", "GET", None, {"Origin": "null"}), (403, "/events", "GET", None, {"Sec_Fetch_Site": "cross-site"}),
            (404, "/../etc/passwd", "GET", None, {}), (404, "/api", "GET", None, {}), (405, "/", "POST", None, {}),
            (413, "/", "GET", "body", {}), (403, "/api/write?id=1", "POST", "1", {"Voq_Token": TOKEN})):
        assert server.ask(path, method, body, **headers)[0] == status, (path, method, headers)
    for twice in (b"Host: localhost\r\nHost: elsewhere.example", b"Host: localhost\r\nContent-Length: 0\r\ncontent-length: 9"):
        with server.connect(b"GET / HTTP/1.1\r\n" + twice + b"\r\n\r\n") as s:
            assert b" 400 " in s.recv(400), twice


def test_writes(start, web):
    service = start(com_info(pause=1))
    server = web("--writes", "--token-file", WORK / "token")
    service.send(log_on(KEY, 1))
    path = f"/api/write?id={wait_for(server.range, 'the range')['id']}"
    right = {"Voq_Token": TOKEN}
    before = service.sim.value(KEY)
    for status, where, body, headers in (
            (401, path, "1\n2", {}), (401, path, "1\n2", {"Voq_Token": TOKEN[:-1]}),
            (413, path, "1" * 4097, right), (422, path, "1", right), (422, path, "1\n1001", right), (422, path, "1\nx", right),
            (404, "/api/write?id=77", "1\n2", right), (400, "/api/write", "1\n2", right), (405, path, None, right)):
        answer = server.ask(where, "POST" if body else "GET", body, **headers)
        assert answer[0] == status, (where, body, answer)
    assert service.sim.value(KEY) == before
    assert server.ask(path, "POST", "7\n1000", **right)[:2] == (200, "written\n")
    assert service.sim.value(KEY) == bytes([0, 7, 3, 232])
    service.stop()
    assert server.ask(path, "POST", "7\n8", **right)[0] == 503


@pytest.mark.sanitized
def test_bears(start, web):
    """Requests that never end, readers that take nothing, more connections than there is room for, bytes of all kinds."""
    service = start(com_info(pause=1))
    server = web("--writes", "--token-file", WORK / "token")
    service.send(log_on(KEY, 1))
    wait_for(server.range, "the range")
    request = b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n"
    streams = [server.connect(request) for _ in range(40)]
    assert all(b"200 OK" in stream.recv(400) for stream in streams)
    with server.connect(request) as more:
        assert b" 503 " in more.recv(400)
    assert server.ask("/metrics")[0] == 200
    for stream in streams:
        stream.close()

    def gone():
        status, figures, _ = server.ask("/metrics")
        return status == 200 and "voq_web_readers 0\n" in figures
    wait_for(gone, "the end of readers that went away", 30)
    for data in (b"\0" * 4000, b"GET " + b"/" * 40000, b"GET / HTTP/1.1\r\n" + b"a: b\r\n" * 4000, b"POST /api/write?id=1 HTTP/1.1\r\n"
                 b"Host: localhost\r\nContent-Length: 99999999999999999999\r\n\r\n", bytes(range(256)) * 20):
        server.connect(data).close()
    slow = [server.connect(b"GET / HT") for _ in range(80)]

    def served():
        for s in slow:  # never idle, never done
            with contextlib.suppress(OSError):
                s.send(b"T")
        try:
            return server.ask("/", timeout=1)[0] == 200
        except (OSError, http.client.HTTPException):
            return False
    wait_for(served, "room for another connection", 30)
    for s in slow:
        s.close()
    assert server.range()["name"].startswith("level")
