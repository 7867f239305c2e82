#!/usr/bin/env python3
"""Makes one table from the JSON files of the measurements: medians, and ratios to the floor of each row."""
import json
import sys

# In the order of the table: how a row begins, its floor, and what zt must reach: its time over the floor's, at most.
ROWS = [
    ("launch PROGRAM, ", "vfork+exec", 1.5),
    ("launch PROGRAM", "fork+exec", 1.03),
    ("launch COMMAND", "popen", 1.03),
    ("read everything", "read loop", None),
    ("bounded reads of 64 KiB", "read loop", 0.5),
    ("writes of 64 KiB", "write loop", 1 / 1.5),
    ("write of 1 byte", "write + latch", 1.1),
    ("request and reply", "write + read + latch", 1.02),
    ("tracing off", "without trace calls", 1.02),
    ("open one of", "fork+exec", 1.05),
    ("close one of", "fork+exec", 1.05),
    ("latch", "two sigaction calls", None),
]
AHEAD_OF_PEERS = "read everything"


def place(row):
    return next(number for number, (start, _, _) in enumerate(ROWS) if row.startswith(start))


def size_of(row):
    return [int(word) for word in row.replace(",", " ").split() if word.isdigit()]


def medians(paths):
    rows = {}
    for path in paths:
        with open(path) as file:
            for run in json.load(file)["benchmarks"]:
                if run.get("aggregate_name") != "median":
                    continue
                row, contestant = run["run_name"].split("/")[:2]
                rows.setdefault(row, {})[contestant] = run
    return rows


def verdict(row, contestants):
    _, floor, limit = ROWS[place(row)]
    own = contestants["zt"]["real_time"]
    if row.startswith(AHEAD_OF_PEERS):
        peers = [run["real_time"] for name, run in contestants.items() if name not in ("zt", floor)]
        return "" if not peers else "ahead of every peer" if own < min(peers) else "MISSED: a peer is ahead"
    if limit is None:
        return ""
    ratio = own / contestants[floor]["real_time"]
    return f"at most {limit:.2f}: " + ("reached" if ratio <= limit else "MISSED")


def figure(run):
    nanoseconds = run["real_time"] * {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
    if run.get("bytes_per_second", 0) > 2 ** 26:
        return f"{run['bytes_per_second'] / 2 ** 30:.2f} GiB/s"
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.2f} {unit}"
    return f"{nanoseconds:.0f} ns"


def main(paths):
    print("| row | contestant | median | × floor | zt |")
    print("|---|---|---|---|---|")
    rows = medians(paths)
    for row in sorted(rows, key=lambda row: (place(row), size_of(row))):
        contestants, floor = rows[row], ROWS[place(row)][1]
        for name in sorted(contestants, key=lambda name: (name != floor, contestants[name]["real_time"])):
            run = contestants[name]
            ratio = run["real_time"] / contestants[floor]["real_time"]
            memory = f" ({run['KiB a pipe']:.1f} KiB a pipe)" if name == "zt" and "KiB a pipe" in run else ""
            note = verdict(row, contestants) + memory if name == "zt" else "floor" if name == floor else ""
            print(f"| {row} | {name} | {figure(run)} | {ratio:.2f} | {note} |")


if __name__ == "__main__":
    main(sys.argv[1:])
