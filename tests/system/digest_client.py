"""HTTP requests with digest authentication from any local address, made by curl."""

import subprocess

from tree import AGENT_NAME, PASSWORD


class DigestClient:
    def __init__(self, agent, source=None):
        self.base = f"http://{agent.address}:{agent.port}"
        self.options = ["--digest", "-u", f"{AGENT_NAME}:{PASSWORD}", *(["--interface", source] if source else [])]

    def request(self, method, target, body=None, headers=()):
        """HTTP status, result of the action (-1: none was called) and body of the answer."""
        options = ["-X", method, *self.options, *(["--data-binary", "@-"] if body is not None else [])]
        for header in headers:
            options += ["-H", header]
        run = subprocess.run(["curl", "-sS", "--globoff", "--path-as-is", "-w", "\n%{http_code} %header{kel-result}",
                              *options, self.base + target], input=body, capture_output=True, check=True, timeout=30)
        content, status = run.stdout.rsplit(b"\n", 1)
        code, result = status.split(b" ")
        return int(code), int(result or -1), content

    def action(self, name, json_text):
        return self.request("POST", f"/Action/{name}", json_text.encode(),
                            ["Content-Type: application/json", "Accept: application/json"])
