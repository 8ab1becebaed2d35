#!/usr/bin/env python3
"""Measures the library beside its peers; ./dev bench builds what it needs and calls it.

Prints a table and writes build/bench.json. Every figure is taken in separate server and client
processes; in each round every row is measured for every program before the next row begins. Fails
when a reply was wrong or lost. A figure is the median of the rounds, a ratio is the library's
figure through the peer's.
"""

import argparse
import contextlib
import json
import os
import pathlib
import platform
import statistics
import sys
import time

import soak
from programs import Fault, Program, Tally, allow_many_descriptors, free_port

BUILD = pathlib.Path(__file__).resolve().parent.parent / "build"
LIBRARY = "library"
PEERS = ("sockets", "nng", "zeromq")
NOISY_SPREAD = 0.2
CLIENTS_PER_PROCESS = 250
MOST_CLIENTS = 800  # W9 looks no further

# Key, what it is, unit.
ROWS = (
    ("W1 p50", "one synchronous request of 64 bytes, half below", "us"),
    ("W1 p99", "99 of 100 below", "us"),
    ("W2", "64 bytes, up to 1000 under way, 1 connection", "/s"),
    ("W2 cpu", "processor time of the server for each of them", "us"),
    ("W3", "the same on 8 connections", "/s"),
    ("W4", "1 MiB each way, one after the other", "MiB/s"),
    ("W4 four", "1 MiB each way, up to 4 under way", "MiB/s"),
    ("W5", "processor time of a server with 10 idle clients", "ms/s"),
    ("W6", "resident memory with 100 idle clients", "MiB"),
    ("W6 more", "of each further client", "KiB"),
    ("W7 199 p50", "W1 among 199 idle clients, half below", "us"),
    ("W7 199 p99", "99 of 100 below", "us"),
    ("W7 999 p50", "W1 among 999 idle clients, half below", "us"),
    ("W7 999 p99", "99 of 100 below", "us"),
    ("W8", "from the server's start to the first reply", "ms"),
    ("W9", "clients that get every reply within a second", ""),
)
STEADY = ("W2", "W3", "W4", "W4 four", "W5", "W6")  # tell whether the machine was quiet


class Effort:
    """How long and how often."""

    def __init__(self, quick):
        self.quick = quick
        self.rounds = 1 if quick else 3
        self.latency_s = 1 if quick else 5
        self.stream_s = 0.8 if quick else 2
        self.settle_s = 0.6 if quick else 1.5
        self.idle_s = 1 if quick else 2
        self.busy_s = 2 if quick else 10
        self.second_turns = 3
        self.close_enough = 1.1


# --- the rows: each takes a program and answers figures by row --------------------------------


def latency(program, effort):
    with program.server() as server:
        got = program.ask("latency", server.port, 64, 20000, effort.latency_s)
    return {"W1 p50": got["p50_us"], "W1 p99": got["p99_us"]}


def stream(program, effort):
    with program.server() as server:
        cpu = server.cpu_s()
        one = program.ask("pipeline", server.port, 1, 64, 1000, effort.stream_s)
        cpu = server.cpu_s() - cpu
    with program.server() as server:
        eight = program.ask("pipeline", server.port, 8, 64, 1000, effort.stream_s)
    return {"W2": one["per_s"], "W2 cpu": cpu / one["count"] * 1e6, "W3": eight["per_s"]}


def large(program, effort):
    mib = 1024 * 1024
    with program.server() as server:
        single = program.ask("latency", server.port, mib, 20000, effort.stream_s)
        four = program.ask("pipeline", server.port, 1, mib, 4, effort.stream_s)
    return {"W4": single["mib_s"], "W4 four": four["mib_s"]}


def connect_idle(clients, count, effort):
    clients.say(count)
    clients.expect()
    time.sleep(effort.settle_s)


def idle(program, effort):
    with program.server() as server, program.process("idle", server.port) as clients:
        connect_idle(clients, 10, effort)
        cpu, start = server.cpu_s(), time.monotonic()
        time.sleep(effort.idle_s)
        cpu, seconds = server.cpu_s() - cpu, time.monotonic() - start
        connect_idle(clients, 100, effort)
        hundred = server.resident_bytes()
        connect_idle(clients, 200, effort)
        further = (server.resident_bytes() - hundred) / 100
    return {"W5": cpu * 1000 / seconds, "W6": hundred / 2**20, "W6 more": further / 1024}


def among_idle(program, effort):
    figures = {}
    for others in (199,) if effort.quick else (199, 999):
        with program.server() as server, program.process("idle", server.port) as clients:
            connect_idle(clients, others, effort)
            got = program.ask("latency", server.port, 64, 20000, effort.busy_s)
        figures[f"W7 {others} p50"] = got["p50_us"]
        figures[f"W7 {others} p99"] = got["p99_us"]
    return figures


def first_reply(program, _):
    # The client is loaded and waits for the word, so that only the server's start counts.
    with program.process("first", port := free_port()) as client:
        start = time.monotonic()
        with program.process("server", port) as server:
            server.expect()
            client.say("go")
            answer = client.expect()
    program.note(answer, "first")
    return {"W8": (answer["at_s"] - start) * 1000}


def is_quick_enough(program, count, effort):
    with contextlib.ExitStack() as stack:
        server = stack.enter_context(program.server())
        groups = [min(CLIENTS_PER_PROCESS, count - at)
                  for at in range(0, count, CLIENTS_PER_PROCESS)]
        clients = [stack.enter_context(
            program.process("many", server.port, group, effort.second_turns)) for group in groups]
        for client in clients:
            client.expect()
        for client in clients:
            client.say("go")
        answers = [client.expect() for client in clients]
    for answer in answers:
        program.note(answer, "many")
    return not any(answer["late"] for answer in answers)


def most_clients(program, effort):
    if effort.quick:
        return {}
    good, bad = 0, 25
    while bad <= MOST_CLIENTS and is_quick_enough(program, bad, effort):
        good, bad = bad, bad * 2
    if bad > MOST_CLIENTS:
        return {"W9": good}
    while good > 0 and bad / good > effort.close_enough:
        middle = (good + bad) // 2
        if is_quick_enough(program, middle, effort):
            good = middle
        else:
            bad = middle
    return {"W9": good}


MEASURES = (
    # rows, measure, in every round
    (("W1",), latency, True),
    (("W2", "W3"), stream, True),
    (("W4",), large, True),
    (("W5", "W6"), idle, True),
    (("W7",), among_idle, False),  # takes long: in the first round only
    (("W8",), first_reply, True),
    (("W9",), most_clients, False),
)


def measure(programs, effort, only):
    """Figures of each round: {program: {row: [figure, ...]}}"""
    figures = {program.name: {} for program in programs}
    for turn in range(effort.rounds):
        for rows, take, every_round in MEASURES:
            if (turn > 0 and not every_round) or (only and not only & set(rows)):
                continue
            first = turn % len(programs)
            for program in programs[first:] + programs[:first]:
                start = time.monotonic()
                for row, figure in take(program, effort).items():
                    figures[program.name].setdefault(row, []).append(figure)
                print(f"  round {turn + 1} of {effort.rounds}: {' '.join(rows)} {program.name}"
                      f" ({time.monotonic() - start:.0f} s)", file=sys.stderr, flush=True)
    return figures


# --- results ----------------------------------------------------------------------------------


def spread(values):
    middle = statistics.median(values)
    return (max(values) - min(values)) / middle if middle else 0.0


def summary(figures, names):
    medians = {name: {row: statistics.median(values) for row, values in figures[name].items()}
               for name in names}
    ratios = {name: {row: medians[LIBRARY][row] / medians[name][row]
                     for row in medians[name] if medians[name][row]}
              for name in names if name != LIBRARY}
    spreads = {name: {row: spread(figures[name][row]) for row in STEADY
                      if len(figures[name].get(row, [])) > 1} for name in names}
    return medians, ratios, spreads


def figure_text(value):
    if value >= 1000:
        return f"{value:,.0f}".replace(",", " ")
    return f"{value:.3g}"


def print_table(medians, ratios, names):
    what_len = max(len(what) for _, what, _ in ROWS)
    head = f"{'':10}  {'':{what_len}}  {'':5}  {LIBRARY:>10}"
    print(head + "".join(f"  {name:>19}" for name in names[1:]))
    for row, what, unit in ROWS:
        if row not in medians[LIBRARY]:
            continue
        line = f"{row:10}  {what:{what_len}}  {unit:5}  {figure_text(medians[LIBRARY][row]):>10}"
        for name in names[1:]:
            cell = figure_text(medians[name][row])
            ratio = ratios[name].get(row)
            line += f"  {cell:>9} {'x ' + figure_text(ratio) if ratio else '':>9}"
        print(line)
    if len(names) > 1:
        print("x: the library's figure divided by this one")
    if any(medians[name].get("W9") == MOST_CLIENTS for name in names):
        print(f"W9: {MOST_CLIENTS} stands for that many or more")


def print_markdown(medians, ratios):
    """The table of docs/performance.md."""
    names = list(medians)
    print("| | | | " + " | ".join(names) + " |")
    print("|---|---|---" + "|---:" * len(names) + "|")
    for row, what, unit in ROWS:
        if row in medians[LIBRARY]:
            cells = [row, what, unit, figure_text(medians[LIBRARY][row])]
            for name in names[1:]:
                ratio = ratios[name].get(row)
                cells.append(figure_text(medians[name][row])
                             + (f" (x {figure_text(ratio)})" if ratio else ""))
            print("| " + " | ".join(cells) + " |")


def print_noise(spreads, load):
    loud = [f"{name} {row} {part:.0%}" for name, rows in spreads.items()
            for row, part in rows.items() if part > NOISY_SPREAD]
    busy = load > 0.5
    if busy:
        print(f"noisy: {load:.1f} threads of others were running when the bench began")
    if loud:
        print(f"noisy: between rounds these differed by more than {NOISY_SPREAD:.0%}: "
              + ", ".join(loud))
    if not any(spreads.values()):
        print("one round only: nothing to tell noise by")
    elif not busy and not loud:
        print(f"quiet: W2 to W6 of all rounds within {NOISY_SPREAD:.0%}")
    return busy or bool(loud)


def machine():
    model = "unknown"
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as file:
        for line in file:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    return {"processor": model, "cores": os.cpu_count(), "kernel": platform.release()}


# --- main -------------------------------------------------------------------------------------


def options():
    parser = argparse.ArgumentParser(prog="./dev bench")
    parser.add_argument("--quick", action="store_true",
                        help="one short round, without W9 and the 999 clients of W7")
    parser.add_argument("--peers", action="store_true",
                        help="beside bare sockets, nng and ZeroMQ")
    parser.add_argument("--beside", metavar="LIBRARY", help="and another build of the library")
    parser.add_argument("--only", metavar="W1,W2", default="", help="these rows alone")
    parser.add_argument("--table", action="store_true",
                        help="instead: the last run once more, in Markdown")
    parser.add_argument("--soak", metavar="MINUTES", type=float,
                        help="instead: a steady load of clients that come and go")
    return parser.parse_args()


def running_now():
    """Threads of others that run or wait for a processor."""
    counts = []
    for _ in range(10):
        with open("/proc/loadavg", encoding="ascii") as file:
            counts.append(int(file.read().split()[3].split("/")[0]) - 1)
        time.sleep(0.05)
    return statistics.mean(counts)


def main():
    args = options()
    allow_many_descriptors()
    tally = Tally()
    library = Program(LIBRARY, str(BUILD / "release" / "nrpc_bench"), tally)
    if args.soak:
        return soak.run(library, args.soak, BUILD / "soak.svg")

    if args.table:
        last = json.loads((BUILD / "bench.json").read_text(encoding="utf-8"))
        print_markdown(last["medians"], last["ratios"])
        return 0

    programs = [library]
    if args.beside:
        path = str(pathlib.Path(args.beside).resolve())
        programs.append(Program("beside", library.path, tally, library=path))
    if args.peers:
        programs += [Program(name, str(BUILD / "peers" / f"peer_{name}"), tally)
                     for name in PEERS]
    names = [program.name for program in programs]

    load = running_now()
    start = time.monotonic()
    figures = measure(programs, Effort(args.quick), set(filter(None, args.only.split(","))))
    medians, ratios, spreads = summary(figures, names)
    print_table(medians, ratios, names)
    noisy = print_noise(spreads, load)
    print(f"{tally.wrong} wrong and {tally.lost} lost replies, {time.monotonic() - start:.0f} s")
    results = {"machine": machine(), "quick": args.quick, "noisy": noisy, "wrong": tally.wrong,
               "lost": tally.lost, "rows": {row: {"what": what, "unit": unit}
                                            for row, what, unit in ROWS},
               "rounds": figures, "medians": medians, "ratios": ratios, "spreads": spreads}
    (BUILD / "bench.json").write_text(json.dumps(results, indent=1) + "\n", encoding="utf-8")
    return 1 if tally.wrong or tally.lost else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Fault as fault:
        print(fault, file=sys.stderr)
        sys.exit(1)
