"""A requester on another MQTT library, so that what goes over the wire is checked against an implementation that is not
this project's."""

import json
import queue
import secrets
import time

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

from documents import REPLY
from harness import PATIENCE


class Requester:
    def __init__(self, cert_dir, port):
        self.name = cert_dir.name
        self.replies = queue.Queue()
        self.subscribed = queue.Queue()
        self.client = mqtt.Client(client_id=self.name, protocol=mqtt.MQTTv5)
        self.client.tls_set(str(cert_dir.parent / "ca" / "ca.pem"), str(cert_dir / "cert.pem"),
                            str(cert_dir / "private.pem"))
        self.client.max_inflight_messages_set(0)
        self.client.on_message = lambda client, user, message: self.replies.put(message)
        self.client.on_subscribe = lambda client, user, mid, codes, properties: self.subscribed.put(codes)
        self.client.connect("127.0.0.1", port, clean_start=True)
        self.client.loop_start()
        self.client.subscribe(f"movra/v1/ua/{self.name}/+", qos=1)
        codes = self.subscribed.get(timeout=10 * PATIENCE)
        assert [code.value for code in codes] == [1], codes

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()

    def send(self, agent, payload, movra_id=None, content_type="application/json"):
        """Sends bytes, a text or an object; returns paho's handle of the publish."""
        if not isinstance(payload, (bytes, str)):
            payload = json.dumps(payload)
        properties = Properties(PacketTypes.PUBLISH)
        properties.ContentType = content_type
        properties.MessageExpiryInterval = 60
        properties.UserProperty = ("movra-id", movra_id or secrets.token_hex(16))
        return self.client.publish(f"movra/v1/ua/{agent}/{self.name}", payload, qos=1, properties=properties)

    def next_message(self, timeout=10.0):
        return self.replies.get(timeout=timeout * PATIENCE)

    def next_reply(self, timeout=10.0):
        return decode(self.next_message(timeout))

    def silence(self, seconds):
        """Nothing comes for so long; for replies that must not be."""
        time.sleep(seconds)
        assert self.replies.empty(), self.replies.get_nowait().payload


def decode(message):
    """The reply in a message."""
    return reply_in(message.payload)


def reply_in(payload):
    """The reply in these bytes; that it is one of those that the documents describe is looked at here. A reply-id that
    is no UTF-8 comes back as it was."""
    reply = json.loads(payload.rstrip(b"\0").decode(errors="replace"))
    REPLY.validate(reply)
    return reply


def changed(document, path, value=...):
    """A copy of a document with the member at this path replaced, or without it."""
    copy = json.loads(json.dumps(document))
    place = copy
    for key in path[:-1]:
        place = place[key]
    if value is ...:
        del place[path[-1]]
    else:
        place[path[-1]] = value
    return copy


def routine(reply_id, commands, ecu=("7E0", "7E8"), interface="can0", security=None, **extra):
    """A routine request; a command is (service, subfn, data[, timer])."""
    names = ("service", "subfn", "data", "timer")
    body = {
        "targetAddress": ecu[0],
        "mode": "CAN",
        "can": {"ifname": interface, "phy-req-id": ecu[0], "phy-resp-id": ecu[1], "st-min": "0", "bsize": "8"},
        "routine": {"commands": [dict(zip(names, command)) for command in commands]},
    }
    if security:
        body["routine"]["security_access"] = security
    return {"reply-id": reply_id, "type": "movra.quillet-query", "body": {**body, **extra}}


def outcomes(reply):
    """What became of each command: (service, response bytes, error)."""
    return [(row["service"], row["response-data"], row["error"]) for row in reply["body"]["routine-response"]]
