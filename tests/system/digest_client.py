"""An HTTP client with digest authentication (RFC 7616, SHA-256) that can call from any local address."""

import hashlib
import http.client
import os
import re

from tree import AGENT_NAME, PASSWORD


def sha256(text):
    return hashlib.sha256(text.encode()).hexdigest()


class DigestClient:
    def __init__(self, agent, source=None):
        self.agent, self.source = agent, source

    def request(self, method, target, body=None, headers=None):
        """Status, headers and body of the answer to a request that is challenged first."""
        status, answer, _ = self.exchange(method, target, None, {})
        assert status == 401, status
        challenge = dict(re.findall(r'(\w+)="([^"]*)"', answer["www-authenticate"]))
        authorization = self.authorization(method, target, challenge)
        return self.exchange(method, target, body, {**(headers or {}), "Authorization": authorization})

    def exchange(self, method, target, body, headers):
        connection = http.client.HTTPConnection(self.agent.address, self.agent.port, timeout=20,
                                                source_address=(self.source, 0) if self.source else None)
        try:
            connection.request(method, target, body, headers)
            answer = connection.getresponse()
            return answer.status, {name.lower(): value for name, value in answer.getheaders()}, answer.read()
        finally:
            connection.close()

    def authorization(self, method, target, challenge):
        realm, nonce, cnonce = challenge["realm"], challenge["nonce"], os.urandom(8).hex()
        first, second = sha256(f"{AGENT_NAME}:{realm}:{PASSWORD}"), sha256(f"{method}:{target}")
        response = sha256(f"{first}:{nonce}:00000001:{cnonce}:auth:{second}")
        return (f'Digest username="{AGENT_NAME}", realm="{realm}", nonce="{nonce}", uri="{target}", algorithm=SHA-256, '
                f'qop=auth, nc=00000001, cnonce="{cnonce}", response="{response}"')

    def action(self, name, json_text):
        """HTTP status, result of the action and body of the answer."""
        status, headers, body = self.request("POST", f"/Action/{name}", json_text,
                                             {"Content-Type": "application/json", "Accept": "application/json"})
        return status, int(headers.get("kel-result", -1)), body
