"""What scripts/package.sh made: nothing missing, nothing that points outside, everything true.

Usage: package_test.py UNPACKED-ZIP UNPACKED-SYMBOLS NUGET-PACKAGE
"""
import hashlib
import json
import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
import zipfile

sdk, symbols, nuget = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
faults = []


def expect(condition, what):
    if not condition:
        faults.append(what)


def run(*command, **arguments):
    return subprocess.run(command, text=True, capture_output=True, **arguments)


def check_files():
    for name in ["LICENSE", "SECURITY.md", "lib/KxHash.lib", "lib/KxVqrDbg.lib"]:  # the others are used here or in test.sh
        expect((sdk / name).is_file(), f"{name} is missing")
    sums = dict(reversed(line.split("  ")) for line in (sdk / "SHA256SUMS").read_text().splitlines())
    there = {str(path.relative_to(sdk)): hashlib.sha256(path.read_bytes()).hexdigest()
             for path in sdk.rglob("*") if path.is_file() and path.name != "SHA256SUMS"}
    expect(sums == there, "SHA256SUMS is not what lies there")


def check_documents():
    """No link to what is not in the package, and no path of the sources."""
    for page in sdk.rglob("*.md"):
        text = page.read_text(encoding="utf-8")
        for target in re.findall(r"\]\(([^)#:]+)\)", text):
            expect((page.parent / target).exists(), f"{page.name}: link to {target}")
        rooms = "api|bench|cmake|common|companions|persistence|policy|repository|rules|scripts|tests|tools"
        for path in re.findall(rf"`((?:{rooms})/[^`]*)`", text):
            expect(False, f"{page.name}: speaks of {path}")
    expect(re.search(r"^## \d+\.\d+\.\d+ \(\d{4}-\d\d-\d\d\)$", (sdk / "CHANGELOG.md").read_text(), re.M), "no date")
    expect("$id" in json.loads((sdk / "docs/policy.schema.json").read_text(encoding="utf-8")), "the schema has no $id")


def check_notices():
    notices = (sdk / "THIRD-PARTY-NOTICES.txt").read_text(encoding="utf-8")
    for words in ["GCC RUNTIME LIBRARY EXCEPTION", "GNU GENERAL PUBLIC LICENSE", "Hewlett-Packard", "Lucent",
                  "winpthreads", "Lockless", "2009-2016 the mingw-w64 project", "University of Cincinnati",
                  "Niels Lohmann", "THE SOFTWARE IS PROVIDED"]:
        expect(words in notices, f"the notices lack {words}")
    bill = json.loads((sdk / "KxPfwRul.spdx.json").read_text(encoding="utf-8"))
    known = {item["SPDXID"] for item in bill["packages"] + bill["files"]} | {bill["SPDXID"]}
    ends = {relation[end] for relation in bill["relationships"] for end in ("spdxElementId", "relatedSpdxElement")}
    expect(ends == known, f"SPDX: {ends ^ known}")
    for item in bill["files"]:
        sums = {entry["algorithm"]: entry["checksumValue"] for entry in item["checksums"]}
        expect(sums["SHA256"] == hashlib.sha256((sdk / item["fileName"]).read_bytes()).hexdigest(), item["fileName"])


def check_binaries():
    for path in (sdk / "bin").iterdir():
        content = path.read_bytes()
        for name in ("CompanyName", "FileDescription", "LegalCopyright", "OriginalFilename", "ProductVersion"):
            expect(name.encode("utf-16-le") in content, f"{path.name}: no {name}")
        head = run("x86_64-w64-mingw32-objdump", "-p", "-h", path).stdout
        expect(re.search(r"MajorSubsystemVersion\s+6\nMinorSubsystemVersion\s+1\n", head), f"{path.name}: subsystem")
        expect(".debug_" not in head and ".gnu_debuglink" in head, f"{path.name}: symbols")
        debug = symbols / f"{path.name}.debug"
        start = re.search(r"^AddressOfEntryPoint\s+(\w+)", head, re.M)[1]
        base = re.search(r"^ImageBase\s+(\w+)", head, re.M)[1]
        place = run("x86_64-w64-mingw32-addr2line", "-f", "-e", debug, hex(int(base, 16) + int(start, 16))).stdout
        expect("CRTStartup" in place, f"{debug.name}: the entry point is called {place}")
    lines = run("x86_64-w64-mingw32-nm", "-l", symbols / "KxPfwRul.dll.debug").stdout
    expect(re.search(r"T kxRuleRead\t.*api/KxPfwRule.cpp:\d+\n", lines), "no lines in the symbols")


def check_visualizer(text):
    """Every expression is one that a member of its record could compute."""
    space = {"v": "http://schemas.microsoft.com/vstudio/debugger/natvis/2010"}
    code = ["#include <KxPfwRule.h>"]
    for number, kind in enumerate(ElementTree.fromstring(text).findall("v:Type", space)):
        expressions = []
        for element in kind.iter():
            words = element.text or ""
            if element.tag.endswith("DisplayString"):
                expressions += re.findall(r"\{([^{}]*)\}", words)
            elif element.tag.rpartition("}")[2] in ("Item", "Size", "ValuePointer"):
                expressions.append(words)
            expressions += [element.get("Condition")] if element.get("Condition") else []
        name = kind.get("Name")
        if name == "PFW_ADDR":  # a union, from which nothing can be derived
            expressions = [expression.replace("dwIPv4", "value.dwIPv4") for expression in expressions]
        code.append(f"struct V{number} {'{ ' + name + ' value;' if name == 'PFW_ADDR' else ': ' + name + ' {'}")
        code += [f"void e{at}() {{ static_cast<void>({re.sub(',(d|s|su)$', '', expression)}); }}"
                 for at, expression in enumerate(expressions)]
        code.append("};")
    result = run("x86_64-w64-mingw32-g++-posix", "-std=c++20", "-fsyntax-only", f"-I{sdk / 'include'}", "-x", "c++", "-",
                 input="\n".join(code))
    expect(result.returncode == 0 and len(code) > 60, f"natvis: {result.stderr}")


def check_nuget():
    archive = zipfile.ZipFile(nuget)
    names = archive.namelist()
    space = "{http://schemas.microsoft.com/packaging/2013/05/nuspec.xsd}"
    metadata = ElementTree.fromstring(archive.read("KxPfwRul.nuspec")).find(f"{space}metadata")
    values = {child.tag.replace(space, ""): child.text for child in metadata}
    expect(nuget.name == f"{values['id']}.{values['version']}.nupkg", "the nuspec is of another version")
    expect(values["license"] in names and values["readme"] in names, "license or readme")
    targets = archive.read("build/native/KxPfwRul.targets").decode()
    ElementTree.fromstring(targets)
    paths = [path.replace("\\", "/") for path in re.findall(r"\$\(MSBuildThisFileDirectory\)([^;\"<]+)", targets)]
    expect(len(paths) == 8, f"paths of the .targets: {paths}")
    for path in paths:
        expect(any(name.startswith(f"build/native/{path}") for name in names), f"the .targets name {path}")
    for name in names:
        source = {"include": "include", "lib": "lib", "bin": "bin"}.get(name.split("/")[2] if name.count("/") > 2 else "")
        expect(not source or archive.read(name) == (sdk / source / pathlib.Path(name).name).read_bytes(), name)
    types = ElementTree.fromstring(archive.read("[Content_Types].xml"))
    known = {element.get("Extension") for element in types} | {"LICENSE"}
    expect({pathlib.PurePath(name).suffix[1:] or name.rpartition("/")[2] for name in names} - {"xml", ".rels"} <= known,
           "content types")
    check_visualizer(archive.read("build/native/KxPfwRul.natvis").decode())


for check in (check_files, check_documents, check_notices, check_binaries, check_nuget):
    check()
sys.exit("\n".join(faults) if faults else 0)
