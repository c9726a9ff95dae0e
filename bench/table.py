#!/usr/bin/env python3
"""Prints the ratio table from Google Benchmark's JSON.

An entry is named <job>/<engine>, where the job may have slashes of its own. Engines:
  ztlib          ours
  limit:<what>   what no implementation can beat (memcpy, the same allocations by hand)
  shown:<peer>   a peer that is shown but not ranked
  <peer>         a ranked peer
The smallest repetition ranks; the median stands behind it. A ratio above 1 means that we are ahead.
"""

import json
import re
import sys
from collections import defaultdict
from statistics import median


def engine_of(name):
    name = re.sub(r"(/(iterations|repeats|min_time|process_time|real_time|manual_time|threads)"
                  r"(:[^/]*)?)+$", "", name)
    job, _, engine = name.rpartition("/")
    return job, engine


def load(paths):
    jobs = defaultdict(lambda: defaultdict(list))
    for path in paths:
        with open(path) as file:
            for run in json.load(file)["benchmarks"]:
                if run.get("run_type") != "iteration" or run.get("error_occurred"):
                    continue
                job, engine = engine_of(run["name"])
                unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[run["time_unit"]]
                jobs[job][engine].append(run["real_time"] * unit)
    return jobs


def time_text(ns):
    for limit, unit in ((1e3, "ns"), (1e6, "us"), (1e9, "ms")):
        if ns < limit:
            return f"{ns / (limit / 1e3):.3g} {unit}"
    return f"{ns / 1e9:.3g} s"


def main():
    jobs = load(sys.argv[1:])
    rows = [("job", "ours (median)", "best peer", "ratio", "limit", "shown")]
    for job, engines in jobs.items():
        if "ztlib" not in engines:
            continue
        ours = min(engines["ztlib"])
        peers = {e: min(t) for e, t in engines.items() if e != "ztlib" and ":" not in e}
        limits = {e[6:]: min(t) for e, t in engines.items() if e.startswith("limit:")}
        shown = {e[6:]: min(t) for e, t in engines.items() if e.startswith("shown:")}
        best = min(peers, key=peers.get) if peers else None
        rows.append((
            job,
            f"{time_text(ours)} ({time_text(median(engines['ztlib']))})",
            f"{best} {time_text(peers[best])}" if best else "-",
            f"{peers[best] / ours:.2f}" if best else "-",
            ", ".join(f"{ours / t:.2f} x {e}" for e, t in limits.items()) or "-",
            ", ".join(f"{e} {t / ours:.2f}" for e, t in shown.items()) or "-",
        ))
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    for row in rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


if __name__ == "__main__":
    main()
