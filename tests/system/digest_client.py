"""HTTP requests with digest authentication from any local address, or over an agent's own socket, made by curl."""

import re
import subprocess

from tree import AGENT_NAME, PASSWORD


class DigestClient:
    """Without a source, the requests come from this machine; `local`: they go over the agent's own socket."""

    def __init__(self, agent, source=None, local=False, password=PASSWORD):
        self.base = "http://agent" if local else f"http://{agent.address}:{agent.port}"
        options = {"unix-socket": local and agent.root / "run" / "agent.sock", "interface": source,
                   "user": password and not local and f"{AGENT_NAME}:{password}"}
        self.options = {name: value for name, value in options.items() if value}

    def request(self, method, target, body=None, headers=()):
        """HTTP status, result of the action (-1: none was called) and body of the answer."""
        options = ["-X", method, "--digest", *(text for name, value in self.options.items() for text in (f"--{name}", value))]
        for header in headers:
            options += ["-H", header]
        run = subprocess.run(["curl", "-sS", "--globoff", "--path-as-is", "-w", "\n%{http_code} %header{kel-result}",
                              *options, *(["--data-binary", "@-"] if body is not None else []), self.base + target],
                             input=body, capture_output=True, check=True, timeout=30)
        content, status = run.stdout.rsplit(b"\n", 1)
        code, result = status.split(b" ")
        return int(code), int(result or -1), content

    def action(self, name, json_text):
        return self.request("POST", f"/Action/{name}", json_text.encode(),
                            ["Content-Type: application/json", "Accept: application/json"])

    def call_each(self, names):
        """Calls each action without arguments, over one connection; name -> (HTTP status, body of the answer)."""
        common = "".join(f'{name} = "{value}"\n' for name, value in self.options.items())
        config = "next\n".join(f'{common}digest\nurl = "{self.base}/Action/{name}"\ndata = "{{}}"\n'
                               'header = "Content-Type: application/json"\nheader = "Accept: application/json"\n'
                               'write-out = "\\n<%{http_code}>\\n"\n' for name in names)
        run = subprocess.run(["curl", "-sS", "-K", "-"], input=config, text=True, capture_output=True, check=True, timeout=60)
        answers = re.findall(r"(.*?)\n<(\d+)>\n", run.stdout, re.DOTALL)
        return {name: (int(status), body) for name, (body, status) in zip(names, answers, strict=True)}
