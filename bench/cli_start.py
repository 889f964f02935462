#!/usr/bin/python3
"""How much later a CLI script starts with the ssl reporter than with the
file reporter: time from spawning php to the script's first output line,
median of alternating runs. The Collector address is a closed loopback port
and the cloud lookup is off; nothing leaves the machine.

    /usr/bin/python3 bench/cli_start.py path/to/corvidine.so [runs]
"""
import os
import statistics
import subprocess
import sys
import tempfile
import time


def first_line_ms(module, env):
    full = {"PATH": "/usr/bin:/bin", "CORVIDINE_CLOUD_METADATA": "off",
            "CORVIDINE_SERVICE_KEY": "0123456789abcdef:cli", "CORVIDINE_DEBUG_LEVEL": "1"}
    full.update(env)
    start = time.perf_counter()
    php = subprocess.Popen(["/usr/bin/php8.2", "-n", "-d", "extension=" + module, "-d", "corvidine.enable_cli=1",
                            "-d", "corvidine.max_ready_wait_time=-1", "-r", 'echo "started\\n"; flush();'],
                           env=full, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    php.stdout.readline()
    started = (time.perf_counter() - start) * 1000
    php.wait()
    return started, (time.perf_counter() - start) * 1000


def main():
    module = sys.argv[1]
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 40
    trace_dir = tempfile.mkdtemp(prefix="cli-start-")
    cases = {"file": {"CORVIDINE_REPORTER": "file", "CORVIDINE_COLLECTOR": os.path.join(trace_dir, "trace")},
             "ssl": {"CORVIDINE_REPORTER": "ssl", "CORVIDINE_COLLECTOR": "127.0.0.1:1",
                     "CORVIDINE_FLUSH_MAX_WAIT_TIME": "0"}}
    results = {name: [] for name in cases}
    for _ in range(runs):
        for name, env in cases.items():
            results[name].append(first_line_ms(module, env))
    for name, values in results.items():
        print("%-4s start median %.2f ms, whole run median %.2f ms" %
              (name, statistics.median(v[0] for v in values), statistics.median(v[1] for v in values)))
    delta = statistics.median(v[0] for v in results["ssl"]) - statistics.median(v[0] for v in results["file"])
    print("ssl starts %.2f ms later than file" % delta)
    for f in os.listdir(trace_dir):
        os.unlink(os.path.join(trace_dir, f))
    os.rmdir(trace_dir)


if __name__ == "__main__":
    main()
