# SPDX-License-Identifier: Apache-2.0
"""Measures what a placement is worth: throughput and latency of redis-server, by its own redis-benchmark, while
stress-ng keeps twice as many CPU hogs as there are CPUs."""
import os
import re
import socket
import subprocess
import time
from typing import NamedTuple

import host as H
from rounds import arguments, interleaved_figures, number, row, run

LAUNCHER = [H.BIN + "Cpuwarden"]
SOCKET = "/tmp/redis.sock"
SERVER = [H.BIN + "redis-server", "--port", "0", "--unixsocket", SOCKET, "--save", "", "--appendonly", "no",
          "--daemonize", "no", "--loglevel", "warning"]
CLIENT = ["redis-benchmark", "-s", SOCKET, "-c", "4"]
REQUESTS = 100_000
LIMIT = 60  # seconds for the requests; on a quiet machine they take one to five
HOG = ["/usr/bin/stress-ng", "--quiet", "--cpu", "1", "--cpu-method", "matrixprod", "--timeout", str(2 * LIMIT)]
HOG_PROCESS = "stress-ng-cpu"  # a hog's own name beside its parent's
QUOTA = 25  # percent of a CPU for each hog: all of them together have half of the CPUs

CPUS = sorted(os.sched_getaffinity(0))
OWN, *OTHERS = CPUS
HOGS = 2 * len(CPUS)


class Place(NamedTuple):
    """What stands before a command, and where that has to bring it."""
    prefix: list
    cpus: list
    cgroup: str = ""  # a pattern of the managed cgroup's path


class Case(NamedTuple):
    server: Place
    hog: Place | None
    configuration: str = ""


def listed(cpus):
    return ",".join(map(str, cpus))


def by_hand(cpus):
    return Place(["taskset", "-c", listed(cpus)], cpus)


ANYWHERE = Place([], CPUS)
# The client, which measures, is started alike in all cases, and wherever the kernel likes.
CASES = {
    "nothing else runs": Case(ANYWHERE, None),
    "noise, all started plainly": Case(ANYWHERE, ANYWHERE),
    "noise, pinned by hand": Case(by_hand([OWN]), by_hand(OTHERS)),
    "noise, placed by Cpuwarden": Case(
        Place(LAUNCHER, [OWN], "cwset"), Place(LAUNCHER, OTHERS, "cwset"),
        "Cpuwarden_ShareCore=true\n"
        f"Cpuwarden_CoreDistribution=redis-server:{OWN};stress-ng:{listed(OTHERS)}\n"),
    "noise under a quota": Case(
        ANYWHERE, Place(LAUNCHER, CPUS, r"cwset/\d+-\d+"),
        f"Cpuwarden_ManagedProcessCpuQuotaPercentage={QUOTA}\n"),
}


def processes(name):
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if H.read(f"/proc/{pid}/comm").startswith(name):
                found.append(int(pid))
        except (FileNotFoundError, ProcessLookupError):
            pass
    return found


def wait_until(condition, what):
    deadline = time.monotonic() + H.START_LIMIT
    while not condition():
        if time.monotonic() > deadline:
            raise RuntimeError(f"not started: {what}")
        time.sleep(0.01)


def start(place, command, name, count=1):
    """Returns once `count` processes of that name run: only then does the next launch see the record of this one."""
    words = [*place.prefix, *command]
    os.posix_spawnp(words[0], words, os.environ, file_actions=[(os.POSIX_SPAWN_OPEN, 1, os.devnull, os.O_WRONLY, 0)])
    wait_until(lambda: len(processes(name)) == count, " ".join(words))
    for pid in processes(name):
        check_place(pid, place)


def check_place(pid, place):
    """A figure counts only for what it is said to be of."""
    cpus = os.sched_getaffinity(pid)
    cgroup = ",".join(set(re.findall(r":/(cwset.*)", H.read(f"/proc/{pid}/cgroup"))))
    if not cpus <= set(place.cpus) or not re.fullmatch(place.cgroup, cgroup):
        raise RuntimeError(f"misplaced: {pid} behind {place.prefix}, on {cpus}, in '{cgroup}'")


def serves():
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(SOCKET) == 0


def benchmark(test, requests):
    return subprocess.run([*CLIENT, "-t", test, "-n", str(requests)], stdout=subprocess.PIPE, check=True, timeout=LIMIT,
                          text=True).stdout


def figures(report):
    """The summary knows no 99.9 %; of the distribution it is the first value that so many requests did not exceed."""
    p50, p99 = re.search(r"avg +min +p50 +p95 +p99 +max\s+\S+ +\S+ +(\S+) +\S+ +(\S+)", report).groups()
    return {
        "requests a second": float(re.search(r"throughput summary: (\S+) requests", report)[1]),
        "p50, ms": float(p50),
        "p99, ms": float(p99),
        "p99.9, ms": next(float(value) for value, count in re.findall(
            r"^[\d.]+% <= (\S+) milliseconds \(cumulative count (\d+)\)", report, re.M)
            if int(count) >= 0.999 * REQUESTS),
    }


def measure(host, case):
    host.restart()
    host.settle()
    if case.configuration:
        host.prepare(case.configuration)
    start(case.server, SERVER, "redis-server")
    wait_until(serves, SOCKET)
    for hog in range(HOGS if case.hog else 0):
        start(case.hog, HOG, HOG_PROCESS, hog + 1)
    benchmark("set", 1000)  # the key that is asked for
    return figures(benchmark("get", REQUESTS))


def isolation(host, options):
    version = subprocess.run(["dpkg-query", "-W", "redis-tools", "stress-ng"], stdout=subprocess.PIPE, check=True,
                             text=True).stdout
    return {"programs": dict(line.split() for line in version.splitlines()), "hogs": HOGS, "requests": REQUESTS,
            "cases": interleaved_figures("isolation", options.rounds, CASES, lambda name: measure(host, CASES[name]))}


def print_isolation(result):
    print(f"redis-server, noise of {result['hogs']} CPU hogs: medians (and quartiles) of the rounds, each of "
          f"{result['requests']:,} requests by 4 clients")
    cases = result["cases"]
    names = list(next(iter(cases.values())))
    row("", *names, width=26)
    for case, of_case in cases.items():
        row("  " + case, *(spread(of_case[name], 3 if name.endswith("ms") else 0) for name in names), width=26)


def spread(figure, digits):
    return f"{number(figure['median'], digits)} ({number(figure['q1'], digits)}-{number(figure['q3'], digits)})"


def main():
    if not OTHERS:
        raise SystemExit("bench: needs two CPUs, one of them for the server")
    options = arguments("bench/isolation", __doc__, rounds=30).parse_args()
    if options.quick:
        options.rounds = min(options.rounds, 3)
    run(options, {"isolation": (isolation, print_isolation)})


main()
