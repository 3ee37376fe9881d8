#!/usr/bin/env python3
"""nuget.py PACKAGE VERSION FILE: makes a NuGet package of the unpacked SDK in PACKAGE. The same input gives the same bytes."""
import os
import pathlib
import sys
import time
import zipfile

NUGET = pathlib.Path(__file__).resolve().parent.parent / "cmake" / "nuget"
CONTENT_TYPES = """<?xml version="1.0" encoding="utf-8"?>
<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">
  <Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml" />
{}</Types>
"""
RELATIONSHIPS = """<?xml version="1.0" encoding="utf-8"?>
<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">
  <Relationship Type="http://schemas.microsoft.com/packaging/2010/07/manifest" Target="/KxPfwRul.nuspec" Id="R1" />
</Relationships>
"""


def main():
    package, version, target = pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3]
    native = "build/native/"
    files = {
        "KxPfwRul.nuspec": (NUGET / "KxPfwRul.nuspec.in").read_bytes().replace(b"@VERSION@", version.encode()),
        "README.md": (NUGET / "README.md").read_bytes(),
        "_rels/.rels": RELATIONSHIPS.encode(),
    }
    for name in ("KxPfwRul.targets", "KxPfwRul.natvis"):
        files[native + name] = (NUGET / name).read_bytes()
    for source, place in [("LICENSE", ""), ("THIRD-PARTY-NOTICES.txt", ""), ("KxPfwRul.spdx.json", ""),
                          ("include/*", native + "include/"), ("lib/*.lib", native + "lib/x64/"),
                          ("bin/*.dll", native + "bin/x64/"), ("bin/kxrule.exe", "tools/"),
                          ("bin/KxPfwRul.dll", "tools/")]:
        for path in package.glob(source):
            files[place + path.name] = path.read_bytes()
    parts = sorted({name.rpartition(".")[2] for name in files} - {"rels", "LICENSE"})
    rows = "".join(f'  <Default Extension="{part}" ContentType="application/octet-stream" />\n' for part in parts)
    rows += '  <Override PartName="/LICENSE" ContentType="application/octet-stream" />\n'
    files["[Content_Types].xml"] = CONTENT_TYPES.format(rows).encode()
    stamp = time.gmtime(int(os.environ["SOURCE_DATE_EPOCH"]))[:6]
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, content in sorted(files.items()):
            entry = zipfile.ZipInfo(name, stamp)
            entry.external_attr = 0o644 << 16
            archive.writestr(entry, content, zipfile.ZIP_DEFLATED)


main()
