"""A headless Chromium, driven through chromedriver by the WebDriver protocol."""
import base64
import json
import socket
import subprocess
import time
import urllib.error
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"


class Browser:
    def __init__(self, width=1200, height=900, dark=False):
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            port = s.getsockname()[1]
        self.driver = subprocess.Popen(["chromedriver", f"--port={port}"], stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
        self.base = f"http://127.0.0.1:{port}"
        # A container has neither a sandbox for it nor much shared memory.
        arguments = ["--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu", "--hide-scrollbars",
                     "--force-device-scale-factor=1", "--lang=en"]
        if dark:
            arguments.append("--blink-settings=preferredColorScheme=0")
        wanted = {"capabilities": {"alwaysMatch": {"browserName": "chrome", "goog:chromeOptions": {"args": arguments},
                                                   "goog:loggingPrefs": {"browser": "ALL"}}}}
        end = time.monotonic() + 30
        while True:
            try:
                self.base += "/session/" + self.call("POST", "/session", wanted)["sessionId"]
                break
            except OSError:
                assert time.monotonic() < end, "chromedriver does not answer"
                time.sleep(0.1)
        self.size(width, height)

    def call(self, method, path, body=None):
        data = None if method == "GET" else json.dumps(body or {}).encode()
        request = urllib.request.Request(self.base + path, data, {"Content-Type": "application/json"}, method=method)
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise AssertionError(error.read().decode()[:500]) from None

    def size(self, width, height):
        self.call("POST", "/goog/cdp/execute", {"cmd": "Emulation.setDeviceMetricsOverride", "params": {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600}})

    def open(self, url):
        self.call("POST", "/url", {"url": url})

    def script(self, code, *arguments):
        return self.call("POST", "/execute/sync", {"script": code, "args": list(arguments)})

    def find(self, selector):
        return self.call("POST", "/element", {"using": "css selector", "value": selector})[ELEMENT]

    def type(self, selector, text):
        self.call("POST", f"/element/{self.find(selector)}/value", {"text": text})

    def press(self, key):
        self.call("POST", "/actions", {"actions": [{"type": "key", "id": "keys", "actions": [
            {"type": "keyDown", "value": key}, {"type": "keyUp", "value": key}]}]})

    def click(self, selector):
        self.call("POST", f"/element/{self.find(selector)}/click")

    def text(self, selector):
        return self.script("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def problems(self):
        """What the browser complains of: refused scripts and styles, errors of the page."""
        return [entry["message"] for entry in self.call("POST", "/se/log", {"type": "browser"})]

    def picture(self, path):
        path.write_bytes(base64.b64decode(self.call("GET", "/screenshot")))

    def close(self):
        try:
            self.call("DELETE", "")
        finally:
            self.driver.terminate()
            self.driver.wait()
