# SPDX-License-Identifier: Apache-2.0
"""Measures the launcher."""
import collections
import contextlib
import fcntl
import functools
import itertools
import os
import re
import subprocess
import time

import host as H
from rounds import arguments, interleaved, interleaved_figures, number, progress, row, run, summary

GAPS = {"back to back": 0.0, "20 ms apart": 0.02}
MODES = ("core", "assigned", "sharing", "quota")  # core mode without and with cores assigned to the command
CPU_LIST = "/sys/devices/system/cpu/online"
TRACING = "/sys/kernel/tracing/instances"
DISK = "/tmp/disk"  # on ext4


# --- Time to the command ------------------------------------------------------------------------------------------


def launches(host, options):
    result = {}
    for mode in MODES:
        host.configure(mode)
        prefixes = H.subjects(mode, options.against)
        for pace, gap in GAPS.items():
            timed = interleaved(f"{mode} mode, {pace}", options.rounds, prefixes,
                                lambda name: H.measure_launch(host, prefixes[name], gap))
            for name, figures in timed.items():
                for base in ("chain", "bare", "against"):
                    if base in timed and base != name:
                        figures["of " + base] = figures["q1"] / timed[base]["q1"]
            result[f"{mode}, {pace}"] = timed
    return result


# --- Memory -------------------------------------------------------------------------------------------------------


def rollup(pid):
    text = H.read(f"/proc/{pid}/smaps_rollup")
    return {key: int(re.search(rf"^{key}: +(\d+) kB", text, re.M)[1]) for key in ("Private_Dirty", "Pss", "Rss")}


def launchers_of(host, options):
    return {name: prefix for name, prefix in H.subjects("sharing", options.against).items()
            if name in ("launcher", "against")}


def memory(host, options, count=20):
    result = {}
    host.configure("sharing")
    for name, prefix in launchers_of(host, options).items():
        progress(f"memory of {count} supervising launchers ({name})")
        host.settle()
        launch = H.Launch(prefix, "hold", count=count)
        time.sleep(1.5)  # past the first look at the child
        rollups = [rollup(pid) for pid in launch.launchers]
        launch.end()
        result[name] = {key: summary([each[key] for each in rollups]) for key in rollups[0]}
    return result


def thousand(host, options, count=1000, seconds=10):
    """What so many supervising launchers cost a host, their commands asleep."""
    result = {}
    host.configure("sharing")

    def schedule(pids):
        switches = sum(int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", H.read(f"/proc/{pid}/status"), re.M)[1])
                       for pid in pids)
        return switches, sum(int(H.read(f"/proc/{pid}/schedstat").split()[0]) for pid in pids)

    def available():
        return int(re.search(r"^MemAvailable:\s+(\d+)", H.read("/proc/meminfo"), re.M)[1])

    for name, prefix in launchers_of(host, options).items():
        progress(f"{count} launchers at once ({name})")
        host.settle()
        before = available()
        launch = H.Launch(prefix, "hold", count=count)
        elapsed = (max(nanoseconds for nanoseconds, _ in launch.reports) - launch.started) / 1e9
        time.sleep(1.5)
        rollups = [rollup(pid) for pid in launch.launchers]
        taken = before - available()
        start, (switches, busy) = time.monotonic(), schedule(launch.launchers)
        time.sleep(seconds)
        later_switches, later_busy = schedule(launch.launchers)
        passed = time.monotonic() - start
        result[name] = {
            "count": count,
            "seconds until all commands run": elapsed,
            "Private_Dirty of all, KiB": sum(each["Private_Dirty"] for each in rollups),
            "Pss of all, KiB": sum(each["Pss"] for each in rollups),
            "less available on the host, KiB": taken,
            "wake-ups per second": (later_switches - switches) / passed,
            "CPU of one core, percent": (later_busy - busy) / 1e7 / passed,
        }
        launch.end()
    return result


# --- System calls and instructions --------------------------------------------------------------------------------

CALL = re.compile(r"^(\d+) +(\w+)\((.*)$")


def calls_of(prefix):
    """The system calls of a launch, in their order: those of the first process until it sleeps or waits, and those of
    its descendants until the command executes."""
    log = "/tmp/strace"
    subprocess.run(["strace", "-f", "-qq", "-s", "60", "-e", "signal=none", "-o", log, *prefix, H.PROBE, "2"],
                   check=True, stderr=subprocess.DEVNULL)
    first, over, found = None, set(), []
    for line in H.read(log).splitlines():
        match = CALL.match(line)
        if not match:
            continue  # the rest of a call that another process interrupted
        pid, name, rest = match.groups()
        first = first or pid
        if pid in over:
            continue
        if pid == first and name in ("clock_nanosleep", "nanosleep", "wait4", "rt_sigsuspend") and \
                (name != "wait4" or "WNOHANG" not in rest):
            over.add(pid)
            continue
        found.append({"child": pid != first, "name": name, "call": f"{name}({rest}"})
        if name == "execve" and rest.startswith(f'"{H.PROBE}"'):
            over.add(pid)
    return found


def after_unlock(trace):
    """The calls between the last unlock of a registry and exec."""
    unlocks = [index for index, each in enumerate(trace) if each["name"] == "flock" and "LOCK_UN" in each["call"]]
    return [each["call"] for each in trace[unlocks[-1] + 1:] if each["child"]] if unlocks else []


def calls(host, options):
    result = {}
    for mode in MODES:
        host.configure(mode)
        for name, prefix in H.subjects(mode, options.against).items():
            if name == "nothing":
                continue
            progress(f"system calls and instructions, {mode} mode, {name}")
            host.settle()
            trace = calls_of(prefix)
            host.settle()
            counted = subprocess.run([H.BIN + "instructions", H.PROBE, *prefix, H.PROBE, "2"], check=True,
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout.strip()
            result.setdefault(mode, {})[name] = {
                "total": len(trace),
                "by kind": dict(collections.Counter(each["name"] for each in trace).most_common()),
                "instructions": int(counted) if counted.isdigit() else None,
                "after the last unlock": after_unlock(trace),
                "trace": [("child   " if each["child"] else "") + each["call"] for each in trace],
            }
    return result


# --- Growth -------------------------------------------------------------------------------------------------------


def plain(what, of):
    """Microseconds that the kernel's part of the work takes, without a program around it."""
    output = subprocess.run([H.BIN + "plain", what, str(of), "1"], check=True, stdout=subprocess.PIPE).stdout
    return int(output) / 1000


def grow(host, options, what, sizes, prefixes, prepare, reference):
    """Launches with every size, interleaved with the plain calls of every size."""
    def measure(case):
        name, size = case
        if name == "plain":
            host.settle()
            prepare(size)
            return plain(*reference(size))
        return H.measure_prepared_launch(host, prefixes[name], lambda: prepare(size))

    names = ["plain", *prefixes]
    timed = interleaved(f"growth by {what}", options.growth_rounds,
                        [(name, size) for size in sizes for name in names], measure)
    result = {name: {size: timed[name, size] for size in sizes} for name in names}

    def grown(name, size):
        return result[name][size]["q1"] - result[name][sizes[0]]["q1"]

    for name in prefixes:
        for size in sizes:
            if grown("plain", size) > 500:  # microseconds; less is lost among the launches' own differences
                result[name][size]["of plain"] = grown(name, size) / grown("plain", size)
    return result


def growth_by_cores(host, options):
    sizes = [1, 4, 16, 64, 256] if options.quick else [1, 2, 4, 8, 16, 32, 64, 128, 256]
    host.configure("core")
    H.write("/tmp/online", "0\n")
    for size in range(sizes[-1]):
        H.write(H.registry(size), "")
    subprocess.run(["mount", "--bind", "/tmp/online", CPU_LIST], check=True)
    try:
        return grow(host, options, "candidate cores", sizes, launchers_of(host, options),
                    lambda size: H.write("/tmp/online", f"0-{size - 1}\n" if size > 1 else "0\n"),
                    lambda size: ("cores", size))
    finally:
        subprocess.run(["umount", CPU_LIST], check=True)


@contextlib.contextmanager
def registries(sizes):
    """Texts of so many records, by size; each is of a process of its own, which runs the command's program."""
    progress(f"starting {sizes[-1]} processes")
    crowd = subprocess.Popen([H.PROBE, "crowd", str(sizes[-1])], stdout=subprocess.PIPE)
    pids = [int(pid) for pid in crowd.stdout.read().split()]
    try:
        lines = []
        for pid in pids:
            start = H.read(f"/proc/{pid}/stat").rsplit(")", 1)[1].split()[19]
            lines.append(f"probe:{pid}:{start}\n")
        yield {size: "".join(lines[:size]) for size in sizes}
    finally:
        crowd.kill()
        crowd.wait()
        for pid in pids:
            os.waitpid(pid, 0)


def growth_by_records(host, options):
    sizes = [0, 16, 256, 4096] if options.quick else [0, 1, 4, 16, 64, 256, 1024, 4096]
    host.configure("sharing")
    with registries(sizes) as texts:
        return grow(host, options, "live records", sizes, launchers_of(host, options),
                    lambda size: H.write(H.registry(0), texts[size]), lambda size: ("records", H.registry(0)))


def growth(host, options):
    return {"cores": growth_by_cores(host, options), "records": growth_by_records(host, options)}


# --- The window from unlock to exec, and what it costs ---------------------------------------------------------------


class Tracepoints:
    """The kernel's own record of some events, given with filters, in a trace buffer of its own; no process is stopped."""

    def __init__(self, filters):
        self.filters = filters
        self.instance = f"{TRACING}/cpuwarden-bench"

    def __enter__(self):
        if os.path.isdir(self.instance):  # of a run that was killed
            os.rmdir(self.instance)
        os.mkdir(self.instance)
        H.write(self.instance + "/trace_clock", "mono")
        for event, condition in self.filters.items():
            H.write(f"{self.instance}/events/{event}/filter", condition)
            H.write(f"{self.instance}/events/{event}/enable", "1")
        return self

    def __exit__(self, *_):
        H.remove_directory(self.instance)

    def clear(self):
        H.write(self.instance + "/trace", "")

    def events(self):
        """Each as the process, the microsecond, and the event."""
        for match in re.finditer(r"-(\d+) +\[\d+\].*? (\d+\.\d+): (\w+)", H.read(self.instance + "/trace")):
            yield match[1], float(match[2]) * 1e6, match[3]


UNLOCKS_AND_EXEC = {"syscalls/sys_enter_flock": f"cmd & {fcntl.LOCK_UN}",
                    "sched/sched_process_exec": f'filename == "{H.PROBE}"'}


def window_of(tracer, prefix):
    """Microseconds from the first and from the last unlock before the exec of the probe to that exec."""
    tracer.clear()
    H.Launch(prefix).end()
    unlocks = collections.defaultdict(list)
    for pid, at, event in tracer.events():
        if event == "sys_flock":
            unlocks[pid].append(at)
        elif pid in unlocks:
            return at - unlocks[pid][0], at - unlocks[pid][-1]
    raise RuntimeError("a launch was not traced from its unlock to its exec")


def window(host, options):
    result = {}
    with Tracepoints(UNLOCKS_AND_EXEC) as tracer:
        for mode in MODES:
            host.configure(mode)
            prefixes = {name: prefix for name, prefix in H.subjects(mode, options.against).items()
                        if name in ("launcher", "against", "bare")}

            def measure(name):
                host.settle()
                time.sleep(0.02)
                first, last = window_of(tracer, prefixes[name])
                return {"from the first unlock": first, "from the last unlock": last}

            result[mode] = interleaved_figures(f"from unlock to exec, {mode} mode", options.growth_rounds, prefixes,
                                               measure)
    return result


def burst(host, options, count=40):
    """Records that are missing from the registries once every command of a burst runs."""
    result = {}
    cpus = os.sysconf("SC_NPROCESSORS_ONLN")
    for mode, quota in (("sharing", H.QUOTA), ("quota", max(1, 100 * cpus // count))):
        host.configure(mode, quota)
        prefixes = launchers_of(host, options)

        def measure(name):
            host.settle()
            launch = H.Launch(prefixes[name], "hold", count=count)
            recorded = set()
            paths = [H.ALLOCATIONS] if mode == "quota" else [H.registry(core) for core in range(cpus)]
            for path in paths:
                recorded.update(int(line.split(":")[1]) for line in H.read(path).splitlines())
            launch.end()
            return len({pid for _, pid in launch.reports} - recorded)

        result[mode] = interleaved(f"{count} launches at once, {mode} mode", options.bursts, prefixes, measure)
    return {"count": count, **result}


# --- A disk ---------------------------------------------------------------------------------------------------------


@contextlib.contextmanager
def disk_as_tmp():
    subprocess.run(["mount", "--rbind", DISK, "/tmp"], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "-R", "/tmp"], check=True)


FILE_SYSTEMS = {"tmpfs": contextlib.nullcontext, "disk": disk_as_tmp}


def side_by_side(host, what, rounds, prefixes, preparations):
    """Launches by each program after each preparation, on both file systems. Each comes right after another: on a disk,
    what that left to be written may hold up the next."""
    def measure(case):
        preparation, name, where = case
        with FILE_SYSTEMS[where]():
            host.settle()
            preparations[preparation]()
            H.timed_launch(prefixes[name])
            host.move_into_cgroup()
            return H.timed_launch(prefixes[name])

    timed = interleaved(what, rounds, itertools.product(preparations, prefixes, FILE_SYSTEMS), measure)
    return {preparation: {name: {where: timed[preparation, name, where] for where in FILE_SYSTEMS} for name in prefixes}
            for preparation in preparations}


def disk_launches(host, options):
    result = {}
    for mode in MODES:
        host.configure(mode)
        result |= side_by_side(host, f"launches on a disk, {mode} mode", options.rounds, launchers_of(host, options),
                               {f"{mode} mode": lambda: None})
    return result


def disk_growth(host, options):
    host.configure("sharing")
    with registries([0, 64, 1024]) as texts:
        return side_by_side(host, "growth on a disk", options.rounds, launchers_of(host, options),
                            {f"{size:,} live records": functools.partial(H.write, H.registry(0), text)
                             for size, text in texts.items()})


WAIT = 6  # seconds, in which ext4 commits its journal once, see commit= in ext4(5)
TRUNCATIONS = {"syscalls/sys_enter_openat": f'flags & {os.O_TRUNC} && comm == "Cpuwarden"',
               "syscalls/sys_enter_ftruncate": 'comm == "Cpuwarden"'}


def written_by(pid):
    """See proc_pid_io(5): what the process passed to the kernel, and the pages that it made dirty."""
    counters = dict(line.split(": ") for line in H.read(f"/proc/{pid}/io").splitlines()) if pid else {}
    return [int(counters.get(name, 0)) for name in ("syscw", "wchar", "write_bytes")]


def written_to(path):
    """Bytes, by whomever, that its device has written since the start."""
    device = os.stat(path).st_dev
    stat = f"/sys/dev/block/{os.major(device)}:{os.minor(device)}/stat"
    return int(H.read(stat).split()[6]) * 512 if os.path.exists(stat) else 0


@contextlib.contextmanager
def waiting_launch(prefix):
    """The process that would be a command, while another has its place."""
    holder = H.Launch(prefix, "hold")
    launcher = subprocess.Popen([*prefix, H.PROBE, "2"])
    time.sleep(0.5)  # until it waits
    pid = int(H.read(f"/proc/{launcher.pid}/task/{launcher.pid}/children"))
    yield pid
    launcher.kill()
    launcher.wait()
    os.waitpid(pid, 0)
    holder.end()


def writes_of_wait(tracer, prefix):
    """Without a prefix nobody waits, and what the device writes is others'."""
    with waiting_launch(prefix) if prefix else contextlib.nullcontext() as pid:
        subprocess.run(["sync", "-f", "/tmp"], check=True)
        tracer.clear()
        before = *written_by(pid), written_to("/tmp")
        time.sleep(WAIT)
        after = *written_by(pid), written_to("/tmp")
        truncations = sum(1 for _ in tracer.events())
    names = ("writes", "bytes", "bytes dirtied", "bytes on device")
    return {"truncations": truncations, **{name: end - start for name, start, end in zip(names, before, after)}}


def disk_waits(host, options):
    result = {}
    with Tracepoints(TRUNCATIONS) as tracer:
        for mode, quota in (("assigned", None), ("quota", 100 * os.sysconf("SC_NPROCESSORS_ONLN"))):
            host.configure(mode, quota)
            prefixes = launchers_of(host, options)

            def measure(case):
                name, where = case
                with FILE_SYSTEMS[where]():
                    host.settle()
                    return writes_of_wait(tracer, prefixes.get(name))

            cases = [*itertools.product(prefixes, FILE_SYSTEMS), ("nobody", "disk")]
            figures = interleaved_figures(f"a launch that waits, {mode} mode", options.waits, cases, measure)
            result[mode] = {f"{name}, {where}": figures[name, where] for name, where in cases}
    return result


def disk(host, options):
    for program in ("bin", "against"):  # the same on both
        if os.path.isdir(f"/tmp/{program}"):
            os.makedirs(f"{DISK}/{program}", exist_ok=True)
            subprocess.run(["mount", "--bind", f"/tmp/{program}", f"{DISK}/{program}"], check=True)
    return {"launches": {**disk_launches(host, options), **disk_growth(host, options)},
            "waits": disk_waits(host, options)}


# --- Report -------------------------------------------------------------------------------------------------------


def print_launches(result):
    print("Time to the command's main, us")
    for case, timed in result.items():
        row(case, "q1", "median", "of chain", "of bare", "of against")
        for name, figures in timed.items():
            row("  " + name, number(figures["q1"]), number(figures["median"]),
                *(number(figures.get(f"of {base}"), 2) for base in ("chain", "bare", "against")))


def print_memory(result):
    print("Memory of one of 20 supervising launchers, KiB, the most of any")
    row("", *next(iter(result.values())))
    for name, figures in result.items():
        row("  " + name, *(number(each["max"]) for each in figures.values()))


def print_thousand(result):
    print("A thousand launchers at once")
    row("", *result)
    for key in next(iter(result.values())):
        row("  " + key, *(number(each[key], 1) for each in result.values()))


def print_calls(result):
    print("System calls of a launch, and instructions in user space")
    for mode, by_name in result.items():
        row(mode, "calls", "instructions", "after unlock")
        for name, figures in by_name.items():
            row("  " + name, figures["total"], number(figures["instructions"]), len(figures["after the last unlock"]))
    for mode, by_name in result.items():
        for name in [each for each in ("launcher", "against") if each in by_name]:
            print(f"  {name}, {mode}: " + ", ".join(f"{count} {kind}" for kind, count in
                                                    by_name[name]["by kind"].items()))


def print_growth(result):
    for what, by_name in result.items():
        print(f"Growth by {what}: time to the command's main, us, first quartile; "
              "(in brackets: what the launch grew by, of what the plain calls grew by)")
        row(what, *by_name)
        for size in by_name["plain"]:
            row(f"  {size}", *(number(sizes[size]["q1"]) + (f" ({number(sizes[size]['of plain'], 2)})"
                               if sizes[size].get("of plain") is not None else "") for sizes in by_name.values()))


def print_window(result):
    print("From unlock to exec, us, by the kernel's tracepoints")
    row("", "first: q1", "median", "last: q1", "median")
    for mode in MODES:
        for name, figures in result[mode].items():
            row(f"  {mode}, {name}", *(number(figures[f"from the {which} unlock"][key])
                                       for which in ("first", "last") for key in ("q1", "median")))


def print_burst(result):
    print(f"Records lost of {result['count']} launches at once")
    row("", "q1", "median", "q3", "bursts")
    for mode in ("sharing", "quota"):
        for name, figures in result[mode].items():
            row(f"  {mode}, {name}", *(number(figures[key], 1) for key in ("q1", "median", "q3")), figures["n"])


def print_disk(result):
    print("With /tmp on a tmpfs and on a disk: time to the command's main, us")
    keys = ("q1", "median")
    row("", *(f"{where}: {key}" for key in keys for where in (*FILE_SYSTEMS, "ratio")))
    for case, by_name in result["launches"].items():
        for name, by_place in by_name.items():
            row(f"  {case}, {name}", *itertools.chain.from_iterable(
                (*(number(by_place[where][key]) for where in FILE_SYSTEMS),
                 number(by_place["disk"][key] / by_place["tmpfs"][key], 2)) for key in keys))
    print(f"What a launch writes while it waits for {WAIT} s, medians")
    row("", *next(iter(result["waits"]["quota"].values())))
    for mode, by_case in result["waits"].items():
        for case, figures in by_case.items():
            row(f"  {mode}, {case}", *(number(each["median"]) for each in figures.values()))


SECTIONS = {
    "launches": (launches, print_launches),
    "memory": (memory, print_memory),
    "calls": (calls, print_calls),
    "growth": (growth, print_growth),
    "disk": (disk, print_disk),
    "window": (window, print_window),
    "burst": (burst, print_burst),
    "thousand": (thousand, print_thousand),
}


def main():
    parser = arguments("bench/run", __doc__, rounds=100)
    parser.add_argument("--only", action="append", choices=SECTIONS, help="only this part; may be given again")
    options = parser.parse_args()
    if options.quick:
        options.rounds = min(options.rounds, 10)
    options.growth_rounds = max(5, options.rounds // 4)
    options.bursts = max(2, options.rounds // 10)
    options.waits = 1 if options.quick else 2
    chosen = options.only or list(SECTIONS)
    if {"disk", "window"} & {*chosen} and not os.path.isdir(TRACING):
        raise SystemExit("bench: disk and window need the kernel's tracepoints; choose others with --only")
    options.against = os.path.exists("/tmp/against/Cpuwarden")
    run(options, {name: SECTIONS[name] for name in chosen})


main()
