"""A steady mixed load of clients that come, go and misbehave: whether the server ends as it began.

Eight threads connect, ask synchronously or with 20 requests under way (8 bytes to 256 KiB), go and
pause; a ninth plays the peers of misbehave.py. After a warm-up (a tenth of the time) the medians of
the first and of the last quarter must be the same, but for what the elastic pools breathe.
"""

import statistics
import threading
import time

import misbehave

SAMPLE_S = 5
SEED = 1

# Key, title, divisor for the plot, and how far the end may lie above the beginning: part and rest.
SERIES = (
    ("memory", "resident memory, MiB", 2**20, 0.10, 2**20),
    ("threads", "threads", 1, 0.10, 4),
    ("descriptors", "descriptors", 1, 0.0, 8),
    ("mappings", "mappings", 1, 0.10, 8),
    ("p50_us", "reply to 64 bytes, half below, ms", 1000, 0.15, 1000),
)


def collect(client, samples, last):
    while (answer := client.answer()) is not None:
        if "at_s" in answer:
            samples["p50_us"].append((answer["at_s"], answer["p50_us"]))
        else:
            last.update(answer)


def sample(server, start, samples):
    now = time.monotonic() - start
    samples["memory"].append((now, server.resident_bytes()))
    samples["threads"].append((now, server.thread_count()))
    samples["descriptors"].append((now, server.descriptor_count()))
    samples["mappings"].append((now, server.mapping_count()))


def ends(points, seconds):
    """Medians of the first and of the last quarter behind the warm-up."""
    warm = seconds / 10
    quarter = (seconds - warm) / 4
    first = [value for at, value in points if warm <= at <= warm + quarter]
    last = [value for at, value in points if at >= seconds - quarter]
    return statistics.median(first), statistics.median(last)


def panel(points, title, divisor, top, seconds):
    width, height, left = 820, 130, 70
    bottom = top + height
    most = max(value for _, value in points) / divisor * 1.1 or 1
    right, up = width / seconds, height / most / divisor
    line = " ".join(f"{left + at * right:.1f},{bottom - value * up:.1f}" for at, value in points)
    return (f'<text x="{left}" y="{top - 6}">{title}</text>'
            f'<rect x="{left}" y="{top}" width="{width}" height="{height}" fill="none"'
            ' stroke="#999"/>'
            f'<text x="{left - 6}" y="{top + 10}" text-anchor="end">{most:.3g}</text>'
            f'<text x="{left - 6}" y="{bottom}" text-anchor="end">0</text>'
            f'<polyline points="{line}" fill="none" stroke="#06c"/>')


def plot(samples, seconds):
    parts = ['<svg xmlns="http://www.w3.org/2000/svg" width="920" height="885"'
             ' font-family="sans-serif" font-size="12">'
             '<rect width="920" height="885" fill="#fff"/>']
    for index, (key, title, divisor, _, _) in enumerate(SERIES):
        parts.append(panel(samples[key], title, divisor, 30 + index * 165, seconds))
    parts.append(f'<text x="70" y="865">0 to {seconds / 60:.1f} minutes</text></svg>')
    return "\n".join(parts) + "\n"


def judge(samples, seconds):
    same = True
    for key, title, divisor, part, rest in SERIES:
        first, last = ends(samples[key], seconds)
        drifted = last > first * (1 + part) + rest
        same = same and not drifted
        print(f"{title:36} {first / divisor:10.3f} {last / divisor:10.3f}"
              f"{'  DRIFTED' if drifted else ''}")
    return same


def run(library, minutes, path):
    seconds = minutes * 60
    samples = {key: [] for key, *_ in SERIES}
    last = {}
    with library.server() as server:
        start = time.monotonic()
        is_over = threading.Event()
        rogue = threading.Thread(target=misbehave.run, args=(server.port, is_over, SEED),
                                 daemon=True)
        with library.process("mixed", server.port, seconds, SEED) as client:
            reader = threading.Thread(target=collect, args=(client, samples, last))
            reader.start()
            rogue.start()
            while reader.is_alive():
                sample(server, start, samples)
                path.write_text(plot({key: points or [(0, 0)] for key, points in samples.items()},
                                     seconds), encoding="utf-8")
                reader.join(SAMPLE_S)
            if not rogue.is_alive():
                last.clear()  # the server let nobody in
            is_over.set()
            rogue.join()
    if not last:
        print("the load broke off")
        return 1
    print(f"{'':36} {'beginning':>10} {'end':>10}")
    same = judge(samples, seconds)
    print(f"{last['replies']} replies in {last['sessions']} connections, {last['wrong']} wrong and"
          f" {last['lost']} lost; {path.name} shows the way")
    return 0 if same and not last["wrong"] and not last["lost"] else 1
