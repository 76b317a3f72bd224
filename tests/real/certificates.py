"""CAs and their certificates, as files that servers of other users can read."""

from __future__ import annotations

import dataclasses
import datetime
import ipaddress
from pathlib import Path

import trustme
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

LOOPBACK = ("127.0.0.1", "localhost", "service.test")


@dataclasses.dataclass(frozen=True)
class Certificate:
    """chain: a server's certificate and those above it except the root. both: the key and the chain."""

    chain: Path
    key: Path
    both: Path

    @classmethod
    def written(cls, folder: Path, name: str, key: bytes, *chain: bytes) -> Certificate:
        """Writes the PEM texts to files of that name in `folder`."""
        made = cls(*(folder / f"{name}{suffix}.pem" for suffix in ("", "-key", "-both")))
        made.chain.write_bytes(b"".join(chain))
        made.key.write_bytes(key)
        made.both.write_bytes(key + b"".join(chain))
        return made


class Authority:
    """A root CA that writes its certificates to `folder`. file: the root's certificate."""

    def __init__(self, folder: Path, name: str) -> None:
        self.folder = folder
        self.name = name
        self.ca = trustme.CA(organization_name=name)
        self.file = folder / f"{name}.pem"
        self.ca.cert_pem.write_to_path(str(self.file))

    def certificate(
        self,
        name: str,
        *names: str,
        not_before: datetime.datetime | None = None,
        not_after: datetime.datetime | None = None,
    ) -> Certificate:
        """A certificate for these names and addresses, by default those of the loopback."""
        leaf = self.ca.issue_cert(*(names or LOOPBACK), not_before=not_before, not_after=not_after)
        return self.write(name, leaf)

    def write(self, name: str, leaf: trustme.LeafCert) -> Certificate:
        """The files of a certificate that trustme made."""
        chain = [blob.bytes() for blob in leaf.cert_chain_pems]
        return Certificate.written(self.folder, f"{self.name}-{name}", leaf.private_key_pem.bytes(), *chain)


def self_signed(folder: Path) -> Certificate:
    """A self-signed certificate for the loopback, which certifies nothing else."""
    key = ec.generate_private_key(ec.SECP256R1())
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "self-signed")])
    now = datetime.datetime.now(datetime.UTC)
    names = [x509.IPAddress(ipaddress.ip_address("127.0.0.1")), x509.DNSName("localhost")]
    made = (
        x509.CertificateBuilder(name, name, key.public_key(), x509.random_serial_number())
        .not_valid_before(now - datetime.timedelta(days=1))
        .not_valid_after(now + datetime.timedelta(days=1))
        .add_extension(x509.SubjectAlternativeName(names), critical=False)
        .add_extension(x509.BasicConstraints(ca=False, path_length=None), critical=True)
        .sign(key, hashes.SHA256())
    )
    form = serialization.PrivateFormat.PKCS8
    written = key.private_bytes(serialization.Encoding.PEM, form, serialization.NoEncryption())
    return Certificate.written(folder, "self-signed", written, made.public_bytes(serialization.Encoding.PEM))
