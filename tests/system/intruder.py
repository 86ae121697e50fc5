"""Whoever does not belong on the bus: identities that quillet-pki would never make, and a client that does what
libtervbus would never do."""

import datetime
import socket
import ssl
import time
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

from harness import PATIENCE

CLIENT = ExtendedKeyUsageOID.CLIENT_AUTH
SERVER = ExtendedKeyUsageOID.SERVER_AUTH


def subject(common_names, group):
    names = [(NameOID.COMMON_NAME, name) for name in common_names]
    names += [(NameOID.ORGANIZATIONAL_UNIT_NAME, group)] if group else []
    return x509.Name([x509.NameAttribute(oid, text, _validate=False) for oid, text in names])


class Forge:
    """Makes identities in the layout that the agent and quillet-query read: a folder beside one named "ca"."""

    def __init__(self, pki, folder):
        self.folder = Path(folder) / "forged"
        self.ca_text = (pki.folder / "ca" / "ca.pem").read_bytes()
        self.ca = x509.load_pem_x509_certificate(self.ca_text)
        self.ca_key = serialization.load_pem_private_key((pki.folder / "ca" / "ca.key").read_bytes(), None)

    def identity(self, *common_names, group=None, start=-1, days=30, usage=CLIENT, self_signed=False, password=None,
                 other_key=False):
        key = ec.generate_private_key(ec.SECP256R1())
        name = subject(common_names, group)
        issuer, issuer_key = (name, key) if self_signed else (self.ca.subject, self.ca_key)
        begin = datetime.datetime.utcnow() + datetime.timedelta(days=start)
        builder = (x509.CertificateBuilder().subject_name(name).issuer_name(issuer).public_key(key.public_key())
                   .serial_number(x509.random_serial_number()).not_valid_before(begin)
                   .not_valid_after(begin + datetime.timedelta(days=days))
                   .add_extension(x509.BasicConstraints(ca=False, path_length=None), critical=True)
                   .add_extension(x509.ExtendedKeyUsage([usage]), critical=False))
        certificate = builder.sign(issuer_key, hashes.SHA256())
        kept_key = ec.generate_private_key(ec.SECP256R1()) if other_key else key
        return self.write(certificate, kept_key, password)

    def write(self, certificate, key, password):
        place = self.folder / str(time.monotonic_ns())
        (place / "ca").mkdir(parents=True)
        (place / "node").mkdir()
        (place / "ca" / "ca.pem").write_bytes(self.ca_text)
        (place / "node" / "cert.pem").write_bytes(certificate.public_bytes(serialization.Encoding.PEM))
        lock = serialization.BestAvailableEncryption(password) if password else serialization.NoEncryption()
        (place / "node" / "private.pem").write_bytes(
            key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, lock))
        return place / "node"


def utf8(text):
    data = text if isinstance(text, bytes) else text.encode()
    return len(data).to_bytes(2, "big") + data


def variable(number):
    data = b""
    while True:
        number, low = divmod(number, 128)
        data += bytes([low | (0x80 if number else 0)])
        if not number:
            return data


def tls_context(cert_dir, with_certificate=True):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.load_verify_locations(cert_dir.parent / "ca" / "ca.pem")
    if with_certificate:
        context.load_cert_chain(cert_dir / "cert.pem", cert_dir / "private.pem")
    return context


class Intruder:
    """An MQTT 5 client (OASIS MQTT 5.0, chapter 3) that says whatever it is told to, byte by byte."""

    def __init__(self, cert_dir, port, client_id="intruder", will=None, context=None):
        plain = socket.create_connection(("127.0.0.1", port), timeout=10 * PATIENCE)
        self.socket = (context or tls_context(cert_dir)).wrap_socket(plain, server_hostname="127.0.0.1")
        self.received = b""
        self.messages = []
        self.next_id = 1
        flags = 0x02 | (0x2C if will else 0)  # clean start; a will is retained and of QoS 1
        payload = utf8(client_id) + (b"\0" + utf8(will[0]) + utf8(will[1]) if will else b"")
        self.write(0x10, utf8("MQTT") + bytes([5, flags, 0, 60, 0]) + payload)
        self.welcome = self.wait_for(0x20)[1]

    def write(self, kind, body):
        self.socket.sendall(bytes([kind]) + variable(len(body)) + body)

    def packet(self):
        """The next packet: its first byte and what follows the length."""
        while True:
            for size in range(1, 5):
                head = self.received[1:1 + size]
                if len(head) < size or head[-1] & 0x80:
                    continue
                length = sum((byte & 0x7F) << (7 * place) for place, byte in enumerate(head))
                if len(self.received) >= 1 + size + length:
                    kind, body = self.received[0], self.received[1 + size:1 + size + length]
                    self.received = self.received[1 + size + length:]
                    return kind, body
                break
            more = self.socket.recv(65536)
            if not more:
                raise ConnectionError("closed by the broker")
            self.received += more

    def wait_for(self, kind):
        while True:
            got, body = self.packet()
            if got & 0xF0 == 0x30:
                self.messages.append(body)
            elif got & 0xF0 == kind:
                return body
            else:
                raise ConnectionError(f"packet {got:#x} {body.hex()} instead of {kind:#x}")

    def publish(self, topic, payload=b"x", retained=False, properties=b""):
        """A publish of QoS 1; the reason code in its acknowledgement."""
        return self.publish_all(topic, [payload], retained, properties)[0]

    def publish_all(self, topic, payloads, retained=False, properties=b""):
        """The same for many, without waiting in between."""
        packets = b""
        for payload in payloads:
            self.next_id = self.next_id % 0xFFFF + 1
            body = utf8(topic) + self.next_id.to_bytes(2, "big") + variable(len(properties)) + properties + payload
            packets += bytes([0x33 if retained else 0x32]) + variable(len(body)) + body
        self.socket.sendall(packets)
        acknowledgements = [self.wait_for(0x40) for _ in payloads]
        return [body[2] if len(body) > 2 else 0 for body in acknowledgements]

    def subscribe(self, topic):
        """The reason code in the acknowledgement."""
        self.next_id += 1
        self.write(0x82, self.next_id.to_bytes(2, "big") + b"\0" + utf8(topic) + b"\1")
        return self.wait_for(0x90)[-1]

    def drop(self):
        """Gone without a goodbye."""
        self.socket.close()
