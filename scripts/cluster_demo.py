#!/usr/bin/env python3
"""cluster_demo.py <nrpc-host>: two servers behind haproxy on the loopback, under load, in the clear
and through mutual TLS; one of them is drained while the load goes on.

It runs the configurations of examples/deploy as they are. Exits with 1 when something was lost that
need not have been, or when somebody without a certificate was answered.
"""
import contextlib
import csv
import json
import os
import pathlib
import socket
import ssl
import subprocess
import sys
import tempfile
import time

DEPLOY = pathlib.Path(__file__).resolve().parent.parent / "examples" / "deploy"
CLIENTS = 8
LOAD_S = 6
DRAIN_AFTER_S = 2
TIMEOUT_MS = 1000  # so long a client waits before it knows that its connection is lost
PATIENCE_S = 60
PING = bytes.fromhex("4e4d534730303131 18000000 00000000 18000000") + b"<Msg0011>4</Msg0011>ping"

faults = []


def say(text):
    print("      " + text, flush=True)


def check(right, text):
    print(("ok    " if right else "FAULT ") + text, flush=True)
    if not right:
        faults.append(text)


def wait_until(reached, what):
    deadline = time.monotonic() + PATIENCE_S
    while not reached():
        if time.monotonic() > deadline:
            raise TimeoutError("not in time: " + what)
        time.sleep(0.05)


def free_ports(count):
    with contextlib.ExitStack() as probes:
        servers = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
        return [probes.enter_context(server).getsockname()[1] for server in servers]


def answers(port, context=None):
    """Whether a ping through this port is answered; with a context, over TLS."""
    try:
        with contextlib.ExitStack() as stack:
            sock = stack.enter_context(socket.create_connection(("127.0.0.1", port), PATIENCE_S))
            if context is not None:
                sock = stack.enter_context(context.wrap_socket(sock, server_hostname="nrpc-server"))
            sock.sendall(PING)
            return sock.recv(8) == PING[:8]
    except OSError:
        return False


class Balancer:
    """The administration socket of the haproxy in front of the servers."""

    def __init__(self, path):
        self._path = path

    def tell(self, command):
        with socket.socket(socket.AF_UNIX) as sock:
            sock.connect(self._path)
            sock.sendall(command.encode() + b"\n")
            answer = b""
            while data := sock.recv(1 << 16):
                answer += data
        return answer.decode().lstrip("# ")

    def servers(self):
        """By name, the row of haproxy's statistics."""
        rows = csv.DictReader(self.tell("show stat").splitlines())
        return {row["svname"]: row for row in rows
                if row["pxname"] == "nrpc" and row["svname"] in ("a", "b")}

    def connections(self, which):
        """By server, those that there are now ("scur") or have been ("stot")."""
        return {name: int(row[which]) for name, row in self.servers().items()}

    def well(self):
        return all(row["status"] == "UP" and row["check_status"].endswith("L7OK")
                   for row in self.servers().values())


def start(stack, log, *command, **settings):
    """Ends with the stack."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=log, env={**os.environ, **settings})
    stack.callback(process.wait, PATIENCE_S)
    stack.callback(process.terminate)


def start_all(stack, tool, place, log):
    """Returns the balancer and the ports: in the clear, over TLS, TLS itself."""
    a, b, plain, local, tls = ("127.0.0.1:%d" % port for port in free_ports(5))
    ports = [int(address.rpartition(":")[2]) for address in (a, b, plain, local, tls)]
    for port in ports[:2]:
        start(stack, log, tool, "serve", "--port", str(port))
        wait_until(lambda port=port: answers(port), "a server")
    admin = place + "/admin.sock"

    def haproxy(configuration, **settings):
        start(stack, log, "haproxy", "-db", "-f", DEPLOY / configuration, **settings)
    haproxy("balance.cfg", NRPC_BIND=plain, NRPC_ADMIN=admin, NRPC_SERVER_A=a, NRPC_SERVER_B=b)
    haproxy("tls-server-site.cfg", NRPC_TLS_BIND=tls, NRPC_CERTS=place, NRPC_SERVICE=plain)
    haproxy("tls-client-site.cfg", NRPC_BIND=local, NRPC_CERTS=place, NRPC_TLS_SERVER=tls)
    balancer = Balancer(admin)
    wait_until(lambda: os.path.exists(admin), "the administration socket")
    wait_until(balancer.well, "both servers answer their check")
    wait_until(lambda: answers(ports[3]), "an answer through all three")
    say(f"servers {a} and {b}; for clients in the clear {plain}, over TLS {local}")
    return balancer, *ports[2:]


def load_and_drain(balancer, tool, port, way, mode, window):
    say(f"{CLIENTS} {mode} clients for {LOAD_S} s {way}; after {DRAIN_AFTER_S} s b is drained")
    load = subprocess.Popen(
        [tool, "load", f"127.0.0.1:{port}", "--clients", str(CLIENTS), "--seconds", str(LOAD_S),
         "--mode", mode, "--window", str(window), "--timeout", str(TIMEOUT_MS), "--json"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    time.sleep(DRAIN_AFTER_S)
    spread = balancer.connections("scur")
    on_a = balancer.connections("stot")["a"]
    balancer.tell("set server nrpc/b state drain")    # new clients go to a ...
    balancer.tell("shutdown sessions server nrpc/b")  # ... and those of b lose their connection
    wait_until(lambda: balancer.connections("scur")["b"] == 0, "nobody on the drained server")
    result = json.loads(load.communicate(timeout=LOAD_S + PATIENCE_S)[0])
    came = balancer.connections("stot")["a"] - on_a
    balancer.tell("set server nrpc/b state ready")
    wait_until(balancer.well, "the drained server is back")
    say(f"{result['replies']} replies, {result['wrong']} wrong, {result['lost']} lost with their "
        f"connection, {result['timed_out']} timed out")
    say(f"{spread['a']} clients were on a, {spread['b']} on b; then {came} of b came to a")
    check(sum(spread.values()) == CLIENTS and min(spread.values()) >= CLIENTS // 2 - 1,
          "the clients were spread over both servers")
    check(came == spread["b"] and result["connections"] == CLIENTS + came,
          "those of b connected again, to a; those of a stayed")
    check(result["replies"] > 0 and result["wrong"] == 0, "every reply was right")
    check(result["lost"] + result["timed_out"] <= spread["b"] * window,
          f"lost at most what was in flight on b, {window} for each of its clients")


def check_certificates(place, local, tls):
    def context(certificate=None):
        made = ssl.create_default_context(cafile=place + "/ca.pem")
        if certificate:
            made.load_cert_chain(place + certificate)
        return made
    make_certificates(place + "/foreign")
    say("who is answered")
    check(answers(tls, context("/client.pem")), "with a certificate of ours: answered")
    check(not answers(tls, context()), "without a certificate: not answered")
    check(not answers(tls, context("/foreign/client.pem")), "with a foreign one: not answered")
    check(not answers(tls, context("/server.pem")), "with a server's: not answered")
    check(not answers(tls), "without TLS: not answered")
    check(answers(local), "in the clear, at the haproxy of the site with the certificate: answered")


def make_certificates(place):
    subprocess.run([DEPLOY / "make-certificates.sh", place], check=True)


def main():
    tool = sys.argv[1]
    with contextlib.ExitStack() as stack:
        place = stack.enter_context(tempfile.TemporaryDirectory())
        log = stack.enter_context(open(place + "/log", "w+", encoding="utf-8"))
        try:
            make_certificates(place)
            balancer, plain, local, tls = start_all(stack, tool, place, log)
            load_and_drain(balancer, tool, plain, "in the clear", "async", 8)
            load_and_drain(balancer, tool, local, "over TLS", "sync", 1)
            check_certificates(place, local, tls)
        except Exception:
            log.seek(0)
            sys.stderr.write(log.read())
            raise
    print(f"{len(faults)} faults")
    return 1 if faults else 0


sys.exit(main())
