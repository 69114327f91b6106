# SPDX-License-Identifier: Apache-2.0
"""Machines of a fleet on this host: a controller and nodes that boot the image of scripts/fleet-image, each from a disk
of its own that is thrown away. They reach one another through the controller's emulator, as through a hub, and this
host through nothing but the channel for commands: all of it unix sockets in one directory."""
import base64
import os
import re
import socket
import subprocess
import time

BOOT_SECONDS = 400  # with room for what runs beside it
MEMORY_MIB = 1000
CPUS = 2
ANSWER = re.compile(rb"(.*)\n=status=(\d+)\n", re.DOTALL)


class Gone(Exception):
    """A machine that does not answer."""


class Machine:
    def __init__(self, name, index, fleet):
        self.name, self.index, self.fleet = name, index, fleet
        self.emulator = self.channel = None

    def path(self, name):
        return os.path.join(self.fleet.work, name)

    def _network(self):
        def link(end, port, server):
            path = self.path(f"link{port}")
            return ["-netdev", f"stream,id={end},server={server},addr.type=unix,addr.path={path}"]
        if self.index:
            links = link("lan", self.index, "off")
        else:
            links = ["-netdev", "hubport,id=lan,hubid=0"]
            for port in range(1, self.fleet.nodes + 1):
                links += link(f"link{port}", port, "on")
                links += ["-netdev", f"hubport,id=port{port},hubid=0,netdev=link{port}"]
        return [*links, "-device", f"virtio-net-pci,netdev=lan,mac=52:54:00:00:00:{self.index:02x}"]

    def power_on(self):
        """From the disk that it has, by default a fresh one. Returns at once."""
        disk, agent = self.path(f"{self.name}.disk"), self.path(f"{self.name}.agent")
        if not os.path.exists(disk):
            subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b",
                            os.path.join(self.fleet.image, "disk"), disk], check=True)
        # A node connects as it starts.
        while self.index and not os.path.exists(self.path(f"link{self.index}")):
            time.sleep(0.1)
        # A busy host may hold a machine up while its kernel looks whether a timer works, which then panics.
        options = f"console=ttyS0 loglevel=1 panic=-1 cryptomgr.notests no_timer_check root=/dev/nvme0n1 rw " \
                  f"net.ifnames=0 systemd.hostname={self.name} systemd.show_status=no systemd.getty_auto=no TERM=dumb"
        # One thread emulates all CPUs, so that a fleet loads no more cores than it has machines.
        command = ["setpriv", "--pdeathsig", "KILL", "qemu-system-x86_64", "-M", "q35", "-accel", "tcg,thread=single",
                   "-cpu", "max", "-smp", str(CPUS), "-m", str(MEMORY_MIB), "-nodefaults", "-display", "none",
                   "-no-reboot", "-kernel", os.path.join(self.fleet.image, "kernel"), "-append", options,
                   "-serial", f"file:{self.path(f'{self.name}.console')}", "-device", "virtio-rng-pci",
                   "-drive", f"file={disk},format=qcow2,if=none,id=root,cache=unsafe",
                   "-device", "nvme,drive=root,serial=root",
                   "-drive", f"file={self.fleet.payload},format=raw,if=virtio,readonly=on",
                   "-chardev", f"socket,id=agent,path={agent},server=on,wait=off", "-device", "virtio-serial-pci",
                   "-device", "virtserialport,chardev=agent,name=agent", *self._network()]
        with open(self.path(f"{self.name}.emulator"), "ab") as log:
            self.emulator = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        # Connected before the machine's own end is open, and as long as it runs: a command that is sent right after
        # another connection has ended may be lost.
        self.channel = socket.socket(socket.AF_UNIX)
        while self.emulator.poll() is None:
            try:
                return self.channel.connect(agent)
            except OSError:
                time.sleep(0.1)

    def power_cut(self):
        self.emulator.kill()
        self.emulator.wait()
        self.channel.close()

    def await_up(self):
        """Once in some dozens of boots the emulator ends by itself, so it has a second try."""
        for _ in "first", "second":
            try:
                return self.run("systemctl is-system-running --wait", BOOT_SECONDS)
            except (Gone, OSError):
                self.power_cut()
                self.power_on()
        raise Gone(f"{self.name} did not boot within {BOOT_SECONDS} s, twice")

    def run(self, command, seconds=300):
        """Runs it there, by bash as root; gives its output and status."""
        self.channel.settimeout(seconds)
        self.channel.sendall(base64.b64encode(command.encode()) + b"\n")
        seen = b""
        while not (match := ANSWER.fullmatch(seen)):
            try:
                piece = self.channel.recv(65536)
            except TimeoutError:
                piece = b""
            if not piece:
                raise Gone(f"{self.name} gives no answer to: {command}")
            seen += piece
        return match[1].decode(errors="replace").strip(), int(match[2])


class Fleet:
    """A controller and its nodes. Each finds the payload's bytes at the beginning of its disk /dev/vda."""

    def __init__(self, image, payload, work, nodes):
        self.image, self.payload, self.work, self.nodes = image, os.path.realpath(payload), work, nodes
        names = ["controller", *(f"node{index}" for index in range(1, nodes + 1))]
        self.machines = [Machine(name, index, self) for index, name in enumerate(names)]

    def __enter__(self):
        for machine in self.machines:
            machine.power_on()
        for machine in self.machines:
            machine.await_up()
        return self.machines

    def __exit__(self, *_):
        for machine in self.machines:
            machine.power_cut()
