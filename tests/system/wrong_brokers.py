"""Brokers that no node may take for its own."""

import shutil
import time

from harness import Pki
from intruder import SERVER, Forge


def copy_of(pki, folder):
    """The same CA in a folder of its own, for a second broker."""
    copy = object.__new__(Pki)
    copy.folder = folder / f"copy-{time.monotonic_ns()}"
    shutil.copytree(pki.folder / "ca", copy.folder / "ca")
    return copy


def broker_of_another_ca(pki, plugin, port, folder):
    return Pki(folder / f"other-{time.monotonic_ns()}").broker(port, plugin)


def expired_broker(pki, plugin, port, folder):
    return copy_of(pki, folder).broker(port, plugin, "--start-days", "-10", "--days", "5")


def early_broker(pki, plugin, port, folder):
    return copy_of(pki, folder).broker(port, plugin, "--start-days", "5")


def broker_of_another_host(pki, plugin, port, folder):
    return copy_of(pki, folder).broker(port, plugin, "--host", "elsewhere.example", "--ip", "192.0.2.1")


def with_identity(configuration, cert_dir):
    for name in ("cert.pem", "private.pem"):
        (configuration.parent / name).write_bytes((cert_dir / name).read_bytes())
    return configuration


def broker_with_a_nodes_certificate(pki, plugin, port, folder):
    """Any node of the CA that puts itself in the broker's place."""
    return with_identity(copy_of(pki, folder).broker(port, plugin), pki.folder / "TESTER-1")


def self_signed_broker(pki, plugin, port, folder):
    forged = Forge(pki, folder).identity("broker", usage=SERVER, self_signed=True)
    return with_identity(copy_of(pki, folder).broker(port, plugin), forged)


BROKERS = [
    ("of another CA", broker_of_another_ca, "self-signed certificate in certificate chain"),
    ("self-signed", self_signed_broker, "self-signed certificate"),
    ("expired", expired_broker, "certificate has expired"),
    ("not yet valid", early_broker, "certificate is not yet valid"),
    ("for another host", broker_of_another_host, "IP address mismatch"),
    ("with a node's certificate", broker_with_a_nodes_certificate, "unsuitable certificate purpose"),
]
