"""The servers that are compared, and how to measure them."""
import os
import pathlib
import re
import shutil
import socket
import statistics
import subprocess
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
        listen 127.0.0.1:{port} {ssl};
        {settings}
        {access}
        location /Files/ {{ alias {files}/; }}
    }}
}}
"""


PASSWORD = 'auth_basic "bench"; auth_basic_user_file {root}/users;'
CERTIFICATES = """
        ssl_certificate {keys}/server.pem;
        ssl_certificate_key {keys}/server_key.pem;
        ssl_client_certificate {keys}/authority.pem;
        ssl_verify_client on;
        ssl_protocols TLSv1.3;
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Nginx:
    """nginx with `settings` in its server section; with a folder `keys`, TLS with certificates on both sides."""

    def __init__(self, root, files, settings, keys=None):
        root.mkdir()
        self.keys = keys
        self.port = free_port()
        (root / "users").write_text("bench:{PLAIN}bench-password\n")
        (root / "nginx.conf").write_text(NGINX_CONFIG.format(
            root=root, port=self.port, files=files, settings=settings, ssl="ssl" if keys else "",
            access=CERTIFICATES.format(keys=keys) if keys else PASSWORD.format(root=root),
            user="user root;" if os.geteuid() == 0 else ""))
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
    """The HTTP module alone, with `settings` as its ini file; `keys`: in a tree with keys, those in that folder."""

    def __init__(self, binaries, root, files, settings="", keys=False):
        (root / "config").mkdir(parents=True)
        (root / "config" / "HttpProtocol.ini").write_text(settings)
        command = [binaries / "bench_http_server", root, files] + ["keys"] * keys
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.keys = root / "keys" if keys else None
        self.port = int(self.process.stdout.readline())

    def memory_kib(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", status).group(1))

    def stop(self):
        self.process.stdin.close()
        self.process.wait()


def cpu_seconds(pid):
    """User and system time of a process and its children in seconds, from /proc."""
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


def compare(title, rounds, peers, measure, unit):
    """Calls measure(peer) in interleaved rounds, every other one in reverse order; a larger result is better. "ours" is
    compared with the fastest peer whose name begins with "nginx" and does not contain "cache"."""
    results = {name: [] for name in peers}
    cpu = {name: 0.0 for name in peers}
    for turn in range(rounds):
        for name, peer in list(peers.items())[::-1 if turn % 2 else 1]:
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
    print(f"  ratio ours / faster nginx: {ours / best:.2f}; load average {os.getloadavg()[0]:.1f}", flush=True)
