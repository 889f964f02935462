"""Rounds of PHP CLI runs of one benchmark script in several set-ups
(tools/bench-db.sh, tools/bench-kv.sh): the set-ups take turns, in reversed
order every other round; each run prints its figure per call as its last
line; the medians are printed with their ratio to "without extension".
Traced set-ups write every event with the file reporter into a directory in
/dev/shm (the reporter syncs each write: on tmpfs that costs little)."""
import os
import shutil
import statistics
import subprocess
import tempfile

BASELINE = "without extension"


class CliRounds:
    def __init__(self, php_bin, modules, variants, rounds, work):
        """modules: -d arguments loading the PHP modules the scripts use; variants: [(name, extra -d
        arguments)], the first being BASELINE (agent() gives the arguments that load the agent)."""
        self.php_bin, self.modules, self.variants, self.rounds = php_bin, modules, variants, rounds
        shm = "/dev/shm" if os.path.isdir("/dev/shm") else work
        self.events = tempfile.mkdtemp(prefix="corvidine-bench-", dir=shm)
        self.env = dict(os.environ, CORVIDINE_REPORTER="file", CORVIDINE_COLLECTOR=os.path.join(self.events, "trace"),
                        CORVIDINE_CLOUD_METADATA="off")

    def run(self, script, argument, unit, extra_env=None):
        times = {name: [] for name, _ in self.variants}
        for r in range(self.rounds):
            for name, args in (self.variants if r % 2 == 0 else list(reversed(self.variants))):
                out = subprocess.run([self.php_bin, "-n"] + self.modules + args + [script, argument],
                                     env=dict(self.env, **(extra_env or {})), capture_output=True, text=True,
                                     check=True)
                times[name].append(float(out.stdout.strip().splitlines()[-1]))
                for f in os.listdir(self.events):
                    os.unlink(os.path.join(self.events, f))
        base = statistics.median(times[BASELINE])
        for name, _ in self.variants:
            m = statistics.median(times[name])
            print("  %-22s %7.2f µs/%s   ratio %.3f" % (name, m, unit, m / base))

    def close(self):
        shutil.rmtree(self.events, ignore_errors=True)


def agent(so):
    """The arguments that load the agent for a traced CLI run."""
    return ["-d", "extension=" + so, "-d", "corvidine.enable_cli=1", "-d", "corvidine.max_ready_wait_time=-1"]
