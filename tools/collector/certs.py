"""Throw-away certificates for a test Collector, made fresh in a temp dir.

Never commit what this writes: every key lives only as long as the test.
"""
import datetime
import ipaddress
import os

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID


def _name(common_name):
    return x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, common_name)])


def _write(path, *blobs):
    with open(path, "wb") as f:
        for blob in blobs:
            f.write(blob)
    return path


class Authority:
    """A CA that signs server certificates into `directory`."""

    def __init__(self, directory, name="corvidine test CA"):
        self.directory = directory
        self.name = name.replace(" ", "-")
        self.key = ec.generate_private_key(ec.SECP256R1())
        now = datetime.datetime.now(datetime.timezone.utc)
        self.cert = (
            x509.CertificateBuilder()
            .subject_name(_name(name)).issuer_name(_name(name))
            .public_key(self.key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(now - datetime.timedelta(days=1))
            .not_valid_after(now + datetime.timedelta(days=30))
            .add_extension(x509.BasicConstraints(ca=True, path_length=None), critical=True)
            .add_extension(x509.KeyUsage(False, False, False, False, False, True, True, False, False), critical=True)
            .sign(self.key, hashes.SHA256())
        )
        self.pem_path = _write(os.path.join(directory, self.name + ".pem"),
                               self.cert.public_bytes(serialization.Encoding.PEM))

    def server(self, label, dns=("localhost",), ips=("127.0.0.1",), expired=False):
        """Writes `<label>.pem` (certificate then key) and returns its path.
        `dns` and `ips` become the subjectAltNames."""
        key = ec.generate_private_key(ec.SECP256R1())
        now = datetime.datetime.now(datetime.timezone.utc)
        if expired:
            start, end = now - datetime.timedelta(days=30), now - datetime.timedelta(days=1)
        else:
            start, end = now - datetime.timedelta(days=1), now + datetime.timedelta(days=30)
        names = [x509.DNSName(d) for d in dns] + [x509.IPAddress(ipaddress.ip_address(i)) for i in ips]
        builder = (
            x509.CertificateBuilder()
            .subject_name(_name(dns[0] if dns else "collector")).issuer_name(self.cert.subject)
            .public_key(key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(start).not_valid_after(end)
        )
        if names:
            builder = builder.add_extension(x509.SubjectAlternativeName(names), critical=False)
        cert = builder.sign(self.key, hashes.SHA256())
        return _write(os.path.join(self.directory, label + ".pem"),
                      cert.public_bytes(serialization.Encoding.PEM),
                      key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8,
                                        serialization.NoEncryption()))
