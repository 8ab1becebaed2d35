#!/usr/bin/env python3
"""Finds what the documents say and the project does not: dead links and paths, commands and options
that do not exist, and an exchange that looks otherwise than the README shows it.

usage: check_docs.py <nrpc-host>
"""

import pathlib
import re
import socket
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
HOST = pathlib.Path(sys.argv[1]).resolve()
TOP = {entry.name for entry in ROOT.iterdir()} - {"build"}
PAGES = sorted(path for pattern in ("*.md", "docs/*.md", "docs/*.1", "examples/**/*")
               for path in ROOT.glob(pattern) if path.is_file())


def output_of(*command):
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=True).stdout


def anchors(page):
    """The names under which the page's headings can be linked to."""
    heads = re.findall(r"^#+ (.*)$", page.read_text(encoding="utf-8"), re.M)
    return {re.sub(r"[^\w\- ]", "", head.lower()).replace(" ", "-") for head in heads}


def dead_links(page, line):
    for target in re.findall(r"\]\(([^)\s]+)\)", line):
        name, _, anchor = target.partition("#")
        to = page.parent / name if name else page
        if "://" in target:
            continue
        if not to.exists():
            yield f"links to {target}, which is not there"
        elif anchor and anchor not in anchors(to):
            yield f"links to {target}, a heading that is not there"


def dead_paths(_, line):
    for path in re.findall(r"(?<![\w/.\-])\.?[\w\-]+(?:/[\w.{},*\-]+)+", line):
        names = re.match(r"(.*)\{(.*)\}(.*)", path)
        for one in [names[1] + part + names[3] for part in names[2].split(",")] if names else [path]:
            one = one.rstrip(".,")
            if one.split("/")[0] in TOP and not any(ROOT.glob(one)):
                yield f"names {one}, which is not there"


DEV = set(re.findall(r"^  ([a-z]+)", output_of("./dev", "help"), re.M)) | {"help"}


def unknown_dev(_, line):
    for command in re.findall(r"\./dev ([a-z]+)", line):
        if command not in DEV:
            yield f"shows ./dev {command}, which is no command"


HELP = {"": output_of(HOST, "--help")}
for name in re.findall(r"^  ([a-z]+)  ", HELP[""], re.M):
    HELP[name] = output_of(HOST, name, "--help")


def unknown_host(_, line):
    for arguments in re.findall(r"nrpc-host((?: +[\w.:\-]+)+)", line):
        words = arguments.split()
        command = next((word for word in words if word in HELP), None)
        if command is None and words[0].startswith("-"):
            command = ""
        if command is None:
            continue  # prose
        for option in re.findall(r"(?<=\s)--[a-z]+", arguments):
            if option not in HELP[command] + HELP[""]:
                yield f"shows nrpc-host {command} {option}, which is no option"


# --- the exchange -----------------------------------------------------------------------------


def shape(line):
    """The line without what differs from run to run."""
    return re.sub(r"\d+", "0", line).split()


def shown_exchange(page):
    """What the two terminals of a page show: the left one's lines and the right one's."""
    block = re.search(r"^(\$ .*nrpc-host serve.*?) {3,}(\$ .*nrpc-host call.*)\n((?:.+\n)*?)```",
                      page.read_text(encoding="utf-8"), re.M)
    if block is None:
        return None
    column = block.start(2) - block.start()
    left, right = [], []
    for line in block[0].splitlines()[:-1]:
        cut = column if line[column - 2:column].isspace() else len(line)
        left.append(line[:cut].rstrip())
        right += [line[cut:]] if line[cut:] else []
    return left, right


def differing_lines(page):
    left, right = shown_exchange(page) or ([], [])
    if not left:
        yield "shows no exchange"
        return
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = str(probe.getsockname()[1])
    with subprocess.Popen([HOST, "serve", "--port", port], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as server:
        seen = [server.stdout.readline()]
        asked = output_of(HOST, "call", f"127.0.0.1:{port}", right[0].split()[-1]).splitlines()
        seen += [server.stdout.readline() for _ in left[2:]]
        server.terminate()
    for shown, real in [*zip(left[1:], seen), *zip(right[1:], asked)]:
        if shape(shown) != shape(real):
            yield f"shows {shown!r}, but it is {real.strip()!r}"


faults = []
for page in PAGES:
    for number, line in enumerate(page.read_text(encoding="utf-8").splitlines(), 1):
        for check in (dead_links, dead_paths, unknown_dev, unknown_host):
            faults += [f"{page.relative_to(ROOT)}:{number}: {fault}" for fault in check(page, line)]
for page in (ROOT / "README.md", ROOT / "README.zh-CN.md"):
    faults += [f"{page.name}: {fault}" for fault in differing_lines(page)]
for fault in faults:
    print(fault)
sys.exit(1 if faults else 0)
