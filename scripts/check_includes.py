#!/usr/bin/env python3
"""Includes go one way, down: what the files of each room may include of ours.

A file belongs to the longest entry that its path begins with. It may include what begins with one
of the entry's names, written as include lines are; "./" stands for a file beside it.
"""
import pathlib
import re
import sys

HOST = ("host/frame.h", "host/routine.h", "host/host_call.h", "host/overdue.h")
BELOW = ("protocol/", "support/")  # what both engines and their commands stand on

ALLOWED = {
    "src/support/": ("support/",),
    "src/protocol/": ("protocol/", "support/"),
    "src/host/": HOST + ("support/",),
    "src/host/library_info": ("host/", "server_commands/", "client_commands/"),
    "src/server/": ("server/",) + BELOW,
    "src/server/context.": ("server/", "host/frame.h") + BELOW,  # keeps the handler, a word of the host
    "src/server/pools.": ("server/", "host/routine.h", "host/overdue.h") + BELOW,  # ends handlers
    "src/server/dispatch.": ("server/",) + HOST + BELOW,
    "src/client/": ("client/",) + BELOW,
    "src/client/context.": ("client/", "host/frame.h", "host/routine.h") + BELOW,
    "src/client/connection.": ("client/", "host/overdue.h") + BELOW,
    "src/client/dispatch.": ("client/",) + HOST + BELOW,
    "src/server_commands/": ("server_commands/", "server/") + HOST + BELOW,
    "src/client_commands/": ("client_commands/", "client/") + HOST + BELOW,
    # The stand-in host knows the library as a host does: its frame and its descriptor.
    "tools/host/": ("./", "hostkit/", "host/frame.h", "host/library_info.h"),
}


def faults_of(path):
    room = max((entry for entry in ALLOWED if str(path).startswith(entry)), key=len, default=None)
    if room is None:
        yield f"{path}: belongs to no room"
        return
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        include = re.match(r'\s*#\s*include\s+"([^"]+)"', line)
        if include:
            name = include[1] if "/" in include[1] else "./" + include[1]
            if not name.startswith(ALLOWED[room]):
                yield f"{path}:{number}: may not include {include[1]}"


files = [path for root in ("src", "tools") for path in sorted(pathlib.Path(root).rglob("*"))
         if path.suffix in (".h", ".cpp")]
faults = [fault for path in files for fault in faults_of(path)]
print("\n".join(faults))
sys.exit(1 if faults or not files else 0)
