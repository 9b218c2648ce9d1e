#!/usr/bin/env python3
"""check.py CHECK ROOT ARGUMENT...: prints what no compiler finds wrong, and exits with 1 if anything is."""

import graphlib
import os
import pathlib
import re
import subprocess
import sys

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*([<"])([^>"]+)', re.MULTILINE)
# Headers that belong to one place, so that a second one would be a second answer to its question.
ONLY_IN = {
    "sys/epoll.h": "tavronet/platform/SocketWatch.cpp",
    "pugixml.hpp": "tavronet/upnp/Modern",
    "openssl/": "tavronet/openssl/",
}
# What a public header may include of the C library; headers of C++ itself have neither a dot nor a slash.
C_HEADERS = {"stdarg.h", "stdbool.h", "stddef.h", "stdint.h", "wchar.h"}


def includes_in(root, folder):
    """Triples (file, what it includes, whether in quotes, as our own are) of all files below the folder."""
    for path in sorted(root.glob(folder + "/**/*")):
        if path.suffix in {".h", ".cpp", ".c"}:
            text = path.read_text(encoding="utf-8")
            for quote, included in INCLUDE.findall(text):
                yield path.relative_to(root).as_posix(), included, quote == '"'


def layer_of(name):
    """The layer of tavronet/<layer>/...; no layer includes what has none."""
    parts = name.split("/")
    return parts[1] if len(parts) == 3 and parts[0] == "tavronet" else "no layer"


def unit_of(name):
    """A header and its source are one unit. Platform has one machine in several files: there only headers count."""
    return name if layer_of(name) == "platform" else os.path.splitext(name)[0]


def check_includes(root, *arguments):
    """Arguments: each layer as "socket:platform,net", below what it builds on; "--public"; public headers."""
    public = set(arguments[arguments.index("--public") + 1:])
    allowed = {}
    edges = {}
    for layer, _, below in (rule.partition(":") for rule in arguments[:arguments.index("--public")]):
        allowed[layer] = {layer}.union(*(allowed[name] for name in below.split(",") if name))
        for name, included, own in includes_in(root, f"tavronet/{layer}"):
            if own and layer_of(included) not in allowed[layer]:
                yield f"{name}: layer {layer} includes {included} of {layer_of(included)}"
            places = [place for header, place in ONLY_IN.items() if included.startswith(header)]
            if places and not name.startswith(places[0]):
                yield f"{name}: <{included}> belongs elsewhere"
            known = included in public if own else included in C_HEADERS or not re.search("[./]", included)
            if name in public and not known:
                yield f"{name}: a public header includes {included}"
            if own and unit_of(included) != unit_of(name):
                edges.setdefault(unit_of(name), set()).add(unit_of(included))
    try:
        graphlib.TopologicalSorter(edges).prepare()
    except graphlib.CycleError as circle:
        yield "circle of includes: " + " <- ".join(circle.args[1])
    for name, included, _ in [*includes_in(root, "tools"), *includes_in(root, "examples")]:
        if included.startswith("tavronet/") and included not in public:
            yield f"{name}: includes {included}, which is not installed"


def check_umbrella(root, *headers):
    """The header of all headers has all public ones, and no others."""
    included = {header for name, header, _ in includes_in(root, "tavronet") if name == "tavronet/tavronet.h"}
    wrong = included ^ (set(headers) - {"tavronet/tavronet.h"})
    yield from (f"tavronet/tavronet.h lacks, or should not name, {header}" for header in wrong)


def check_exports(root, nm, library, *headers):
    """The library exports what public headers mark with TAVRONET_API, and nothing else."""
    text = "".join(re.sub(r"//.*", "", (root / header).read_text(encoding="utf-8")) for header in headers)
    declared = set(re.findall(r"(?:class|struct)\s+TAVRONET_API\s+(\w+)", text))
    declared.update(re.findall(r'^\s*(?:extern "C"\s+)?TAVRONET_API\s[^;{(]*?(\w+)\s*\(', text, re.MULTILINE))
    exported = set()
    for line in subprocess.check_output([nm, "-D", "-C", "--defined-only", library], text=True).splitlines():
        symbol = re.sub(r"^(vtable|typeinfo|typeinfo name|VTT|guard variable) for |^.*thunk to ", "", line[19:])
        signature = re.split(r"\(|::operator\b", symbol)[0]
        name = re.split(r"\s(?![^<]*>)", signature)[-1]  # a template's symbol starts with its return type
        exported.add(re.sub(r"^(tavronet::)?(platform::)?(\w*).*", r"\3", name))
    yield from (f"not both declared and exported: {name}" for name in declared ^ exported)


def check_readme(root):
    """The README shows two examples as they are, below their first lines."""
    readme = (root / "README.md").read_text(encoding="utf-8")
    for name, language in {"examples/map_port.cpp": "cpp", "examples/map_port.c": "c"}.items():
        code = (root / name).read_text(encoding="utf-8").partition("\n\n")[2].strip()
        if f"<!-- {name} -->\n```{language}\n{code}\n```" not in readme:
            yield f"README.md does not show {name} as it is"


check, where, *what = sys.argv[1:]
problems = sorted(globals()["check_" + check](pathlib.Path(where), *what))
print("\n".join(problems))
sys.exit(bool(problems))
