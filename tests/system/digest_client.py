"""An HTTP client with digest authentication that can also send what no proper client would."""

import hashlib
import http.client
import os
import socket

from tree import AGENT_NAME, PASSWORD


def parse_challenge(header):
    """The parameters of a digest challenge (RFC 7616)."""
    fields = {}
    for part in header.split(" ", 1)[1].split(","):
        name, _, value = part.strip().partition("=")
        fields[name.lower()] = value.strip('"')
    return fields


class DigestClient:
    """Requests with digest authentication (SHA-256), one connection each."""

    def __init__(self, agent, user=AGENT_NAME, password=PASSWORD, source=None):
        self.agent, self.user, self.password, self.source = agent, user, password, source

    def plain(self, method, target, body=None, headers=None):
        connection = http.client.HTTPConnection(self.agent.address, self.agent.port, timeout=20,
                                                source_address=(self.source, 0) if self.source else None)
        try:
            connection.request(method, target, body, headers or {})
            answer = connection.getresponse()
            return answer.status, {name.lower(): value for name, value in answer.getheaders()}, answer.read()
        finally:
            connection.close()

    def request(self, method, target, body=None, headers=None):
        status, answer, _ = self.plain(method, target, None, {})
        assert status == 401, status
        challenges = answer["www-authenticate"]
        fields = parse_challenge(challenges)
        authorization = self.authorization(method, target, fields)
        return self.plain(method, target, body, {**(headers or {}), "Authorization": authorization})

    def authorization(self, method, target, fields):
        def digest(text):
            return hashlib.sha256(text.encode()).hexdigest()
        cnonce = os.urandom(8).hex()
        first = digest(f"{self.user}:{fields['realm']}:{self.password}")
        second = digest(f"{method}:{target}")
        response = digest(f"{first}:{fields['nonce']}:00000001:{cnonce}:auth:{second}")
        text = (f'Digest username="{self.user}", realm="{fields["realm"]}", nonce="{fields["nonce"]}", uri="{target}", '
                f'algorithm=SHA-256, qop=auth, nc=00000001, cnonce="{cnonce}", response="{response}"')
        return text + (f', opaque="{fields["opaque"]}"' if "opaque" in fields else "")

    def raw(self, method, target, fields, body=b""):
        """Sends header fields as they are and `body`, then closes the sending half. The status of the answer, None
        when there is none."""
        challenge = parse_challenge(self.plain(method, target)[1]["www-authenticate"])
        head = [f"{method} {target} HTTP/1.1", f"Host: {self.agent.address}:{self.agent.port}", "Connection: close",
                f"Authorization: {self.authorization(method, target, challenge)}", *fields, "", ""]
        with socket.create_connection((self.agent.address, self.agent.port), 20,
                                      (self.source, 0) if self.source else None) as connection:
            connection.sendall("\r\n".join(head).encode() + body)
            connection.shutdown(socket.SHUT_WR)
            answer = b""
            try:
                while block := connection.recv(65536):
                    answer += block
            except ConnectionResetError:
                pass
        return int(answer.split(b" ", 2)[1]) if answer else None

    def action(self, name, json_text):
        status, headers, body = self.request("POST", f"/Action/{name}", json_text,
                                             {"Content-Type": "application/json", "Accept": "application/json"})
        return status, int(headers.get("kel-result", -1)), body
