"""A page in headless Chromium, through its driver."""

import json
import pathlib
import socket
import subprocess
import urllib.request

FLAGS = "--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking --disable-component-update --disable-sync"


class Browser:
    """Its profile lies in `folder`, which has to exist as long as it does."""

    def __init__(self, folder):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.address = f"http://127.0.0.1:{free.getsockname()[1]}"
        port = self.address.rsplit(":", 1)[1]
        self.driver = subprocess.Popen(["chromedriver", f"--port={port}"], stdout=subprocess.PIPE, text=True)
        while "started successfully" not in (line := self.driver.stdout.readline()):
            if not line:
                raise RuntimeError("chromedriver does not start")
        options = {"args": FLAGS.split() + [f"--user-data-dir={folder}", "--window-size=1000,1400"]}
        wanted = {"goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}
        self.session = self.call("/session", {"capabilities": {"alwaysMatch": wanted}})["sessionId"]

    def call(self, path, body=None, method="POST"):
        data = json.dumps(body or {}).encode() if method == "POST" else None
        request = urllib.request.Request(self.address + path, data, {"Content-Type": "application/json"}, method=method)
        with urllib.request.urlopen(request, timeout=60) as answer:
            return json.load(answer)["value"]

    def open(self, path):
        self.call(f"/session/{self.session}/url", {"url": pathlib.Path(path).as_uri()})

    def run(self, script):
        return self.call(f"/session/{self.session}/execute/sync", {"script": "return " + script, "args": []})

    def command(self, name, **parameters):
        """One of the browser's own (DevTools) commands."""
        return self.call(f"/session/{self.session}/goog/cdp/execute", {"cmd": name, "params": parameters})

    def errors(self):
        return self.call(f"/session/{self.session}/se/log", {"type": "browser"})

    def close(self):
        self.call(f"/session/{self.session}", method="DELETE")
        self.driver.terminate()
        self.driver.communicate()
