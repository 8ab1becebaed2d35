#!/usr/bin/env python3
"""tool_test.py <nrpc-host>: command lines, unwritable output, interrupts; one line for each fault."""
import json
import os
import re
import signal
import socket
import subprocess
import sys
import time

TOOL = os.path.abspath(sys.argv[1])
LOOPBACK = "127.0.0.1", 0
PATIENCE_S = 100

ROWS = [  # exit status, a whole line of either output, arguments
    (0, r"nrpc-host \d+\.\d+\.\d+", "--version"),
    *((0, r"  130  .+", f"{name} --help") for name in ("", "serve", "call", "load", "demo")),
    (2, r"nrpc-host: a subcommand .+", ""),
    (2, r"nrpc-host: .*--often.*", "call {echo} hello --often"),
    (2, r"nrpc-host: 7000: not HOST:PORT .+", "call 7000 hello"),
    (2, r"nrpc-host: nowhere: not readable or empty", "call {echo} --file nowhere"),
    (1, r"nrpc-host: cannot load .+", "--library /nowhere describe"),
    (1, r"nrpc-host: cannot connect to {closed}", "call {closed} hello"),
    (1, r"nrpc-host: cannot start the service on port \d+", "serve --port {port}"),
    (1, r"nrpc-host: no reply within 1 ms", "call {mute} hello --timeout 1"),
    (1, r'.*"replies":0,.*', "call {mute} hello --async --json --timeout 1"),
    (0, r'{{"event":"reply","ms":[\d.]+,"bytes":6,"text":"你好吗"}}', "call {echo} 你好吗 --json"),
    (0, r'.*"replies":9,.*', "call {echo} --bytes 9000 --repeat 9 --async --json"),
    (0, r'.*"replies":40,"wrong":0.*', "load {echo} --clients 2 --requests 40 --json"),
    (0, r'.*"passed":2\d,"failed":0,.*', "demo --json"),
]
UNWRITABLE = ["--help", "--version", "describe", "demo", "serve --port {free}", "call {echo} hello",
              "call {echo} hello --async --json", "load {echo} --requests 9"]
COMPLAINT = "nrpc-host: cannot write the output: No space left on device\n"

g_Places = {}  # what the braces in arguments and lines stand for
g_Children = []
g_Faults = []


def address(listening):
    return f"127.0.0.1:{listening.getsockname()[1]}"


def expect(condition, what):
    if not condition:
        g_Faults.append(what)
        print("FAULT", what, flush=True)


def start(arguments, output=subprocess.PIPE, **more):
    command = [TOOL, *arguments.format(**g_Places).split()]
    g_Children.append(subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=subprocess.PIPE, encoding="utf-8", **more))
    return g_Children[-1]


def expect_end(process, arguments, status, line):
    out, err = process.communicate(timeout=PATIENCE_S)
    expect(process.returncode == status, f"{arguments}: status {process.returncode}, not {status}")
    expect(re.search(f"^{line.format(**g_Places)}$", out + err, re.MULTILINE),
           f"{arguments}: no line {line} in {out[-500:]!r} {err!r}")
    return [json.loads(text) for text in out.splitlines()] if "--json" in arguments else []


def try_interrupts():
    process = start("call {echo} hello --repeat 1000000")
    process.stdout.readline()
    process.send_signal(signal.SIGINT)
    expect_end(process, "call, interrupted", 130, r"\d+ of 1000000 replies in .+")
    for kind in "", " --async":
        with socket.create_server(LOOPBACK) as silent:
            arguments = f"call {address(silent)} hello --repeat 2 --timeout 900000 --json{kind}"
            process = start(arguments)
            with silent.accept()[0] as connection:
                connection.recv(1)  # a request is under way
                process.send_signal(signal.SIGTERM)
                expect_end(process, arguments, 130, r'.*"replies":0,.*"interrupted":true}}')
    for command in "call {} hello", "load {}":
        with socket.create_server(LOOPBACK, backlog=0) as full:
            arguments = command.format(address(full))
            connecting = b":%04X 02 " % full.getsockname()[1]
            with socket.create_connection(full.getsockname()):  # all that it takes
                process = start(arguments)
                while process.poll() is None and connecting not in open("/proc/net/tcp", "rb").read():
                    time.sleep(0.01)
                process.send_signal(signal.SIGINT)
                expect_end(process, arguments, 130, r"nrpc-host: interrupted")


def main():
    reading, writing = os.pipe()
    os.close(reading)
    with open("/dev/full", "wb") as full, socket.create_server(LOOPBACK) as mute:
        with socket.create_server(LOOPBACK) as free, socket.create_server(LOOPBACK) as closed:
            g_Places.update(mute=address(mute), closed=address(closed), echo=address(free),
                            port=free.getsockname()[1], free=closed.getsockname()[1])
        server = start("serve --port {port} --push 1 --json")
        expect(server.stdout.readline().startswith('{"event":"started","port":'), "serve: no start")
        try:
            for status, line, arguments in ROWS:
                expect_end(start(arguments), arguments, status, line)
            for arguments in UNWRITABLE:
                for output, wanted in (full, (COMPLAINT, 1)), (writing, ("", -signal.SIGPIPE)):
                    process = start(arguments, output, restore_signals=False)  # it is ignored
                    end = process.communicate(timeout=PATIENCE_S)[1], process.returncode
                    expect(end == wanted, f"{arguments}, unwritable output: {end}, not {wanted}")
            try_interrupts()
            server.send_signal(signal.SIGTERM)
            events = expect_end(server, "serve --json", 0, r'{{"event":"stopped"}}')
        finally:
            for child in g_Children:
                child.kill()
    expect(len({event["event"] for event in events}) == 6, "serve --json: not all kinds of events")
    return bool(g_Faults)


if __name__ == "__main__":
    sys.exit(main())
