"""The page in a real browser, and the figures in a real Prometheus. Nothing here waits for a time to pass: wait_for looks
again until its condition holds."""
import json
import re
import signal
import socket
import subprocess
import urllib.error
import urllib.request

import pytest
from browser import Browser
from house import TREE, House, free_port, wait_for

TOKEN = "a token of sixteen letters"
VALUE = "return [...document.querySelectorAll('tr')].find(r => r.querySelector('.open')?.textContent === arguments[0])" \
        "?.querySelector('td.' + arguments[1])?.textContent"
OPEN = "[...document.querySelectorAll('.open')].find(b => b.textContent === arguments[0]).click()"
ENTER, ESCAPE, DOWN = "\ue007", "\ue00c", "\ue015"


@pytest.fixture(scope="module")
def house(tmp_path_factory):
    token = tmp_path_factory.mktemp("token") / "token"
    token.write_text(TOKEN + "\n")
    house = House(web=("--writes", "--token-file", token))
    yield house
    house.stop()


@pytest.fixture(scope="module")
def browser(house):
    browser = Browser()
    browser.open(house.url())
    yield browser
    browser.close()


@pytest.fixture(autouse=True)
def nothing_refused(browser):
    """The page keeps to its own content policy and throws nothing."""
    browser.problems()
    yield
    assert not [line for line in browser.problems() if "Failed to load resource" not in line and "net::ERR_" not in line]


def cell(browser, name, column="value"):
    return browser.script(VALUE, name, column)


def rows(browser):
    return browser.script("return [...document.querySelectorAll('.open')].map(b => b.textContent)")


def choose(browser, **values):
    browser.script("for (const [id, value] of Object.entries(arguments[0])) { const e = document.getElementById(id);"
                   "e.value = value; e.dispatchEvent(new Event('input', { bubbles: true })); }", values)


def banner(browser):
    return browser.script("const b = document.getElementById('banner'); return b.hidden ? '' : b.innerText")


def test_values_move(browser):
    wait_for(lambda: len(rows(browser)) == 60, "the ranges of the description")
    wait_for(lambda: cell(browser, "boiler.runtime", "state") == "ok", "a value")
    first = cell(browser, "boiler.runtime")
    wait_for(lambda: cell(browser, "boiler.runtime") != first, "a value that moves")
    assert cell(browser, "boiler.label") == "Boiler house 2" and cell(browser, "boiler.status") == "flame|pump|valve"
    assert re.fullmatch(r"\d\d\.\d", cell(browser, "boiler.flow_temp")) and cell(browser, "boiler.flow_temp", "unit") == "°C"
    assert browser.text("#connection") == "live" and banner(browser) == ""
    wait_for(lambda: cell(browser, "boiler.mode", "period").endswith(" s"), "the period of what is read every two seconds")


def test_filter_sort_and_keys(browser):
    browser.press("/")
    browser.type("#find", "pump3.")
    wait_for(lambda: len(rows(browser)) == 8, "the ranges of one pump")
    assert browser.text("#count") == "8 of 60 ranges" and all(name.startswith("pump3.") for name in rows(browser))
    browser.script("document.querySelector('.open').focus()")
    browser.press(DOWN)
    second = rows(browser)[1]
    assert browser.script("return document.activeElement.textContent") == second
    browser.press(ENTER)
    wait_for(lambda: browser.text("#title") == second, "the range that the keyboard opened")
    browser.press(ESCAPE)
    wait_for(lambda: browser.script("return document.activeElement.textContent") == second, "the focus back")
    choose(browser, find="", filter="subscribed")
    wait_for(lambda: len(rows(browser)) == 53 and "pump1.reset" not in rows(browser), "what is subscribed")
    choose(browser, filter="all", sort="name")
    names = wait_for(lambda: (found := rows(browser)) and len(found) == 60 and found, "all ranges")
    assert names == sorted(names) and browser.script("return document.querySelector('th').ariaSort") == "ascending"
    browser.click("#reverse")
    wait_for(lambda: rows(browser) == names[::-1], "the other way round")
    browser.click("th button")
    browser.click("#reverse")
    choose(browser, sort="range", station="tcp_1 1")
    wait_for(lambda: (found := rows(browser)) and all(name.startswith("boiler.") for name in found), "one station")
    choose(browser, station="")


def test_curve_and_polling(browser):
    browser.script(OPEN, "boiler.flow_temp")
    path = "return document.querySelector('#curve path')?.getAttribute('d') ?? ''"
    wait_for(lambda: browser.script(path).count("L") > 3, "a curve of several seconds")
    assert re.match(r"Ten minutes: lowest \d+.*, highest \d+.* °C", browser.text("#summary"))
    said = wait_for(lambda: (text := browser.text("#explanation")) and "read every" in text and text, "the explanation")
    assert "Travels in read" in said and "In that read: " in said and "boiler.return_temp" in said
    assert "p1:s1:a3:s16@0*1" in browser.text("#facts")
    browser.click("#close")


def test_write(browser, house):
    browser.script(OPEN, "boiler.setpoint")
    for value, token, said in (("99", TOKEN, "85"), ("55.5", "wrong", "token"), ("55.5", TOKEN, "written")):
        choose(browser, values="", token="")
        browser.type("#values", value)
        browser.type("#token", token)
        browser.click("#write button")
        wait_for(lambda: said in browser.text("#written"), said)
    assert house.plc.written[1, 3, 101] == 555
    wait_for(lambda: cell(browser, "boiler.setpoint") == "55.5", "the value that was written")
    assert {key for key in house.plc.written} == {(1, 3, 101)}
    browser.click("#close")


def test_refused_range(browser, house):
    house.plc.refused.add(3)
    wait_for(lambda: cell(browser, "boiler.fumes_temp", "state") == "refused", "the refused range", 40)
    assert cell(browser, "boiler.flow_temp", "state") == "ok"
    browser.script(OPEN, "boiler.fumes_temp")
    wait_for(lambda: "Refused by the device since" in browser.text("#explanation"), "its explanation")
    browser.click("#close")
    assert 'voq_refused_ranges{port="tcp_1"} 1' in house.get("/metrics")


def test_dead_station(browser, house):
    house.plc.dead.add(2)
    wait_for(lambda: "station pumps does not answer" in banner(browser), "the banner of a dead station", 40)
    wait_for(lambda: cell(browser, "pump1.speed", "state") == "time-out", "its ranges")
    choose(browser, filter="failing")
    wait_for(lambda: "pump1.speed" in rows(browser) and "boiler.flow_temp" not in rows(browser), "a list of what is not ok")
    choose(browser, filter="all")
    assert "dead" in browser.text(".stations") and 'voq_station_dead{port="tcp_1",station="2"} 1' in house.get("/metrics")
    house.plc.dead.clear()
    wait_for(lambda: banner(browser) == "", "the station back", 60)


def test_service_and_server_come_back(browser, house):
    house.end("voq", signal.SIGKILL)
    wait_for(lambda: "no service runs" in banner(browser), "the banner without a service")
    house.start_service()
    wait_for(lambda: banner(browser) == "" and cell(browser, "boiler.runtime", "state") == "ok", "the service back")
    before = cell(browser, "boiler.runtime")
    wait_for(lambda: cell(browser, "boiler.runtime") != before, "values that move again")
    house.end("web", signal.SIGKILL)
    wait_for(lambda: "does not answer" in banner(browser) and browser.text("#connection") == "no connection", "the banner")
    house.start_web()
    wait_for(lambda: browser.text("#connection") == "live", "the page's server back")
    before = cell(browser, "boiler.runtime")
    wait_for(lambda: cell(browser, "boiler.runtime") != before and len(rows(browser)) == 60, "values that move again")


def test_hung_service(browser, house):
    house.processes["voq"].send_signal(signal.SIGSTOP)
    try:
        wait_for(lambda: "hangs" in browser.text(".port") and "stands still" in banner(browser), "a loop that stands still", 60)
        assert 'voq_loop_hung{port="tcp_1"} 1' in house.get("/metrics")
        assert browser.script("return document.querySelectorAll('tr.stale').length") == 60
    finally:
        house.processes["voq"].send_signal(signal.SIGCONT)
    wait_for(lambda: banner(browser) == "", "a loop that goes on")


def test_idle_connection(house):
    """Whoever sends half a request is not waited for."""
    with socket.create_connection(("127.0.0.1", house.port), timeout=40) as half:
        half.sendall(b"GET / HT")
        assert b"200" not in half.recv(4096)


def test_phone(browser):
    browser.size(390, 844)
    try:
        wide = "return document.documentElement.scrollWidth"
        assert browser.script(wide) <= 390 and cell(browser, "boiler.flow_temp")
        browser.script(OPEN, "boiler.flow_temp")
        assert browser.script(wide) <= 390
        assert browser.script("return document.getElementById('detail').getBoundingClientRect().width") == 390
        browser.click("#close")
    finally:
        browser.size(1200, 900)


def test_names_for_a_reader(browser):
    """Everything that can be used has a name, as the browser tells a screen reader."""
    nodes = browser.call("POST", "/goog/cdp/execute", {"cmd": "Accessibility.getFullAXTree", "params": {}})["nodes"]
    used = [n for n in nodes if n.get("role", {}).get("value") in ("button", "searchbox", "combobox", "table", "textbox")]
    assert len(used) > 60 and all(n["name"]["value"] for n in used if not n.get("ignored"))


def test_prometheus(house, tmp_path):
    """Scrapes, and lets an alert of the package fire: after a moment, not after minutes."""
    alerts = re.sub(r"for: \w+", "for: 0s", (TREE / "packaging/web/voq-alerts.yml").read_text())
    (tmp_path / "alerts.yml").write_text(alerts)
    (tmp_path / "prometheus.yml").write_text(json.dumps({
        "global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": ["alerts.yml"],
        "scrape_configs": [{"job_name": "voq", "static_configs": [{"targets": [f"127.0.0.1:{house.port}"]}]}]}))
    checked = subprocess.run(["promtool", "check", "metrics"], input=house.get("/metrics"), capture_output=True, text=True)
    assert checked.returncode == 0 and not checked.stdout + checked.stderr
    port = free_port()
    command = ["prometheus", f"--config.file={tmp_path}/prometheus.yml", f"--storage.tsdb.path={tmp_path}/data",
               f"--web.listen-address=127.0.0.1:{port}"]
    with (tmp_path / "log").open("wb") as log:
        prometheus = subprocess.Popen(command, stdout=log, stderr=log)
    house.plc.dead.add(2)
    try:
        def firing():
            try:
                with urllib.request.urlopen(f"http://127.0.0.1:{port}/api/v1/alerts", timeout=5) as answer:
                    alerts = json.load(answer)["data"]["alerts"]
            except OSError:
                return None
            return {a["labels"]["alertname"] for a in alerts if a["state"] == "firing"}
        wait_for(lambda: "VoqStationDead" in (firing() or ()), "the alert of a dead station", 60)
        house.plc.dead.clear()
        wait_for(lambda: "VoqStationDead" not in (firing() or {"VoqStationDead"}), "its end", 60)
    finally:
        house.plc.dead.clear()
        prometheus.terminate()
        prometheus.wait()
