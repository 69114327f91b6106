# SPDX-License-Identifier: Apache-2.0
"""What every measurement does: interleaved rounds and their summaries, the table, the results on a file descriptor."""
import argparse
import json
import os
import random
import signal
import statistics
import sys
import time

import host as H

RESULTS = 3


def progress(text):
    print(f"bench: {text}", file=sys.stderr, flush=True)


def summary(values):
    """First quartiles are what is compared: on a busy machine, medians jump between two modes of the kernel."""
    if len(values) < 2:
        values = values * 2
    q1, median, q3 = statistics.quantiles(values, n=4, method="inclusive")
    return {"q1": q1, "median": median, "q3": q3, "min": min(values), "max": max(values), "n": len(values)}


def rounds_of(what, rounds, cases, measure):
    """Rounds of every case in a random order, the same in each run. What was measured, by case."""
    order = list(cases)
    shuffler = random.Random(1)
    values = {case: [] for case in order}
    reported = time.monotonic()
    for done in range(rounds):
        if done == 0 or time.monotonic() - reported > 5:
            reported = time.monotonic()
            progress(f"{what}: round {done + 1} of {rounds}")
        shuffler.shuffle(order)
        for case in order:
            values[case].append(measure(case))
    return values


def interleaved(what, rounds, cases, measure):
    """The summaries of one figure, by case."""
    return {case: summary(values) for case, values in rounds_of(what, rounds, cases, measure).items()}


def interleaved_figures(what, rounds, cases, measure):
    """The summaries of several figures, which are measured together, by case and name."""
    return {case: {name: summary([each[name] for each in values]) for name in values[0]}
            for case, values in rounds_of(what, rounds, cases, measure).items()}


def row(*cells, width=16):
    print("  " + f"{cells[0]:<34}" + "".join(f"{cell:>{width}}" for cell in cells[1:]))


def number(value, digits=0):
    return "-" if value is None else f"{value:,.{digits}f}"


def arguments(command, description, rounds):
    parser = argparse.ArgumentParser(prog=command, description=description)
    parser.add_argument("--rounds", type=int, default=rounds, help="interleaved measurements of each kind")
    parser.add_argument("--quick", action="store_true", help="few rounds, to see that everything works")
    return parser


def save(results):
    """After each section, so that a later one that fails takes nothing away."""
    os.ftruncate(RESULTS, 0)
    os.pwrite(RESULTS, json.dumps(results, indent=1).encode(), 0)


def run(options, sections):
    """Measures and shows one section after the other; each is a function that measures and one that shows."""
    H.close_results(RESULTS)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # the first process of a namespace is spared otherwise
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # children would inherit that it is ignored
    results = {"host": {"kernel": os.uname().release, "cpus": os.sysconf("SC_NPROCESSORS_ONLN"),
                        "cgroup": "v2" if H.unified else "v1", "load before": os.getloadavg()[0]},
               "rounds": options.rounds}
    with H.Host() as host:
        for name, (measure, show) in sections.items():
            results[name] = measure(host, options)
            results["host"]["load after"] = os.getloadavg()[0]
            save(results)
            show(results[name])
            sys.stdout.flush()
    print(f"Host: {results['host']}")
