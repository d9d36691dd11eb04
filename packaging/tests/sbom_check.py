#!/usr/bin/python3
"""sbom_check.py FOLDER LINK...: checks the SPDX document of the release in FOLDER: its form, and its content against
the files beside it. It must contain each LINK, FILE:KIND:PACKAGE."""

import hashlib
import json
import re
import subprocess
import sys
from pathlib import Path

FOLDER, LINKS = Path(sys.argv[1]), sys.argv[2:]
faults = []


def expect(holds, text):
    if not holds:
        faults.append(text)


def digest(algorithm, content):
    return hashlib.new(algorithm.lower(), content).hexdigest()


def check_form(document):
    expect(document["spdxVersion"] == "SPDX-2.3", "version")
    expect(document["dataLicense"] == "CC0-1.0", "licence of the document")
    expect(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", document["creationInfo"]["created"]), "time")
    expect(re.fullmatch(r"[a-z]+://[^\s#]+", document["documentNamespace"]), "namespace")
    elements = [document, *document["packages"], *document["files"]]
    identifiers = [element["SPDXID"] for element in elements]
    expect(len(set(identifiers)) == len(identifiers), "duplicate identifier")
    for identifier in identifiers:
        expect(re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", identifier), f"form of {identifier}")
    for relation in document["relationships"]:
        for end in ("spdxElementId", "relatedSpdxElement"):
            expect(relation[end] in identifiers, f"{relation[end]} is not defined")
    for package in document["packages"]:
        missing = {"name", "SPDXID", "versionInfo", "downloadLocation", "filesAnalyzed"} - package.keys()
        expect(not missing, f"{package['SPDXID']} lacks {missing}")


def related(document, kind, identifier):
    return [r["relatedSpdxElement"] for r in document["relationships"]
            if r["relationshipType"] == kind and r["spdxElementId"] == identifier]


def check_package(document, package, files):
    """Compares a package with the output of dpkg-deb(1)."""
    path = FOLDER / package["packageFileName"]
    expect(package["checksums"][0]["checksumValue"] == digest("sha256", path.read_bytes()), f"checksum of {path.name}")
    if not package["filesAnalyzed"]:
        return
    listed = [files[identifier] for identifier in related(document, "CONTAINS", package["SPDXID"])]
    entries = subprocess.run(["dpkg-deb", "--contents", path], capture_output=True, text=True, check=True).stdout
    names = {line.split(maxsplit=5)[5] for line in entries.splitlines() if line.startswith("-")}
    expect({file["fileName"] for file in listed} == names and names, f"files of {path.name}")
    sums = []
    for file in listed:
        archive = subprocess.run(["dpkg-deb", "--fsys-tarfile", path], capture_output=True, check=True).stdout
        content = subprocess.run(["tar", "-xO", file["fileName"]], input=archive, capture_output=True, check=True).stdout
        for checksum in file["checksums"]:
            right = digest(checksum["algorithm"], content)
            expect(checksum["checksumValue"] == right, f"{checksum['algorithm']} of {file['fileName']}")
        sums.append(digest("sha1", content))
    code = package["packageVerificationCode"]["packageVerificationCodeValue"]
    expect(code == digest("sha1", "".join(sorted(sums)).encode()), f"verification code of {path.name}")


def check_links(document, files):
    names = {package["SPDXID"]: package["name"] for package in document["packages"]}
    found = set()
    for relation in document["relationships"]:
        if relation["relationshipType"].endswith("_LINK"):
            file = Path(files[relation["spdxElementId"]]["fileName"]).name
            found.add(f"{file}:{relation['relationshipType']}:{names[relation['relatedSpdxElement']]}")
    for link in LINKS:
        expect(link in found, f"{link} is not among {sorted(found)}")
    for package in document["packages"]:
        if package.get("supplier") == "Organization: Debian":
            # Several architectures of a package may be installed, with different versions.
            shown = subprocess.run(["dpkg-query", "--show", "--showformat=${Version}\n", package["name"]],
                                   capture_output=True, text=True, check=False).stdout.split()
            expect(package["versionInfo"] in shown, f"version of {package['name']}")


def main():
    document = json.loads(next(FOLDER.glob("*.spdx.json")).read_text())
    files = {file["SPDXID"]: file for file in document["files"]}
    check_form(document)
    own = [package for package in document["packages"] if "packageFileName" in package]
    expect(len(own) == len(list(FOLDER.glob("*.deb"))) + 1, "a package or the sources are missing")
    described = related(document, "DESCRIBES", "SPDXRef-DOCUMENT")
    for package in own:
        expect(package["SPDXID"] in described, f"{package['name']} is not described")
        check_package(document, package, files)
    check_links(document, files)
    for fault in faults:
        print(fault)
    sys.exit(bool(faults))


main()
