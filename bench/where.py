#!/usr/bin/env python3
"""The parts of bench/where.sh that count: where.py <command> [argument...], see below."""

import collections
import json
import os
import re
import socket
import statistics
import subprocess
import sys
import time

from peer import wire_bytes
from programs import free_port

# --- instructions -----------------------------------------------------------------------------

# A stage is what its functions take with everything that they call.
STAGES = {
    "server": (
        ("receive: read, packets, assembly", ("ServeClient",)),
        ("take apart: records", ("ServeTask",)),
        ("handle: all of it", ("ServeMessage",)),
        ("  commands of the library", ("fnGetMsgKind", "fnGetRequestBin", "fnSendResultBin")),
        ("    in them, the host's heap", ("NrpcCallHost'2",)),
        ("send: packets, write", ("ServeResult",)),
        ("taking items, idle or not", ("TakeClient", "TakeTask", "TakeMessage", "TakeResult")),
        ("pauses", ("MySleep",)),
        ("everything", ("RunPoolWorker",)),
    ),
    "client": (
        ("ask: the command", ("fnSendAsynRequestBin",)),
        ("send: packets, write", ("ClientSendData",)),
        ("receive: read, packets, records", ("ClientRecvData",)),
        ("handle: all of it", ("RunRoutine",)),
        ("  commands of the library", ("fnClientGetMsgKind", "fnGetResultBin")),
        ("    in them, the host's heap", ("NrpcCallHost'2",)),
        ("pauses", ("MySleep",)),
        ("everything", ("ClientFunSendThread", "ClientFunRecvThread", "ClientFunWorkThread",
                        "fnSendAsynRequestBin")),
    ),
}
# Every allocation of the library goes through TakeCounted or NewRecord, and every lock but those of
# the process through MyEnterCriticalSection.
COUNTED = (("allocations", ("TakeCounted", "malloc")), ("locks", ("MyEnterCriticalSection",
           "pthread_mutex_lock")), ("clock_gettime", ("clock_gettime",)), ("poll", ("poll",)),
           ("recv", ("recv",)), ("send", ("send",)), ("clock_nanosleep", ("clock_nanosleep",)))


class Profile:
    """Costs of a callgrind file: of each function alone and with what it calls, by short name."""

    def __init__(self, path):
        self.own = collections.Counter()
        self.whole = collections.Counter()
        self.objects = collections.Counter()
        self.calls = collections.Counter()  # (object of the caller, caller, callee)
        with open(path, encoding="utf-8", errors="replace") as file:
            self._read(file)

    def _read(self, file):
        names = {"fn": {}, "ob": {}}
        function = thing = callee = ""
        called = 0

        def full(kind, text):
            number, _, name = text.partition(" ")
            if name:
                names[kind][number] = name
            return names[kind][number]

        for line in file:
            kind, _, text = line.strip().partition("=")
            if kind == "ob":
                thing = full("ob", text).rsplit("/", 1)[-1]
            elif kind == "cob":
                full("ob", text)
            elif kind == "fn":
                function = short(full("fn", text))
            elif kind == "cfn":
                callee = short(full("fn", text))
            elif kind == "calls":
                called = int(text.split()[0])
                self.calls[thing, function, callee] += called
            elif line[:1].isdigit() or line[:1] in "+-*":
                cost = int(line.split()[-1])
                self.whole[function] += cost
                if not called:
                    self.own[function] += cost
                    self.objects[thing] += cost
                called = 0


def short(name):
    """"nrpc::ServeClient(nrpc::ThreadArg*, void*)" is "ServeClient"; a "'2" stays."""
    again = "'2" if name.endswith("'2") else ""
    name = re.sub(r"\(.*", "", name.removesuffix("'2"))
    return name.rsplit("::", 1)[-1] + again


def instructions(side, path, count):
    profile, count = Profile(path), int(count)
    print(f"{side}: instructions of each of {count} requests, everything counted")
    for title, functions in STAGES[side]:
        print(f"  {title:36} {sum(profile.whole[name] for name in functions) / count:9.0f}")
    print("  by object: " + ", ".join(f"{thing} {cost / count:.0f}" for thing, cost in
                                      profile.objects.most_common(5)))
    print("  and for each request, by who asks")
    for title, callees in COUNTED:
        callers = collections.Counter()
        for (thing, caller, callee), number in profile.calls.items():
            if thing == "libnrpc.so" and callee in callees and caller not in callees:
                callers[caller] += number / count
        parts = ", ".join(f"{caller} {number:.2f}" for caller, number in callers.most_common(12)
                          if number >= 0.005)
        print(f"  {title:16} {sum(callers.values()):6.2f}  {parts}")


# --- a client of the protocol that has no pause of its own ------------------------------------


def exchange(port, count):
    """Times of requests of 64 bytes, sent at any moment of the server's pauses."""
    request = wire_bytes(11, bytes(64))
    times = []
    with socket.create_connection(("127.0.0.1", int(port))) as connection:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for turn in range(int(count)):
            time.sleep(0.02 + (turn * 7919 % 1000) / 1e5)
            start = time.perf_counter()
            connection.sendall(request)
            got = connection.recv(len(request), socket.MSG_WAITALL)
            times.append((time.perf_counter() - start) * 1e6)
            if got != request:
                sys.exit("a wrong reply, or the end of the connection")
    times.sort()
    print(f"reply to a client without pauses, us: least {times[0]:.0f},"
          f" half below {statistics.median(times):.0f}, 99 of 100 below"
          f" {times[len(times) * 99 // 100]:.0f}, greatest {times[-1]:.0f}")


# --- idle -------------------------------------------------------------------------------------


def switches(pid):
    """Times that threads of each name gave up the processor to wait."""
    counts = collections.Counter()
    threads = collections.Counter()
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/status", encoding="ascii") as file:
            fields = dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)
        counts[fields["Name"]] += int(fields["voluntary_ctxt_switches"])
        threads[fields["Name"]] += 1
    return counts, threads


def cpu_s(pid):
    return time.clock_gettime((~int(pid) << 3) | 2)


def wakeups(pid, seconds):
    before, _ = switches(pid)
    cpu = cpu_s(pid)
    time.sleep(float(seconds))
    cpu = cpu_s(pid) - cpu
    after, threads = switches(pid)
    print(f"idle: {cpu / float(seconds) * 1000:.1f} ms processor time a second; wake-ups a second:")
    for name, count in (after - before).most_common():
        print(f"  {name:16} {count / float(seconds):8.0f}  of {threads[name]} threads")
    print(f"  {'all':16} {sum((after - before).values()) / float(seconds):8.0f}")


# --- growth -----------------------------------------------------------------------------------


def cost(pid, program, port, connections, size, limit, seconds):
    cpu = cpu_s(pid)
    load = ["pipeline", port, connections, size, limit, seconds]
    got = json.loads(subprocess.run([program, *load], check=True, stdout=subprocess.PIPE).stdout)
    cpu = cpu_s(pid) - cpu
    if got["wrong"] or got["lost"]:
        sys.exit(f"wrong or lost replies: {got}")
    print(f"  {connections:>4} connections, {size:>7} bytes: {cpu / got['count'] * 1e6:8.1f} us,"
          f" {cpu / got['count'] / int(size) * 1e9:7.2f} ns a byte")


COMMANDS = {"port": lambda: print(free_port()), "instructions": instructions,
            "exchange": exchange, "wakeups": wakeups, "cost": cost}

if __name__ == "__main__":
    COMMANDS[sys.argv[1]](*sys.argv[2:])
