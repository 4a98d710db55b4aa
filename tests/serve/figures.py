"""Figures of the server for docs/serve.md: viewers, CPU, delay, images. Not a test. KOV_TOOLS=build/release/tools python3 figures.py"""
import os
import re
import socket
import subprocess
import threading
import time

from bench import Server

SECONDS = 8


def cpu_seconds(pid):
    fields = open(f"/proc/{pid}/stat", encoding="ascii").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def server_pid(parent):
    out = subprocess.run(["pgrep", "-P", str(parent)], capture_output=True, text=True, check=False).stdout.split()
    return int(out[0]) if out else parent


def viewers(s, count, pid, camera):
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
    delays.sort()
    print(f"{count:2} viewers: {sum(frames) / count / SECONDS:5.1f} frames/s each, {(cpu_seconds(pid) - before) / SECONDS:.2f} cores with the virtual camera, "
          f"median {delays[len(delays) // 2]:.0f} ms from the frame to the client's JPEG")


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


def main():
    s = Server("QuartzCol,KyaniteCol_C", "--seed", "3")
    pid = server_pid(s.process.pid)
    quartz = next(c["index"] for c in s.json("/api/cameras") if re.search("Quartz", c["name"]))
    for count in (1, 4, 16):
        viewers(s, count, pid, quartz)
    kyanite = 1 - quartz
    s.set("connected", kyanite, Connected="true")
    s.set("startexposure", kyanite, Duration=0.01, Light="true")
    s.wait(lambda: s.get("imageready", kyanite), "the image is ready")
    ours, plain = [], []
    for _ in range(7):
        began = time.time()
        _, data = s.request("GET", f"/api/v1/camera/{kyanite}/imagearray", headers={"Accept": "application/imagebytes"})
        ours.append(len(data) / (time.time() - began) / 1e6)
        plain.append(loopback(len(data)))
    print(f"ImageBytes of {len(data) / 1e6:.1f} MB: {sorted(ours)[3]:.0f} MB/s, a plain socket {sorted(plain)[3]:.0f} MB/s")
    s.close()


if __name__ == "__main__":
    main()
