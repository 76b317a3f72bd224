"""Adds to an unpacked wheel its tag, the licences of its static libraries, and a CycloneDX list of them."""

from __future__ import annotations

import os
import re
import shutil
from datetime import UTC, datetime
from importlib.metadata import version
from pathlib import Path
from uuid import NAMESPACE_URL, uuid5

from cyclonedx.contrib.license.factories import LicenseFactory
from cyclonedx.model import ExternalReference, ExternalReferenceType, HashAlgorithm, HashType, XsUri
from cyclonedx.model.bom import Bom
from cyclonedx.model.component import Component, ComponentType
from cyclonedx.output.json import JsonV1Dot6
from packageurl import PackageURL

from .compiler import zig
from .libc import Libc
from .pins import Source, pinned
from .targets import Target

FOLDER = "bundled"
RUNTIME_LICENCE = "Apache-2.0 WITH LLVM-exception"


def component_of(source: Source) -> Component:
    return Component(
        type=ComponentType.LIBRARY,
        name=source.package,
        version=source.upstream,
        bom_ref=source.package,
        licenses=[LicenseFactory().make_from_string(source.licence)],
        purl=PackageURL("deb", "debian", source.package, source.version, {"arch": "source"}),
        hashes=[hash_of(source.sha256[source.archive])],
        external_references=[
            ExternalReference(
                type=ExternalReferenceType.SOURCE_DISTRIBUTION, url=XsUri(name), hashes=[hash_of(digest)]
            )
            for name, digest in source.sha256.items()
        ],
    )


def hash_of(digest: str) -> HashType:
    return HashType(alg=HashAlgorithm.SHA_256, content=digest)


def component_of_runtime(name: str) -> Component:
    """Of the compiler's. All parts of LLVM have one version."""
    config = (zig() / "lib/libcxx/include/__config").read_text()
    (number,) = map(int, re.findall(r"define _LIBCPP_VERSION (\d+)", config))
    return Component(
        type=ComponentType.LIBRARY,
        name=name,
        version=f"{number // 10000}.{number // 100 % 100}.{number % 100}",
        bom_ref=name,
        licenses=[LicenseFactory().make_from_string(RUNTIME_LICENCE)],
        purl=PackageURL("pypi", None, "ziglang", version("ziglang")),
    )


def list_of_parts(name: str, libc: Libc) -> str:
    """For the wheel NAME-VERSION, as JSON."""
    package, _, release = name.partition("-")
    whole = Component(
        type=ComponentType.LIBRARY,
        name=package,
        version=release,
        bom_ref=package,
        purl=PackageURL("pypi", None, package, release),
    )
    parts = [*map(component_of, pinned()), *map(component_of_runtime, libc.runtime)]
    told = " ".join(f"{part.purl}" for part in [whole, *parts])
    bom = Bom(components=parts, serial_number=uuid5(NAMESPACE_URL, told))
    bom.metadata.component = whole
    bom.metadata.timestamp = datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), UTC)
    bom.register_dependency(whole, parts)
    return f"{JsonV1Dot6(bom).output_as_string(indent=2)}\n"


def put_licences(information: Path, libc: Libc) -> None:
    folder = information / "licenses" / FOLDER
    folder.mkdir(parents=True)
    texts = {source.package: source.folder / source.text for source in pinned()}
    for name in libc.runtime:
        texts[name] = zig() / "lib" / name.replace("++", "xx") / "LICENSE.TXT"
    for name, text in texts.items():
        shutil.copyfile(text, folder / name)
    metadata = information / "METADATA"
    head, separator, body = metadata.read_text().partition("\n\n")
    lines = "".join(f"\nLicense-File: {FOLDER}/{name}" for name in sorted(texts))
    metadata.write_text(head + lines + separator + body)


def put_tag(information: Path, target: Target) -> None:
    """The build has tagged the wheel for the Python that ran it."""
    file = information / "WHEEL"
    file.write_text(re.sub(r"^Tag: .+$", f"Tag: {target}", file.read_text(), flags=re.MULTILINE))


def bundle(wheel: Path, target: Target) -> None:
    (information,) = wheel.glob("*.dist-info")
    put_licences(information, target.platform.libc)
    (information / "sboms").mkdir()
    (information / "sboms/bundled.cdx.json").write_text(list_of_parts(information.stem, target.platform.libc))
    put_tag(information, target)
