#!/usr/bin/env python3
"""check_product.py <library>: the built library is what a host can load and a hardened system wants.

One line per property, "ok" or "FAULT"; fails when one is at fault.
"""
import re
import subprocess
import sys


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


library = sys.argv[1]
header = output_of("readelf", "-hW", library)
segments = output_of("readelf", "-lW", library)
dynamic = output_of("readelf", "-dW", library)
exported = sorted(line.split()[0] for line in output_of(
    "nm", "-D", "--defined-only", "--format=posix", library).splitlines())
wanted = {re.split("@", line.split()[0])[0] for line in output_of(
    "nm", "-D", "--undefined-only", "--format=posix", library).splitlines()}
# The C compiler's own start files refer to it, weakly, in every shared library.
wanted.discard("__cxa_finalize")

needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic))
flags = " ".join(re.findall(r"\((?:FLAGS|FLAGS_1)\)\s+(.*)", dynamic))
stack = re.search(r"GNU_STACK\s+(?:0x\w+\s+){5}(\S+)", segments)
fortified = sorted(name for name in wanted if re.fullmatch(r"__\w+_chk", name))
runtime = sorted(name for name in wanted if re.match(r"__cxa_|__gxx_|_Unwind_|_Z|__tls_get_addr$", name))

# Property, what was found, whether that is right.
PROPERTIES = [
    ("32-bit shared object for i386", "",
     all(re.search(pattern, header) for pattern in
         (r"Class:\s+ELF32", r"Machine:\s+Intel 80386", r"Type:\s+DYN"))),
    ("exports GetNewInf and ProcessNotifyLib alone", exported,
     exported == ["GetNewInf", "ProcessNotifyLib"]),
    ("needs libc alone", needed,
     "libc.so.6" in needed and needed <= {"libc.so.6", "ld-linux.so.2"}),
    ("nothing of the C++ runtime, no destructors at exit", runtime, not runtime),
    ("all symbols bound at load, then read-only", flags,
     "NOW" in flags.split() and "GNU_RELRO" in segments),
    ("stays loaded", flags, "NODELETE" in flags.split()),
    ("no executable stack", stack and stack[1], stack is not None and "E" not in stack[1]),
    ("no text relocations", flags, "TEXTREL" not in dynamic),
    ("stack protector", "", "__stack_chk_fail" in wanted),
    ("fortified calls", fortified, bool(fortified)),
    ("no search path of the build machine", "", not re.search(r"\((RPATH|RUNPATH)\)", dynamic)),
]

for name, found, right in PROPERTIES:
    print(f"ok    {name}" if right else f"FAULT {name}: {found}")
sys.exit(0 if all(right for _, _, right in PROPERTIES) else 1)
