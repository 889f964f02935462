#!/usr/bin/python3
"""The extension in a real php-fpm pool, with workers forked from the master.

    fpm_workers_test.py --php-fpm PATH --extension corvidine.so [--keep]

Starts php-fpm (static pool of 3 workers) and nginx in front of it on free
loopback ports, in a private temporary directory, with the file reporter
writing to a path without extension, so that every process writes a file of
its own (the path plus its process id). Then checks:

  - the master sends "__Init" once, from module start, and the workers do
    not send it again;
  - each worker rebuilds its reporter at its first use (the readiness check
    of phpinfo()), which shows as a reporter file of its own process id;
  - a per-directory service key (PHP_VALUE from nginx) names the service of
    those requests only;
  - the service key's token never shows in phpinfo();
  - no worker dies (fpm's log reports signals and exits), and the master
    stops cleanly.

Documents are decoded with Debian's python3-bson. Exit status 0 when all
checks pass.
"""
import argparse
import glob
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "tests", "support"))
import bson_tools  # noqa: E402

NGINX = "/usr/sbin/nginx"
WORKERS = 3
SERVICE_KEY = "secret-token:Main Service"

INFO_PHP = """<?php
header('Content-Type: text/plain');
echo "pid=", getmypid(), "\\n";
$extension = new ReflectionExtension('corvidine');
ob_start();
$extension->info();
echo ob_get_clean();
"""


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def wait_for_port(port, process, what, timeout=15.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if process.poll() is not None:
            raise RuntimeError("%s exited with status %s before listening" % (what, process.returncode))
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("%s does not listen on port %d" % (what, port))


def info_rows(html):
    """Rows of the corvidine section of phpinfo() in HTML form."""
    rows = {}
    cells = r'<t([dh])[^>]*>\s*([^<]*?)\s*</t\1>'
    for _, name, _, value in re.findall(cells + cells, html):
        rows.setdefault(name, value)
    return rows


class Servers:
    def __init__(self, php_fpm, extension, keep):
        self.dir = tempfile.mkdtemp(prefix="corvidine-fpm-")
        self.keep = keep
        self.fpm_port = free_port()
        self.http_port = free_port()
        self.trace_base = os.path.join(self.dir, "trace")
        self.fpm_log = os.path.join(self.dir, "fpm.log")
        self.fpm = None
        self.nginx = None
        www = os.path.join(self.dir, "www")
        os.makedirs(www)
        with open(os.path.join(www, "info.php"), "w") as handle:
            handle.write(INFO_PHP)
        self._write_fpm_config()
        self._write_nginx_config(www)
        env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "CORVIDINE_REPORTER": "file",
               "CORVIDINE_COLLECTOR": self.trace_base}
        self.fpm = subprocess.Popen(
            [php_fpm, "-n", "-F", "-R", "-y", os.path.join(self.dir, "php-fpm.conf"), "-d", "extension=" + extension,
             "-d", "corvidine.service_key=" + SERVICE_KEY, "-d", "display_errors=0", "-d", "log_errors=1"],
            env=env, stdout=subprocess.DEVNULL, stderr=open(os.path.join(self.dir, "fpm.stderr"), "w"))
        wait_for_port(self.fpm_port, self.fpm, "php-fpm")
        self.nginx = subprocess.Popen([NGINX, "-c", os.path.join(self.dir, "nginx.conf"), "-p", self.dir],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for_port(self.http_port, self.nginx, "nginx")

    def _write_fpm_config(self):
        with open(os.path.join(self.dir, "php-fpm.conf"), "w") as handle:
            handle.write("""[global]
pid = {d}/fpm.pid
error_log = {log}
log_level = notice
daemonize = no

[www]
listen = 127.0.0.1:{port}
pm = static
pm.max_children = {workers}
catch_workers_output = yes
clear_env = yes
""".format(d=self.dir, log=self.fpm_log, port=self.fpm_port, workers=WORKERS))

    def _write_nginx_config(self, www):
        fastcgi = """
            fastcgi_pass 127.0.0.1:{port};
            fastcgi_param SCRIPT_FILENAME {www}/info.php;
            fastcgi_param SCRIPT_NAME /info.php;
            fastcgi_param REQUEST_METHOD $request_method;
            fastcgi_param REQUEST_URI $request_uri;
            fastcgi_param QUERY_STRING $query_string;
            fastcgi_param SERVER_NAME $server_name;
            fastcgi_param SERVER_PORT $server_port;
            fastcgi_param REMOTE_ADDR $remote_addr;
            fastcgi_param SERVER_PROTOCOL $server_protocol;
            fastcgi_param GATEWAY_INTERFACE CGI/1.1;
""".format(port=self.fpm_port, www=www)
        with open(os.path.join(self.dir, "nginx.conf"), "w") as handle:
            handle.write("""daemon off;
master_process off;
pid {d}/nginx.pid;
error_log {d}/nginx-error.log;
events {{ worker_connections 64; }}
http {{
    access_log off;
    client_body_temp_path {d}/tmp-body;
    fastcgi_temp_path {d}/tmp-fastcgi;
    proxy_temp_path {d}/tmp-proxy;
    uwsgi_temp_path {d}/tmp-uwsgi;
    scgi_temp_path {d}/tmp-scgi;
    server {{
        listen 127.0.0.1:{port};
        location /dir/ {{
            {fastcgi}
            fastcgi_param PHP_VALUE "corvidine.service_key=secret-token:Per Directory";
        }}
        location / {{
            {fastcgi}
        }}
    }}
}}
""".format(d=self.dir, port=self.http_port, fastcgi=fastcgi))

    def get(self, path):
        url = "http://127.0.0.1:%d%s" % (self.http_port, path)
        with urllib.request.urlopen(url, timeout=20) as response:
            return response.status, response.read().decode("utf-8", "replace")

    def stop(self):
        """Stops nginx, then php-fpm gracefully; returns php-fpm's exit status."""
        status = None
        if self.nginx is not None and self.nginx.poll() is None:
            self.nginx.send_signal(signal.SIGQUIT)
            try:
                self.nginx.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.nginx.kill()
                self.nginx.wait()
        if self.fpm is not None:
            if self.fpm.poll() is None:
                self.fpm.send_signal(signal.SIGQUIT)
                try:
                    status = self.fpm.wait(timeout=20)
                except subprocess.TimeoutExpired:
                    self.fpm.kill()
                    self.fpm.wait()
                    status = "killed after 20 s"
            else:
                status = "exited early with %s" % self.fpm.returncode
        return status

    def cleanup(self):
        if self.keep:
            print("fpm test: kept %s" % self.dir)
        else:
            shutil.rmtree(self.dir, ignore_errors=True)


class Checks:
    def __init__(self):
        self.failed = 0

    def check(self, ok, what, detail=""):
        print("%s %s%s" % ("ok  " if ok else "FAIL", what, "" if ok or not detail else ": %s" % detail))
        if not ok:
            self.failed += 1


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--php-fpm", required=True)
    parser.add_argument("--extension", required=True)
    parser.add_argument("--keep", action="store_true", help="keep the temporary directory")
    args = parser.parse_args()
    if not os.access(NGINX, os.X_OK):
        print("fpm test: %s is missing (package nginx-light)" % NGINX, file=sys.stderr)
        return 1

    checks = Checks()
    servers = Servers(args.php_fpm, args.extension, args.keep)
    try:
        master_pid = servers.fpm.pid
        responses = []
        # More requests than workers, a few at a time, so that every worker
        # serves some.
        for _ in range(WORKERS * 6):
            responses.append(servers.get("/info.php"))
        per_directory = [servers.get("/dir/info.php") for _ in range(WORKERS * 2)]

        statuses = [status for status, _ in responses + per_directory]
        checks.check(all(s == 200 for s in statuses), "every request answered 200", statuses)

        worker_pids = set()
        for _, body in responses + per_directory:
            match = re.search(r"^pid=(\d+)$", body, re.M)
            if match:
                worker_pids.add(int(match.group(1)))
        checks.check(len(worker_pids) >= 2 and master_pid not in worker_pids,
                     "requests were served by several forked workers", sorted(worker_pids))

        rows = [info_rows(body) for _, body in responses]
        checks.check(all(r.get("corvidine support") == "enabled" for r in rows), "phpinfo() shows the agent enabled")
        checks.check(all(r.get("reporter ready") == "yes" for r in rows), "every worker's reporter is ready",
                     sorted({r.get("reporter ready") for r in rows}))
        checks.check(all(r.get("service name") == "main-service" for r in rows),
                     "service name from the master's key", sorted({r.get("service name") for r in rows}))
        dir_names = sorted({info_rows(body).get("service name") for _, body in per_directory})
        checks.check(dir_names == ["per-directory"], "a per-directory key names its own service", dir_names)
        leaked = [body for _, body in responses + per_directory if "secret-token" in body]
        checks.check(not leaked, "the service key's token never shows in phpinfo()")

        # The master's document, written at module start.
        master_file = "%s%d" % (servers.trace_base, master_pid)
        master_docs = bson_tools.decode_file(master_file) if os.path.exists(master_file) else []
        inits = [d for d in master_docs if d.get("__Init") is True]
        checks.check(len(inits) == 1, "the master sent __Init once", len(inits))
        if inits:
            checks.check(inits[0].get("PHP.SAPI.Version") == "fpm-fcgi", "__Init names the fpm SAPI",
                         inits[0].get("PHP.SAPI.Version"))

        # Each worker rebuilt its reporter: a file of its own process id.
        for pid in sorted(worker_pids):
            path = "%s%d" % (servers.trace_base, pid)
            exists = os.path.exists(path)
            checks.check(exists, "worker %d rebuilt its reporter (%s)" % (pid, os.path.basename(path)))
            if exists:
                resent = [d for d in bson_tools.decode_file(path) if d.get("__Init") is True]
                checks.check(not resent, "worker %d did not send __Init again" % pid, len(resent))
        others = [p for p in glob.glob(servers.trace_base + "*")
                  if int(p[len(servers.trace_base):]) not in worker_pids | {master_pid}]
        checks.check(not others, "no reporter files of unknown processes", others)
    finally:
        fpm_status = servers.stop()

    with open(servers.fpm_log, errors="replace") as handle:
        fpm_log = handle.read()
    died = [line for line in fpm_log.splitlines()
            if re.search(r"exited on signal|exited with code [1-9]|SIGSEGV|core dumped", line)]
    checks.check(not died, "no worker crashed or failed", died)
    checks.check(fpm_status == 0, "php-fpm stopped cleanly", fpm_status)
    if checks.failed:
        print("--- fpm log:\n" + fpm_log)
        with open(os.path.join(servers.dir, "fpm.stderr"), errors="replace") as handle:
            print("--- fpm stderr:\n" + handle.read())
    servers.cleanup()
    print("fpm test: %s" % ("%d check(s) failed" % checks.failed if checks.failed else "all checks passed"))
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
