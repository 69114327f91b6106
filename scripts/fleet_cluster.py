# SPDX-License-Identifier: Apache-2.0
"""A Slurm cluster with a Prometheus on machines of scripts/fleet_machines.py, set up by the package's examples as they
are shipped, and what can be seen of it."""
import collections
import concurrent.futures
import json
import re
import shlex
import time

EXAMPLES = "/usr/share/doc/cpuwarden/examples"
USER = "batch"
OUTPUT = "/srv/trial"
SCRAPE_SECONDS = 15  # of the example
UNITS = {"controller": "slurmctld prometheus"}
UNITS_OF_NODES = "cpuwarden-metrics.timer slurmd"

# As docs/fleet.md has it, but for the worker: a shell under its own name, since a launcher does not count a script.
SET_UP = f"""set -e
head -c SIZE /dev/vda >package.deb
dpkg -i package.deb
echo 'PREPARE_OPTIONS="--owner {USER}"' >/etc/default/cpuwarden
systemctl reload cpuwarden-cgroup
cd {EXAMPLES}
cp slurm/slurm.conf /etc/slurm
install -m 755 slurm/epilog slurm/health /etc/slurm
cp -r slurm/slurmd.service.d cpuwarden-metrics.* /etc/systemd/system
cp prometheus/* /etc/prometheus
cp /bin/dash /usr/local/bin/worker
install -d -o {USER} {OUTPUT}
systemctl daemon-reload
systemctl enable --now """

# What bench/plot draws.
SERIES = {"free cores": 'cpuwarden_cores{state="free"}', "longest wait, s": "cpuwarden_longest_wait_seconds",
          "commands that do not count": "sum by (instance) (cpuwarden_not_counted_processes)",
          "age of the counts, s": 'time() - node_textfile_mtime_seconds{file=~".*/cpuwarden.prom"}',
          "answers": 'up{job="node"}', "alerts": 'count by (instance) (ALERTS{alertstate="firing"})'}


class Cluster:
    def __init__(self, controller, nodes):
        self.controller, self.nodes = controller, nodes

    def set_up(self, package_size):
        """Gives the output of what failed."""
        def on(machine):
            units = UNITS.get(machine.name, UNITS_OF_NODES)
            output, status = machine.run(SET_UP.replace("SIZE", str(package_size)) + units)
            return output if status else ""
        with concurrent.futures.ThreadPoolExecutor() as pool:
            return "".join(pool.map(on, [self.controller, *self.nodes]))

    def on_nodes(self, command):
        return [node.run(command)[0] for node in self.nodes]

    def submit(self, name, script, options=""):
        """One task, unless the options say more; each is a shell that runs the script."""
        output, status = self.controller.run(
            f"cd {OUTPUT} && runuser -u {USER} -- sbatch --job-name={name} --output={OUTPUT}/{name}-%a.out --array=1 "
            f"--time=5 {options} {EXAMPLES}/slurm/worker.sbatch -c {shlex.quote(script)}")
        if status:
            raise RuntimeError(f"cannot submit {name}: {output}")

    def tasks(self, name, pattern):
        """How many of the job's tasks have which values where scontrol shows what the pattern matches."""
        shown = re.findall(rf" JobName={name} .*", self.controller.run("scontrol --oneliner show job")[0])
        return dict(collections.Counter(" ".join(re.search(pattern, task).groups("")) for task in shown))

    def ends(self, name):
        return self.tasks(name, r"JobState=(\S+).* ExitCode=(\S+)")

    def places(self, name):
        return self.tasks(name, r"JobState=(\S+)(?:.* NodeList=(node\S+) )?")

    def said(self, name, pattern):
        """By how many lines of the tasks' output on each node."""
        counts = self.on_nodes(f"cat {OUTPUT}/{name}-*.out 2>/dev/null | grep -cE '^({pattern})$'")
        return [int(count) for count in counts]

    def running(self, names):
        # Debian 12's warns of long patterns, as if they were names.
        return sum(map(int, self.on_nodes(f"pgrep -cx '{names}' 2>/dev/null")))

    def states(self):
        """Of the nodes, by Slurm."""
        return self.controller.run("sinfo -h -N -o %T")[0].split()

    def query(self, expression):
        """The value for each instance."""
        found = self._promtool(f"instant -o json http://localhost:9090 {shlex.quote(expression)}")
        return {series["metric"]["instance"]: series["value"][1] for series in found}

    def series(self, begin):
        """Since then; the machines' clocks are this host's."""
        times = f"--start={int(begin)} --end={int(time.time())} --step={SCRAPE_SECONDS}s"
        return {label: self._promtool(f"range -o json {times} http://localhost:9090 {shlex.quote(expression)}")
                for label, expression in SERIES.items()}

    def _promtool(self, query):
        return json.loads(self.controller.run(f"promtool query {query}")[0])
