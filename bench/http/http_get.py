#!/usr/bin/env python3
"""Downloads beside nginx: http_get.py BIN [--rounds N] [--folder DIR]

BIN is the folder of bench_http_server and bench_http_load. Rounds of both servers are interleaved; medians
and the ratio ours/nginx are printed. Ours checks a SHA-256 digest in every request, nginx basic credentials.
"""
import argparse
import os
import pathlib
import re
import shutil
import socket
import statistics
import subprocess
import tempfile
import time

NGINX_CONFIG = """
worker_processes 2;
daemon off;
pid {root}/nginx.pid;
error_log {root}/error.log;
{user}
events {{ worker_connections 4096; }}
http {{
    access_log off;
    default_type application/octet-stream;
    sendfile on;
    keepalive_requests 100000000;
    client_body_temp_path {root}/t1; proxy_temp_path {root}/t2; fastcgi_temp_path {root}/t3;
    uwsgi_temp_path {root}/t4; scgi_temp_path {root}/t5;
    server {{
        listen 127.0.0.1:{port};
        tcp_nopush {nopush};
        {cache}
        auth_basic "bench";
        auth_basic_user_file {root}/users;
        location /Files/ {{ alias {files}/; }}
    }}
}}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Nginx:
    def __init__(self, root, files, nopush, cache):
        root.mkdir()
        self.port = free_port()
        (root / "users").write_text("bench:{PLAIN}bench-password\n")
        (root / "nginx.conf").write_text(NGINX_CONFIG.format(
            root=root, port=self.port, files=files, nopush="on" if nopush else "off",
            user="user root;" if os.geteuid() == 0 else "",
            cache="open_file_cache max=2000;" if cache else ""))
        nginx = shutil.which("nginx") or "/usr/sbin/nginx"
        self.process = subprocess.Popen([nginx, "-c", str(root / "nginx.conf"), "-p", str(root)],
                                        stderr=subprocess.DEVNULL)
        for _ in range(100):
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", self.port)) == 0:
                    return
            time.sleep(0.05)
        raise SystemExit("nginx does not start")

    def stop(self):
        self.process.terminate()
        self.process.wait()


class Ours:
    def __init__(self, binaries, root, files):
        root.mkdir()
        self.process = subprocess.Popen([binaries / "bench_http_server", root, files], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline())

    def memory_kib(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", status).group(1))

    def stop(self):
        self.process.stdin.close()
        self.process.wait()


def cpu_seconds(pid):
    """User and system time of a process and its children, from /proc."""
    total = 0
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            fields = pathlib.Path(f"/proc/{name}/stat").read_text().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if int(name) == pid or int(fields[1]) == pid:
            total += int(fields[11]) + int(fields[12])
    return total / os.sysconf("SC_CLK_TCK")


def load(binaries, port, credentials, connections, requests, method, target, names=1):
    text = subprocess.check_output([binaries / "bench_http_load", str(port), credentials, str(connections),
                                    str(requests), method, target, str(names)], text=True)
    count, seconds, size = text.split()
    return int(count) / float(seconds), int(size) / float(seconds)


def compare(title, rounds, peers, measure, unit):
    results = {name: [] for name in peers}
    cpu = {name: 0.0 for name in peers}
    for _ in range(rounds):
        for name, peer in peers.items():
            before = cpu_seconds(peer.process.pid)
            results[name].append(measure(peer))
            cpu[name] += cpu_seconds(peer.process.pid) - before
    medians = {name: statistics.median(values) for name, values in results.items()}
    ours = medians["ours"]
    best = max(value for name, value in medians.items() if name.startswith("nginx") and "cache" not in name)
    print(f"\n{title} ({unit}, median of {rounds}; all rounds in brackets)")
    for name, values in results.items():
        listed = ", ".join(f"{value:.4g}" for value in values)
        print(f"  {name:24} {medians[name]:10.4g}   ours/this {ours / medians[name]:.2f}   "
              f"server CPU {cpu[name]:.2f} s   [{listed}]")
    print(f"  ratio ours / faster nginx: {ours / best:.2f}", flush=True)


def idle_memory(binaries, ours, connections):
    at_rest = ours.memory_kib()
    holder = subprocess.Popen([binaries / "bench_http_load", str(ours.port), "digest", str(connections), "0", "IDLE",
                               "/Files/small/0"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    holder.stdout.readline()
    held = ours.memory_kib()
    holder.stdin.close()
    holder.wait()
    print(f"\nVmRSS: {at_rest} KiB before, {held} KiB with {connections} idle connections "
          f"({(held - at_rest) * 1024 / connections:.0f} bytes each)")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("binaries", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--requests", type=int, default=40000, help="small files a round")
    parser.add_argument("--only-small", action="store_true")
    parser.add_argument("--folder", default=None, help="where the test files are made")
    options = parser.parse_args()
    binaries = options.binaries
    with tempfile.TemporaryDirectory(dir=options.folder) as folder:
        root = pathlib.Path(folder)
        files = root / "files"
        (files / "small").mkdir(parents=True)
        block = os.urandom(1 << 20)
        with open(files / "large", "wb") as large:
            for _ in range(1024):
                large.write(block)
        for i in range(1000):
            (files / "small" / str(i)).write_bytes(block[i:i + 4096])
        ours = Ours(binaries, root / "ours", files)
        servers = {
            "ours": ours,
            "nginx tcp_nopush off": Nginx(root / "nginx1", files, False, False),
            "nginx tcp_nopush on": Nginx(root / "nginx2", files, True, False),
            "nginx open_file_cache": Nginx(root / "nginx3", files, False, True),
        }
        try:
            idle_memory(binaries, ours, 2000)

            def credentials(peer):
                return "digest" if peer is ours else "basic"
            for connections in () if options.only_small else (1, 4):
                compare(f"GET 1 GiB, {connections} connection(s)", options.rounds, servers, lambda peer: load(
                    binaries, peer.port, credentials(peer), connections, connections, "GET", "/Files/large")[1] / 1e9,
                    "GB/s")
            compare("GET 4 KiB, 32 connections, 1000 files", options.rounds, servers, lambda peer: load(
                binaries, peer.port, credentials(peer), 32, options.requests, "GET", "/Files/small/%d", 1000)[0],
                "requests/s")
            calls = [load(binaries, ours.port, "digest", 8, 20000, "POST", "/Action/HttpProtocolGetParams")[0]
                     for _ in range(options.rounds)]
            print(f"\nAction call HttpProtocolGetParams, 8 connections: {statistics.median(calls):.0f} requests/s")
        finally:
            for server in servers.values():
                server.stop()


if __name__ == "__main__":
    main()
