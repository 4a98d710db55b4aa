"""Figures of the server for docs/serve.md: viewers, CPU, delay, images. Not a test. KOV_TOOLS=build/release/tools python3 figures.py

In rounds, since a shared machine changes: each holds every figure and what it is to be compared with. The medians count."""
import json
import os
import re
import socket
import statistics
import subprocess
import sys
import threading
import time

from bench import Server
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

SECONDS = 8


def cpu_seconds(pid):
    fields = open(f"/proc/{pid}/stat", encoding="ascii").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def server_pid(parent):
    out = subprocess.run(["pgrep", "-P", str(parent)], capture_output=True, text=True, check=False).stdout.split()
    return int(out[0]) if out else parent


def viewers(s, count, pid, camera):
    """Frames a second of each, cores, and median ms from the frame's end to the client's JPEG."""
    frames, delays, stop = [0] * count, [], time.time() + SECONDS

    def look(i):
        last = 0
        while time.time() < stop:
            r, _ = s.request("GET", f"/api/cameras/{camera}/picture.jpg?after={last}&out=1280")
            if r.status == 200:
                last = int(r.headers["X-Frame"])
                frames[i] += 1
                delays.append(time.time() * 1000 - float(r.headers["X-Frame-End"]))

    before = cpu_seconds(pid)
    threads = [threading.Thread(target=look, args=(i,)) for i in range(count)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return sum(frames) / count / SECONDS, (cpu_seconds(pid) - before) / SECONDS, statistics.median(delays)


def browser(s, camera):
    """Pictures a second on the canvas of headless Chromium, and median ms from the frame's end until it shows one."""
    o = Options()
    for a in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1500,950"):
        o.add_argument(a)
    b = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=o)
    try:
        b.get(f"http://127.0.0.1:{s.port}/#camera={camera}")
        s.wait(lambda: b.execute_script("return frame.number > 20"), "the page shows pictures")
        b.execute_script("""window.delays = []; const plain = draw; let last = frame.number;
                            window.draw = () => { plain(); if (frame.number === last) return; last = frame.number;
                                                  const end = frame.end; requestAnimationFrame(() => delays.push(Date.now() - end)); };""")
        time.sleep(SECONDS)
        delays = b.execute_script("return delays")
    finally:
        b.quit()
    return len(delays) / SECONDS, statistics.median(delays)


def alone():
    """Frames a second of the same camera without a server."""
    tools = os.environ["KOV_TOOLS"]
    out = subprocess.run([f"{tools}/kovsim", "run", "--camera", "QuartzCol", "--seed", "3", "--", f"{tools}/kovcam", "--json", "bench", "-t", f"{SECONDS // 4}s"],
                         capture_output=True, text=True, check=True).stdout
    return next(f["fps"] for f in json.loads(out) if f["format"] == "rgb24")


def loopback(size):
    """MB/s of a plain socket on this machine."""
    listener = socket.create_server(("127.0.0.1", 0))

    def send():
        c, _ = listener.accept()
        c.sendall(bytes(size))
        c.close()

    t = threading.Thread(target=send)
    t.start()
    c = socket.create_connection(listener.getsockname())
    began = time.time()
    got = 0
    while block := c.recv(1 << 20):
        got += len(block)
    took = time.time() - began
    t.join()
    return got / took / 1e6


def image(s, camera):
    """MB/s of a full frame through ImageBytes, and of a plain socket."""
    ours, plain = [], []
    for _ in range(5):
        began = time.time()
        _, data = s.request("GET", f"/api/v1/camera/{camera}/imagearray", headers={"Accept": "application/imagebytes"})
        ours.append(len(data) / (time.time() - began) / 1e6)
        plain.append(loopback(len(data)))
    return statistics.median(ours), statistics.median(plain)


def main():
    s = Server("QuartzCol,KyaniteCol_C", "--seed", "3")
    pid = server_pid(s.process.pid)
    quartz = next(c["index"] for c in s.json("/api/cameras") if re.search("Quartz", c["name"]))
    kyanite = 1 - quartz
    s.set("connected", kyanite, Connected="true")
    s.set("startexposure", kyanite, Duration=0.01, Light="true")
    s.wait(lambda: s.get("imageready", kyanite), "the image is ready")
    rounds = []
    for _ in range(int(sys.argv[1]) if len(sys.argv) > 1 else 3):
        row = {"kovcam bench": (alone(),)}
        for count in (1, 4, 16):
            row[f"{count} viewers"] = viewers(s, count, pid, quartz)
        row["browser"] = browser(s, quartz)
        row["ImageBytes, socket"] = image(s, kyanite)
        row["load"] = os.getloadavg()[:1]
        rounds.append(row)
        print(row, flush=True)
    for name in rounds[0]:
        print(name, *(f"{statistics.median(v):.2f}" for v in zip(*(r[name] for r in rounds))))
    s.close()


if __name__ == "__main__":
    main()
