#!/usr/bin/env python3
"""third_party.py PACKAGE VERSION: lists the third-party code linked into the binaries of PACKAGE (an unpacked SDK).

Writes THIRD-PARTY-NOTICES.txt, with the texts that come with the Debian packages in use, and KxPfwRul.spdx.json
(SPDX 2.3), both of which depend only on the sources, the packages and SOURCE_DATE_EPOCH. Fails if a source file includes
a third-party header that is not known here."""
import fnmatch
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PRODUCT = ["api", "common", "companions", "persistence", "policy", "repository", "rules", "tools"]
DOC = pathlib.Path("/usr/share/doc")
GPL3 = pathlib.Path("/usr/share/common-licenses/GPL-3")
EVERYTHING = ["KxPfwRul.dll", "KxPolicy.dll", "KxHash.dll", "KxVqrDbg.dll", "kxrule.exe"]

# Name, Debian package, licence (SPDX), how its includes begin (none: it comes with the compiler), which of its source
# files are linked, and which of those are not. What comes with the compiler is in every binary, what policy/ includes
# is in KxPolicy.dll and kxrule.exe, the rest in kxrule.exe.
COMPONENTS = [
    ("GCC run-time libraries", "gcc-mingw-w64-x86-64-posix-runtime", "GPL-3.0-or-later WITH GCC-exception-3.1", None,
     [], []),
    ("mingw-w64 run-time library", "mingw-w64-x86-64-dev", "ZPL-2.1", None, ["*", "mingw-w64-crt/*"],
     ["mingw-w64-crt/profile/*", "mingw-w64-crt/misc/getopt.c"]),
    ("winpthreads", "mingw-w64-x86-64-dev", "MIT AND BSD-3-Clause", None, ["mingw-w64-libraries/winpthreads/*"],
     ["mingw-w64-libraries/winpthreads/tests_pthread/*"]),
    ("CLI11", "libcli11-dev", "BSD-3-Clause", "CLI/", ["*", "include/*"], []),
    ("JSON for Modern C++", "nlohmann-json3-dev", "MIT", "nlohmann/", ["*", "include/*"], []),
    ("UTF8-CPP", "libutfcpp-dev", "BSL-1.0", "utf8", ["*"], []),
]


def included(directories):
    """The first path components of all includes in angle brackets, other than the standard library and Windows."""
    found = set()
    for directory in directories:
        for path in (ROOT / directory).rglob("*"):
            if path.suffix in (".cpp", ".h", ".hpp", ".c"):
                found |= set(re.findall(r"#include <(\w+/|utf8)", path.read_text(encoding="utf-8")))
    unknown = found - {component[3] for component in COMPONENTS}
    if unknown:
        sys.exit(f"no notice is known for headers from {', '.join(sorted(unknown))}")
    return found


def binaries(include):
    """The binaries that a component is linked into."""
    if include is None:
        return EVERYTHING
    return ["KxPolicy.dll", "kxrule.exe"] if include in included(["policy"]) else ["kxrule.exe"]


def copyright_file(package):
    return (DOC / package / "copyright").read_text(encoding="utf-8")


def paragraphs(text):
    """The fields of each paragraph, each as its first line and its continuation lines."""
    for paragraph in re.split(r"\n\s*\n", text):
        fields, name = {}, None
        for line in paragraph.split("\n"):
            if line[:1].isspace() and name:
                fields[name].append(line.strip("\r").rstrip()[1:])
            elif ":" in line:
                name, _, value = line.partition(":")
                fields[name] = [value.strip()]
        yield fields


def notice(package, wanted, unwanted):
    """Copyrights and licences of the wanted files."""
    parts, licences, texts = [], [], {}
    for fields in paragraphs(copyright_file(package)):
        licence = fields.get("License", [""])
        if len(licence) > 1:
            texts[licence[0]] = "\n".join("" if line.strip() == "." else line for line in licence[1:])
        files = " ".join(fields.get("Files", [])).split()
        files = [file for file in files if any(file == pattern or (pattern != "*" and fnmatch.fnmatch(file, pattern))
                                               for pattern in wanted)
                 and not any(fnmatch.fnmatch(file, pattern) for pattern in unwanted)]
        if files:
            holders = "\n  ".join(line.strip() for line in fields["Copyright"] if line.strip())
            parts.append(f"{', '.join(files)}\n  Copyright {holders}\n  Licence: {licence[0]}")
            licences += [name for name in re.split(r" and | or |, ", licence[0]) if name not in licences]
    missing = [name for name in licences if name not in texts]
    if missing or not parts:
        sys.exit(f"{package}: no text of the licence {', '.join(missing)}")
    return "\n".join(parts + [f"\n--- {name} ---\n\n{texts[name]}" for name in licences])


def compiler_notice():
    text = copyright_file("gcc-mingw-w64-base")
    exception = text[text.index("GCC RUNTIME LIBRARY EXCEPTION"):text.index("libquadmath/*.[hc]:")]
    library = subprocess.run(["x86_64-w64-mingw32-g++-posix", "-print-file-name=include/c++"], check=True, text=True,
                             capture_output=True).stdout.strip()
    header = pathlib.Path(library, "bits", "stl_tree.h").read_text(encoding="utf-8")
    early = re.search(r"/\*\n(.*?Hewlett-Packard.*?)\*/", header, re.S).group(1)
    early = "\n".join(line.lstrip(" *") for line in early.split("\n"))
    return "\n".join(["libgcc, libstdc++, libssp\n  Copyright 1986-2022 Free Software Foundation, Inc.",
                      "  Licence: GPL, version 3 or later, with the exception that follows\n",
                      exception, "--- Parts of libstdc++ ---\n", early.strip(), "\n--- GPL-3 ---\n",
                      GPL3.read_text(encoding="utf-8")])


def version_of(package):
    query = ["dpkg-query", "-W", "-f=${Version}", package]
    return subprocess.run(query, check=True, text=True, capture_output=True).stdout


def digest(path, name):
    return hashlib.new(name, path.read_bytes()).hexdigest()


def identifier(name):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]+", "-", name)


def spdx(package, version, components):
    """What the package contains, and what each of its binaries is linked with."""
    files = [path for path in sorted((package / "bin").iterdir())]
    namespace = hashlib.sha256("".join(digest(path, "sha256") for path in files).encode()).hexdigest()
    stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(int(os.environ["SOURCE_DATE_EPOCH"])))

    def entry(name, of, licence, holder):
        return {"SPDXID": identifier(name), "name": name, "versionInfo": of, "downloadLocation": "NOASSERTION",
                "filesAnalyzed": False, "licenseConcluded": licence, "licenseDeclared": licence,
                "copyrightText": holder}
    related = [("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-KxPfwRul")]
    related += [("SPDXRef-KxPfwRul", "CONTAINS", identifier(path.name)) for path in files]
    related += [(identifier(file), "STATIC_LINK", identifier(name)) for name, _, _, include, _, _ in components
                for file in binaries(include)]
    return {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"KxPfwRul-{version}",
        "documentNamespace": f"urn:kxpfwrul:spdx:{version}:{namespace}",
        "creationInfo": {"created": stamp, "creators": ["Tool: third_party.py"]},
        "packages": [entry("KxPfwRul", version, "MIT", "The KxPfwRul maintainers")] +
                    [entry(name, version_of(debian), licence, "NOASSERTION")
                     for name, debian, licence, *_ in components],
        "files": [{"SPDXID": identifier(path.name), "fileName": f"./bin/{path.name}", "licenseConcluded": "NOASSERTION",
                   "copyrightText": "NOASSERTION",
                   "checksums": [{"algorithm": name.upper(), "checksumValue": digest(path, name)}
                                 for name in ("sha1", "sha256")]} for path in files],
        "relationships": [{"spdxElementId": left, "relationshipType": kind, "relatedSpdxElement": right}
                          for left, kind, right in related],
    }


def main():
    package, version = pathlib.Path(sys.argv[1]), sys.argv[2]
    found = included(PRODUCT)
    components = [component for component in COMPONENTS if component[3] is None or component[3] in found]
    rule = "=" * 100
    texts = ["The programs and libraries of this package contain the following parts of others, under these terms. "
             "What is\nours is under the terms of the file LICENSE."]
    for name, debian, licence, include, wanted, unwanted in components:
        text = notice(debian, wanted, unwanted) if wanted else compiler_notice()
        place = f"in {' and '.join(binaries(include))}" if include else "in every program and library"
        texts.append(f"{rule}\n{name} ({licence}), {place}\nDebian package {debian} {version_of(debian)}\n{rule}\n\n"
                     f"{text}")
    notices = "\n\n".join(text.strip() for text in texts) + "\n"
    (package / "THIRD-PARTY-NOTICES.txt").write_text(notices, encoding="utf-8", newline="\n")
    bill = json.dumps(spdx(package, version, components), indent=2, ensure_ascii=False) + "\n"
    (package / "KxPfwRul.spdx.json").write_text(bill, encoding="utf-8", newline="\n")


main()
