#!/usr/bin/python3
"""Prints what the programs below a folder are made of, as an SPDX document: python3 sbom.py FOLDER

That is the packages of the libraries that they link, and those of which there is nothing to link,
because headers are all they have. Names and versions are dpkg's of this machine. Two builds of the
same on the same print the same.
"""

import datetime
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parents[1]


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def asked(command, field):
    return run(command, *field.split()).strip()


def needed(program):
    """The libraries that the dynamic linker has to find for it."""
    return re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "--dynamic", "--wide", str(program)))


def owner(library, architecture):
    """The package that has the library for the machine that is built for."""
    for line in run("dpkg-query", "--search", f"*/{library}").splitlines():
        package, path = line.split(": ", 1)
        if package.endswith(f":{architecture}") and pathlib.PurePath(path).name == library:
            return package
    raise LookupError(f"no package of {architecture} has {library}")


def headers_only():
    """Those we build with that have headers and nothing to link."""
    control = (TOP / "debian/control").read_text()
    depends = re.search(r"^Build-Depends:((?:\n .*)+)", control, re.MULTILINE)[1]
    for package in re.findall(r"^ (\S+-dev)\b", depends.replace(",", ""), re.MULTILINE):
        files = run("dpkg-query", "--listfiles", package).splitlines()
        if not any(re.search(r"\.(so|a)$", file) for file in files):
            yield package


def described(package, vendor):
    """The package as SPDX has it."""
    fields = "${Package}\t${Version}\t${Architecture}\t${source:Package}\t${source:Version}\t${Homepage}"
    # A package of another architecture may be installed as well.
    line = run("dpkg-query", "--show", f"--showformat={fields}\n", package).splitlines()[0]
    name, version, architecture, source, source_version, homepage = line.split("\t")
    return {
        "SPDXID": f"SPDXRef-{re.sub('[^A-Za-z0-9.-]', '-', name)}",
        "name": name,
        "versionInfo": version,
        "supplier": f"Organization: {vendor}",
        "downloadLocation": "NOASSERTION",
        "homepage": homepage or "NOASSERTION",
        "sourceInfo": f"built from {source} {source_version}",
        "filesAnalyzed": False,
        "externalRefs": [
            {
                "referenceCategory": "PACKAGE-MANAGER",
                "referenceType": "purl",
                "referenceLocator": f"pkg:deb/{vendor.lower()}/{name}@{version.replace('+', '%2B')}"
                f"?arch={architecture}",
            }
        ],
    }


def ourselves(version):
    return {
        "SPDXID": "SPDXRef-wexd",
        "name": "wexd",
        "versionInfo": version,
        "supplier": "Organization: wexd maintainers",
        "downloadLocation": "NOASSERTION",
        "licenseDeclared": "Apache-2.0",
        "filesAnalyzed": False,
    }


def document(folder):
    architecture = asked("dpkg-architecture", "--query DEB_HOST_ARCH")
    vendor = asked("dpkg-vendor", "--query Vendor")
    changelog = f"--file={TOP / 'debian/changelog'}"
    version = run("dpkg-parsechangelog", changelog, "--show-field", "Version").strip()
    moment = os.environ.get("SOURCE_DATE_EPOCH") or run(
        "dpkg-parsechangelog", changelog, "--show-field", "Timestamp"
    )
    programs = [folder / name for name in ("usr/sbin/wexd", "usr/bin/wexctl")]
    linked = {owner(library, architecture) for program in programs for library in needed(program)}
    kinds = {package: "DYNAMIC_LINK" for package in linked}
    kinds |= {package: "STATIC_LINK" for package in headers_only()}
    parts = {package: described(package, vendor) for package in sorted(kinds)}
    digest = hashlib.sha256(b"".join(program.read_bytes() for program in programs)).hexdigest()
    name = f"wexd-{version}-{architecture}"
    return {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": name,
        "documentNamespace": f"https://wexd.example/spdx/{name}-{digest}",
        "creationInfo": {
            "created": f"{datetime.datetime.utcfromtimestamp(int(moment)).isoformat()}Z",
            "creators": ["Tool: debian/sbom.py"],
        },
        "packages": [ourselves(version), *parts.values()],
        "relationships": [
            related("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-wexd"),
            *(
                related("SPDXRef-wexd", kinds[package], part["SPDXID"])
                for package, part in parts.items()
            ),
        ],
    }


def related(one, kind, other):
    return {"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}


if __name__ == "__main__":
    json.dump(document(pathlib.Path(sys.argv[1])), sys.stdout, indent=1)
    print()
