"""HTTP requests over TLS with the certificate of a device, of another tree, or with none."""

import base64
import contextlib
import http.client
import json
import ssl


class KeyedClient:
    """`keys`: the folder with certificate.pem and key.pem, which are read at once; None: no certificate. `source`: the
    address to call from. `user`: (name, password), which are sent along."""

    def __init__(self, agent, keys=None, source=None, user=None):
        self.context = ssl.create_default_context()
        self.context.check_hostname, self.context.verify_mode = False, ssl.CERT_NONE
        if keys:
            self.context.load_cert_chain(keys / "certificate.pem", keys / "key.pem")
        self.headers = {"Content-Type": "application/json", "Accept": "application/json"}
        if user:
            self.headers["Authorization"] = "Basic " + base64.b64encode(":".join(user).encode()).decode()
        self.connection = http.client.HTTPSConnection(agent.address, agent.port, timeout=30, context=self.context,
                                                      source_address=source and (source, 0))

    def request(self, method, target, body=None, headers=()):
        """HTTP status, result of the action (-1: none was called) and body of the answer."""
        self.connection.request(method, target, body, self.headers | dict(headers))
        answer = self.connection.getresponse()
        return answer.status, int(answer.getheader("Kel-Result", -1)), answer.read()

    def action(self, name, json_text="{}"):
        return self.request("POST", f"/Action/{name}", json_text.encode())

    def call_each(self, names):
        """Calls each action without arguments; name -> (HTTP status, body of the answer)."""
        with contextlib.closing(self.connection):
            return {name: self.action(name)[::2] for name in names}


class OperatorOfTree:
    """Calls of the operator at the master, as the parent of a device passes them on to it."""

    def __init__(self, agent, parent):
        self.parent = parent
        guid = agent.identity()["GUID"]
        stop = next(device for device in agent.tree.master.kel("devices") if device["guid"] == guid)
        self.call = {"Way": [{"PathName": stop["path_name"], "Name": stop["name"]}], "Operator": "test",
                     "Master": f"{agent.address}:1", "Seconds": 30}

    def call_each(self, names):
        with contextlib.closing(self.parent.connection):
            return {name: self.pass_on(name) for name in names}

    def pass_on(self, name, **arguments):
        call = self.call | {"Action": name, "Arguments": arguments}
        status, _, body = self.parent.action("RelayCallDevice", json.dumps(call))
        return status, json.dumps(json.loads(body)["Answer"])
