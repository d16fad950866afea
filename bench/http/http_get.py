#!/usr/bin/env python3
"""Downloads compared with nginx: http_get.py BIN [--rounds N] [--before BIN] [--folder DIR]

BIN is the folder of bench_http_server and bench_http_load. Rounds of all servers are interleaved; the script prints medians
and the ratio ours/nginx. With --before, another build of ours takes part. Ours checks a SHA-256 digest in every request,
nginx basic credentials. With --keys, both use TLS 1.3 with certificates on both sides instead.
"""
import argparse
import os
import pathlib
import statistics
import subprocess
import tempfile

from peers import Nginx, Ours, compare


def load(binaries, port, credentials, connections, requests, method, target, names=1):
    text = subprocess.check_output([binaries / "bench_http_load", str(port), credentials, str(connections),
                                    str(requests), method, target, str(names)], text=True)
    count, seconds, size = text.split()
    return int(count) / float(seconds), int(size) / float(seconds)


def idle_memory(binaries, ours, connections):
    at_rest = ours.memory_kib()
    holder = subprocess.Popen([binaries / "bench_http_load", str(ours.port), ours.keys or "digest", str(connections), "0", "IDLE",
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
    parser.add_argument("--requests", type=int, default=40000, help="small files per round")
    parser.add_argument("--keys", action="store_true", help="TLS with certificates on both sides")
    parser.add_argument("--only-small", action="store_true")
    parser.add_argument("--before", type=lambda text: pathlib.Path(text).resolve(),
                        help="folder of an earlier bench_http_server, which takes part")
    parser.add_argument("--folder", default=None, help="folder in which the test files are created")
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
        ours = Ours(binaries, root / "ours", files, keys=options.keys)
        servers = {
            "ours": ours,
            "nginx tcp_nopush off": Nginx(root / "nginx1", files, "tcp_nopush off;", ours.keys),
            "nginx tcp_nopush on": Nginx(root / "nginx2", files, "tcp_nopush on;", ours.keys),
            "nginx open_file_cache": Nginx(root / "nginx3", files, "open_file_cache max=2000;", ours.keys),
        }
        if options.before:
            servers["ours before"] = Ours(options.before, root / "before", files, keys=options.keys)
        try:
            idle_memory(binaries, ours, 2000)

            def credentials(peer):
                return str(peer.keys) if peer.keys else "digest" if isinstance(peer, Ours) else "basic"
            for connections in () if options.only_small else (1, 4):
                compare(f"GET 1 GiB, {connections} connection(s)", options.rounds, servers, lambda peer: load(
                    binaries, peer.port, credentials(peer), connections, connections, "GET", "/Files/large")[1] / 1e9,
                    "GB/s")
            compare("GET 4 KiB, 32 connections, 1000 files", options.rounds, servers, lambda peer: load(
                binaries, peer.port, credentials(peer), 32, options.requests, "GET", "/Files/small/%d", 1000)[0],
                "requests/s")
            if options.keys:
                compare("Full handshakes with one GET of 4 KiB, 8 connections", options.rounds, servers,
                        lambda peer: load(binaries, peer.port, credentials(peer), 8, 2000, "OPEN", "/Files/small/1")[0],
                        "handshakes/s")
            calls = [load(binaries, ours.port, credentials(ours), 8, 20000, "POST", "/Action/HttpProtocolGetParams")[0]
                     for _ in range(options.rounds)]
            print(f"\nAction call HttpProtocolGetParams, 8 connections: {statistics.median(calls):.0f} requests/s")
        finally:
            for server in servers.values():
                server.stop()


if __name__ == "__main__":
    main()
