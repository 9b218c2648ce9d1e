#!/usr/bin/env python3
"""Checks what no compiler checks: include directions, public headers, exported symbols, the README's code.

Each subcommand prints what is wrong, a line each, and exits with 1 when there is anything.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*(<[^>]+>|"[^"]+")', re.MULTILINE)
SOURCES = (".h", ".cpp", ".c")

# A system or foreign header that belongs to one place, so that a second one would be a second answer to its question.
ONLY_IN = {
    "sys/epoll.h": re.compile(r"^tavronet/platform/SocketWatch\.cpp$"),
    "pugixml.hpp": re.compile(r"^tavronet/upnp/Modern\w*\.(h|cpp)$"),
    "dlfcn.h": re.compile(r"^tavronet/platform/DynamicLibrary\.cpp$"),
    "zlib.h": re.compile(r"^tavronet/socket/ZLibLibrary\.h$"),
    "openssl/": re.compile(r"^tavronet/openssl/\w*\.(h|cpp)$"), # all headers of that folder
}
# Here only headers may not form a circle: the queue, the sockets and their delivery are one machine in several files.
ONE_MACHINE = {"platform"}
# The headers of the C library that a public header may include, beside all of C++'s own (which have no ".h").
C_HEADERS = {"stdarg.h", "stdbool.h", "stddef.h", "stdint.h", "wchar.h"}


def source_files(root, *folders):
    for folder in folders:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in SOURCES:
                yield path.relative_to(root).as_posix()


def includes_of(root, name):
    """Pairs (name, is own): own ones are written in quotes."""
    text = (root / name).read_text(encoding="utf-8")
    return [(found[1:-1], found[0] == '"') for found in INCLUDE.findall(text)]


# --- includes ---------------------------------------------------------------------------------------------------


def layers_below(rules):
    """"socket:net" and so on -> {layer: set of the layers it may include, itself among them}."""
    allowed = {}
    for rule in rules:
        layer, _, below = rule.partition(":")
        allowed[layer] = {layer}.union(*(allowed[name] for name in below.split(",") if name))
    return allowed


def check_layer_file(name, included, own, allowed):
    layer = layer_of(name)
    if own and not layer_of(included):
        yield f"{name}: \"{included}\" is not written from the root (tavronet/<layer>/...)"
    elif own and layer_of(included) not in allowed[layer]:
        yield f"{name}: layer {layer} includes {layer_of(included)}, {included}"
    belongs = ONLY_IN.get(included) or ONLY_IN.get(included.partition("/")[0] + "/")
    if belongs and not belongs.match(name):
        yield f"{name}: <{included}> belongs elsewhere ({belongs.pattern})"


def check_public_header(name, included, own, public):
    if own and included not in public:
        yield f"{name}: a public header includes {included}, which is not installed"
    if not own and ("/" in included or ("." in included and included not in C_HEADERS)):
        yield f"{name}: a public header includes <{included}>"


def layer_of(name):
    """The layer of tavronet/<layer>/..., empty for any other name."""
    parts = name.split("/")
    return parts[1] if len(parts) == 3 and parts[0] == "tavronet" else ""


def unit_of(name):
    """A header and its source are one unit: neither may need what needs the other."""
    return name if layer_of(name) in ONE_MACHINE else os.path.splitext(name)[0]


def circles(edges):
    """Every circle found by a walk along the edges {unit: set of units}, as a list of units."""
    finished, path = set(), []

    def walk(unit):
        if unit in path:
            yield path[path.index(unit):] + [unit]
            return
        if unit in finished:
            return
        path.append(unit)
        for target in sorted(edges.get(unit, ())):
            yield from walk(target)
        path.pop()
        finished.add(unit)

    for unit in sorted(edges):
        yield from walk(unit)


def check_includes(root, arguments):
    allowed = layers_below(arguments.layers)
    public = set(arguments.public)
    edges = {}
    for layer in allowed:
        for name in source_files(root, f"tavronet/{layer}"):
            unit = unit_of(name)
            for included, own in includes_of(root, name):
                yield from check_layer_file(name, included, own, allowed)
                if name in public:
                    yield from check_public_header(name, included, own, public)
                if own and unit_of(included) != unit:
                    edges.setdefault(unit, set()).add(unit_of(included))
    for circle in circles(edges):
        yield "circle of includes: " + " -> ".join(circle)

    for name in source_files(root, "tools", "examples"):
        for included, own in includes_of(root, name):
            if own and included.startswith("tavronet/") and included not in public:
                yield f"{name}: includes {included}, which is not installed"


# --- public headers ---------------------------------------------------------------------------------------------


def check_umbrella(root, arguments):
    name = "tavronet/tavronet.h"
    included = {header for header, own in includes_of(root, name) if own}
    public = set(arguments.headers) - {name}
    yield from (f"{name} lacks {header}" for header in sorted(public - included))
    yield from (f"{name} includes {header}, which is not installed" for header in sorted(included - public))


def check_stand_alone(root, arguments):
    strict = ["-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror", "-I", str(root)]

    def compiles(command, header):
        done = subprocess.run([*command, *strict, "-"], input=f'#include "{header}"\n', text=True,
                              capture_output=True, check=False)
        return None if done.returncode == 0 else f"{header} does not compile alone:\n{done.stderr}"

    jobs = [([arguments.cxx, "-std=c++20", "-x", "c++"], header) for header in arguments.headers]
    jobs += [([arguments.c, "-std=c99", "-x", "c"], header) for header in arguments.headers
             if header.endswith(("api/UPnPApi.h", "platform/Event.h"))]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        yield from filter(None, pool.map(lambda job: compiles(*job), jobs))


# --- exports ----------------------------------------------------------------------------------------------------


def declared_names(root, headers):
    """The classes and functions that public headers mark with TAVRONET_API; internal namespaces are left off."""
    names = set()
    for header in headers:
        text = re.sub(r"//[^\n]*|/\*.*?\*/", "", (root / header).read_text(encoding="utf-8"), flags=re.DOTALL)
        names.update(re.findall(r"(?:class|struct)\s+TAVRONET_API\s+(\w+)", text))
        names.update(re.findall(r"^\s*(?:extern\s+\"C\"\s+)?TAVRONET_API\s[^;{(]*?(\w+)\s*\(", text, re.MULTILINE))
    return names


def exported_names(nm, library):
    """Pairs (first name of the symbol without namespace tavronet, whole demangled symbol)."""
    listing = subprocess.run([nm, "-D", "-C", "--defined-only", library], text=True, capture_output=True, check=True)
    for line in listing.stdout.splitlines():
        symbol = line.split(" ", 2)[2]
        entity = re.sub(r"^(?:vtable for|typeinfo for|typeinfo name for|VTT for|guard variable for|"
                        r"(?:non-)?virtual thunk to) ", "", symbol)
        signature = re.split(r"\(|::operator\b", entity, maxsplit=1)[0]
        name = re.split(r"\s(?![^<]*>)", signature)[-1]         # a template's symbol starts with its return type
        yield re.match(r"(?:tavronet::)?(?:platform::)?(~?\w*)", name).group(1), symbol


def check_exports(root, arguments):
    declared = declared_names(root, arguments.headers)
    exported = list(exported_names(arguments.nm, arguments.library))
    for name, symbol in exported:
        if name not in declared:
            yield f"exported, but no public header declares it: {symbol}"
    for name in sorted(declared - {name for name, _ in exported}):
        yield f"declared in a public header, but not exported: {name}"


# --- the README -------------------------------------------------------------------------------------------------


def check_readme(root, _arguments):
    """A code block after a line <!-- examples/x.cpp --> shows what stands in that file below its first empty line."""
    readme = (root / "README.md").read_text(encoding="utf-8")
    shown = re.findall(r"^<!-- (examples/\S+) -->\n```\w+\n(.*?)^```", readme, re.MULTILINE | re.DOTALL)
    if len(shown) < 2:
        yield "README.md: the examples in C++ and in C are not shown"
    for name, text in shown:
        example = (root / name).read_text(encoding="utf-8")
        if text.strip() != example.partition("\n\n")[2].strip():
            yield f"README.md shows {name} as it is not"


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--root", type=pathlib.Path, required=True)
    commands = parser.add_subparsers(required=True)

    def command(name, check, *positional):
        sub = commands.add_parser(name)
        sub.set_defaults(check=check)
        for argument in positional:
            sub.add_argument(argument)
        return sub

    includes = command("includes", check_includes)
    includes.add_argument("layers", nargs="+")
    includes.add_argument("--public", nargs="+")
    command("umbrella", check_umbrella).add_argument("headers", nargs="+")
    command("stand-alone", check_stand_alone, "cxx", "c").add_argument("headers", nargs="+")
    command("exports", check_exports, "nm", "library").add_argument("headers", nargs="+")
    command("readme", check_readme)
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    problems = list(arguments.check(arguments.root, arguments))
    print("\n".join(problems))
    sys.exit(1 if problems else 0)


main()
