# SPDX-License-Identifier: Apache-2.0
"""The host on which is measured: its cgroups, the configuration, the registries, and what can stand before a command."""
import fcntl
import glob
import os
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import time

BIN = "/tmp/bin/"
PROBE = BIN + "probe"
CONFIGURATION = "/etc/brindlewax.d/agent.conf"
MOUNT = "/sys/fs/cgroup/"
ALLOCATIONS = "/tmp/cw_allocations.lock"
QUOTA = 50
CHAIN_CGROUP = "bench-chain"  # not named as the launcher names its own, so that it leaves it alone
START_LIMIT = 120  # seconds in which a command has to start

unified = os.path.exists(MOUNT + "cgroup.controllers")
if unified:
    CPUSET = CPU = MOUNT + "cwset"
else:
    CPUSET = MOUNT + "cpuset/cwset"
    CPU = MOUNT + ("cpu/cwset" if os.path.exists(MOUNT + "cpu") else "cpu,cpuacct/cwset")
MANAGED = sorted({CPUSET, CPU})


def registry(core):
    return f"/tmp/core_pids_{core}.lock"


def read(path):
    with open(path) as file:
        return file.read().strip()


def write(path, text):
    with open(path, "w") as file:
        file.write(text)


def remove_directory(path):
    for _ in range(200):  # a cgroup stays busy for a moment after its last process
        try:
            return os.rmdir(path)
        except FileNotFoundError:
            return None
        except OSError:
            time.sleep(0.01)
    raise RuntimeError(f"cannot remove {path}: it still has processes")


def children(cgroup):
    return [entry.path for entry in os.scandir(cgroup) if entry.is_dir()] if os.path.isdir(cgroup) else []


class Host:
    """Prepares the host, and at the end leaves no process and no cgroup that was not there."""

    def __init__(self):
        self.remove_leftovers()
        self.made = [path for path in MANAGED if not os.path.isdir(path)]
        for path in MANAGED:
            if children(path) or os.path.isdir(path) and read(path + "/cgroup.procs"):
                raise SystemExit(f"bench: {path} has processes or cgroups; measure on a host without managed processes")
        self.drain = self.start_log()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end_processes()
        self.clear_cgroups()
        for path in self.made:
            if os.path.isdir(path):
                remove_directory(path)

    @staticmethod
    def remove_leftovers():
        """Of a run that was killed. A cgroup with processes stays."""
        for cgroup in MANAGED:
            for child in children(cgroup):
                if re.fullmatch(rf"{CHAIN_CGROUP}|\d+-\d+", os.path.basename(child)) and not read(child + "/cgroup.procs"):
                    remove_directory(child)

    @staticmethod
    def end_processes():
        """All of the namespace whose first process this is, and with them the log."""
        os.kill(-1, signal.SIGKILL)
        try:
            while True:
                os.wait()
        except ChildProcessError:
            pass

    def restart(self):
        """Nothing runs but the log."""
        self.end_processes()
        os.unlink("/dev/log")
        self.drain = self.start_log()

    @staticmethod
    def start_log():
        log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        log.bind("/dev/log")
        pid = os.fork()
        if pid == 0:
            while True:
                log.recv(65536)
        log.close()
        return pid

    def move_into_cgroup(self):
        """Moves the log's process to where it is: the next move follows at once, and so takes microseconds and not the
        milliseconds of one after a pause, in which differences between launches would be lost."""
        hierarchy = MOUNT if unified else MOUNT + "cpuset"
        own = re.search(r"^0::(.*)$" if unified else r"^\d+:cpuset:(.*)$", read("/proc/self/cgroup"), re.M)[1]
        write(f"{hierarchy}/{own}/cgroup.procs", str(self.drain))

    @staticmethod
    def clear_cgroups():
        for cgroup in MANAGED:
            for child in children(cgroup):
                remove_directory(child)

    def prepare(self, configuration):
        """For launches with this configuration, while none runs."""
        self.clear_cgroups()
        write(CONFIGURATION, configuration)
        prepared = subprocess.run([BIN + "cpuwardenctl", "prepare"], stdout=subprocess.PIPE, text=True)
        if prepared.returncode:
            raise SystemExit(prepared.stdout + "bench: the host cannot be prepared")

    def configure(self, mode, quota=QUOTA):
        self.prepare({
            "core": "Cpuwarden_ShareCore=false\n",
            "assigned": "Cpuwarden_CoreDistribution=probe:0\n",
            "sharing": "Cpuwarden_ShareCore=true\n",
            "quota": f"Cpuwarden_ManagedProcessCpuQuotaPercentage={quota}\n",
        }[mode])
        if mode != "quota":
            return
        for cgroup in MANAGED:
            os.mkdir(f"{cgroup}/{CHAIN_CGROUP}")
        for file in ("cpuset.mems", "cpuset.cpus"):
            write(f"{CPUSET}/{CHAIN_CGROUP}/{file}", read(f"{CPUSET}/{file}"))
        if unified:
            write(f"{CPU}/{CHAIN_CGROUP}/cpu.max", f"{quota * 1000} 100000")
        else:
            write(f"{CPU}/{CHAIN_CGROUP}/cpu.cfs_quota_us", str(quota * 1000))

    @staticmethod
    def settle():
        """Every launch finds the same: registries that exist and are empty, and no quota cgroup of an earlier one."""
        for path in glob.glob("/tmp/*.lock"):
            if os.path.getsize(path):
                os.truncate(path, 0)
        for cgroup in MANAGED:
            for child in children(cgroup):
                if not child.endswith(CHAIN_CGROUP):
                    remove_directory(child)


def subjects(mode, against):
    """What stands before a command, by name."""
    if mode == "quota":
        chain = ["timeout", "900", "cgexec", "-g", f"cpuset,cpu:cwset/{CHAIN_CGROUP}"]
        bare = [BIN + "bare", "quota", CPUSET, CPU, ALLOCATIONS, read(CPUSET + "/cpuset.cpus"),
                read(CPUSET + "/cpuset.mems"), str(QUOTA * 1000)]
    else:
        chain = ["timeout", "900", "cgexec", "-g", "cpuset:cwset", "taskset", "-c", "0"]
        bare = [BIN + "bare", "core", CPUSET, registry(0), "0"]
    found = {"launcher": [BIN + "Cpuwarden"], "chain": [shutil.which(chain[0]), *chain[1:]], "bare": bare, "nothing": []}
    if against:
        found["against"] = ["/tmp/against/Cpuwarden"]
    return found


class Launch:
    """Commands that were started at once, and what their probes report."""
    REPORT = struct.Struct("qq")

    def __init__(self, prefix, *arguments, count=1):
        self.reader, writer = os.pipe()
        os.set_inheritable(writer, True)
        words = [*prefix, PROBE, str(writer), *arguments]
        self.launchers = []
        self.started = time.monotonic_ns()
        for _ in range(count):
            self.launchers.append(os.posix_spawn(words[0], words, {"PATH": os.environ["PATH"]}))
        os.close(writer)
        self.reports = [self.report() for _ in range(count)]

    def report(self):
        readable, _, _ = select.select([self.reader], [], [], START_LIMIT)
        data = os.read(self.reader, self.REPORT.size) if readable else b""
        if len(data) != self.REPORT.size:
            raise RuntimeError("a command was not started")
        return self.REPORT.unpack(data)

    def microseconds(self):
        return (self.reports[0][0] - self.started) / 1000

    def end(self):
        """The launchers go first: their commands become this process's children, and are waited for in their turn."""
        for pid in self.launchers:
            os.kill(pid, signal.SIGKILL)
        for pid in self.launchers:
            os.waitpid(pid, 0)
        for _, pid in self.reports:
            try:
                if pid not in self.launchers:
                    os.kill(pid, signal.SIGKILL)
                    os.waitpid(pid, 0)
            except (ProcessLookupError, ChildProcessError):
                pass
        os.close(self.reader)


def measure_launch(host, prefix, gap):
    """Microseconds from the start of the first program to the main of the command."""
    host.settle()
    time.sleep(gap)
    return timed_launch(prefix)


def measure_prepared_launch(host, prefix, prepare):
    """The same after a preparation of any length, and always with the quick kind of move into a cgroup."""
    host.settle()
    prepare()
    host.move_into_cgroup()
    return timed_launch(prefix)


def timed_launch(prefix):
    launch = Launch(prefix)
    launch.end()
    return launch.microseconds()


def close_results(fd):
    """What is launched must not hold the results open."""
    fcntl.fcntl(fd, fcntl.F_SETFD, fcntl.FD_CLOEXEC)
