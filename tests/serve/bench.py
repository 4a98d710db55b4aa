"""kovcam serve on virtual cameras, and a client for it."""
import http.client
import json
import os
import re
import shutil
import socket
import subprocess
import tempfile
import time
import urllib.parse


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


# A cooled colour camera, its size and its largest bin: 16 megapixels, but where the machine does not keep up with them.
COOLED, WIDTH, HEIGHT, BINS = ("OnyxCol_C", 1304, 976, 3) if os.environ.get("KOV_SMALL") else ("KyaniteCol_C", 4656, 3520, 4)
PATIENCE = float(os.environ.get("KOV_PATIENCE", 1))  # a server under a sanitizer takes longer for everything


class Server:
    def __init__(self, cameras, *options, serve=()):
        self.folder = tempfile.mkdtemp(prefix="kov-serve-")
        self.discovery = free_udp_port()
        tools = os.environ["KOV_TOOLS"]
        command = [f"{tools}/kovsim", "run", "--camera", cameras, *options, "--", f"{tools}/kovcam", "serve", "--port", "0",
                   "--discovery", str(self.discovery), "--folder", self.folder, *serve]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env={**os.environ, "XDG_CONFIG_HOME": self.folder})
        line = self.process.stdout.readline()
        self.port = int(re.search(r":(\d+)/", line).group(1))
        self.wait(lambda: all(c["phase"] not in ("closed", "opening") for c in self.json("/api/cameras")), "the cameras open")

    def close(self):
        self.process.terminate()
        code = self.process.wait(30)
        with self.process.stdout as rest:
            self.told = rest.read()  # behind its first line
        shutil.rmtree(self.folder)
        assert code in (0, -15, 143), f"the server ended with {code}"

    @staticmethod
    def wait(condition, what, seconds=60):
        end = time.time() + seconds * PATIENCE
        while not condition():
            assert time.time() < end, f"in vain waited until {what}"
            time.sleep(0.05)

    def request(self, method, path, body=None, headers=None):
        c = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        c.request(method, path, body, headers or {})
        r = c.getresponse()
        data = r.read()
        c.close()
        return r, data

    def json(self, path):
        r, data = self.request("GET", path)
        assert r.status == 200, (path, r.status, data)
        return json.loads(data)

    def put(self, path, body):
        r, data = self.request("PUT", path, json.dumps(body), {"Content-Type": "application/json"})
        return r.status, data.decode()

    def alpaca(self, method, command, camera=0, **fields):
        fields = {"ClientID": "7", "ClientTransactionID": "9", **{k: str(v) for k, v in fields.items()}}
        text = urllib.parse.urlencode(fields)
        path = f"/api/v1/camera/{camera}/{command}"
        if method == "GET":
            return self.request("GET", f"{path}?{text}")
        return self.request("PUT", path, text, {"Content-Type": "application/x-www-form-urlencoded"})

    def get(self, command, camera=0):
        """Value, or -ErrorNumber."""
        r, data = self.alpaca("GET", command, camera)
        assert r.status == 200, (command, data)
        return self.result(data)

    def set(self, command, camera=0, **fields):
        r, data = self.alpaca("PUT", command, camera, **fields)
        assert r.status == 200, (command, data)
        return self.result(data)

    @staticmethod
    def result(data):
        answer = json.loads(data)
        assert answer["ClientTransactionID"] == 9 and answer["ServerTransactionID"] > 0
        assert (answer["ErrorNumber"] == 0) == (answer["ErrorMessage"] == "")
        return -answer["ErrorNumber"] if answer["ErrorNumber"] else answer.get("Value")
