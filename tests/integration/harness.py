"""Real servers for the integration tests: nginx + php-fpm, PHP's built-in
server and the CLI, each with the extension loaded and the file reporter
writing into a private directory; curl as the client; Debian's python3-bson
as the reader of what the extension wrote.

Everything listens on free loopback ports and lives in a temporary
directory that is removed when the server stops.
"""
import glob
import hashlib
import hmac
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

from bson.int64 import Int64

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "support"))
import bson_tools  # noqa: E402
WWW = os.path.join(HERE, "www")
# The key the local reporters install for trigger-trace signatures.
SIGNATURE_KEY = b"k3Tq7XwPbnR2vLyd9HsA"
NGINX = "/usr/sbin/nginx"


class Php:
    """One PHP build: its CLI, its php-fpm (when it has one) and our module."""

    def __init__(self, flavour, module):
        self.flavour = flavour
        self.module = module
        if flavour == "zts":
            prefix = os.environ.get("PHP_ZTS_PREFIX", "/opt/corvidine/php-8.2-zts").rstrip("/")
            self.cli = os.path.join(prefix, "bin", "php")
            fpm = os.path.join(prefix, "sbin", "php-fpm")
            self.fpm = fpm if os.access(fpm, os.X_OK) else None
        else:
            self.cli = "/usr/bin/php8.2" if os.access("/usr/bin/php8.2", os.X_OK) else "/usr/bin/php"
            self.fpm = "/usr/sbin/php-fpm8.2"

    def ini_args(self, ini, log, load_module=True):
        """-n (no system php.ini, so no other extension gets in the way), our
        module, errors to a log file, then the test's own entries."""
        args = ["-n"] + (["-d", "extension=" + self.module] if load_module else [])
        args += ["-d", "log_errors=1", "-d", "error_log=" + log, "-d", "display_errors=0", "-d", "html_errors=0"]
        for key, value in ini.items():
            args += ["-d", "%s=%s" % (key, value)]
        return args


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def wait_for_port(port, process, timeout=10.0):
    deadline = time.time() + timeout
    while time.time() < deadline:
        if process.poll() is not None:
            raise RuntimeError("server exited with status %s" % process.returncode)
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("nothing listens on port %d" % port)


def decode_documents(path, lenient=False):
    """All documents of a file. lenient: strings that are not UTF-8 are
    decoded with replacement characters instead of failing."""
    return bson_tools.decode_file(path, "replace" if lenient else "strict")


class Traces:
    """The documents the file reporter wrote: one file per process."""

    def __init__(self, directory):
        self.directory = directory
        self.prefix = os.path.join(directory, "trace")

    def documents(self, lenient=False):
        documents = []
        for path in sorted(glob.glob(self.prefix + "*")):
            documents.extend(decode_documents(path, lenient))
        return documents

    def events(self, lenient=False):
        return [d for d in self.documents(lenient) if "Label" in d and not d.get("__Init")]

    def by_task(self, task):
        return [e for e in self.events() if e["X-Trace"][2:42] == task]

    def wait_trace(self, predicate, timeout=5.0, lenient=False):
        """The entry and exit event of the first trace whose entry satisfies
        predicate, waiting for the exit event to be written."""
        deadline = time.time() + timeout
        while True:
            events = self.events(lenient)
            for entry in events:
                if entry.get("Label") == "entry" and predicate(entry):
                    task = entry["X-Trace"][2:42]
                    exits = [e for e in events if e.get("Label") == "exit" and e["X-Trace"][2:42] == task]
                    if exits:
                        return entry, exits[0]
            if time.time() > deadline:
                return None, None
            time.sleep(0.05)


class Server:
    """Common part of the HTTP servers: directory, environment, logs."""

    def __init__(self, php, ini=None, env=None, load_module=True):
        self.php = php
        self.load_module = load_module
        self.ini = dict(ini or {})
        self.dir = tempfile.mkdtemp(prefix="corvidine-it-")
        os.chmod(self.dir, 0o755)
        self.traces = Traces(self.dir)
        self.php_log = os.path.join(self.dir, "php-errors.log")
        self.env = dict(os.environ)
        self.env.update({"CORVIDINE_REPORTER": "file", "CORVIDINE_COLLECTOR": self.traces.prefix,
                         "CORVIDINE_CLOUD_METADATA": "off"})  # nothing beyond loopback
        self.env.update(env or {})
        self.processes = []
        self.port = None

    def url(self, path):
        return "http://127.0.0.1:%d%s" % (self.port, path)

    def php_errors(self):
        try:
            with open(self.php_log, errors="replace") as handle:
                return handle.read()
        except FileNotFoundError:
            return ""

    def stop(self, keep=None):
        """Stops the processes and removes the directory, unless keep (by
        default: CORVIDINE_IT_KEEP=1) asks to leave it for a look."""
        if keep is None:
            keep = os.environ.get("CORVIDINE_IT_KEEP") == "1"
        for process in reversed(self.processes):
            if process.poll() is None:
                process.send_signal(signal.SIGTERM)
                try:
                    process.wait(timeout=10)
                except subprocess.TimeoutExpired:
                    process.kill()
                    process.wait()
        self.processes = []
        if not keep:
            shutil.rmtree(self.dir, ignore_errors=True)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.stop()


class FpmServer(Server):
    """nginx in front of php-fpm, both on free loopback ports."""

    def __init__(self, php, ini=None, env=None, children=2, fpm_prefix=None, load_module=True):
        super().__init__(php, ini, env, load_module)
        self.children = children
        self.fpm_prefix = fpm_prefix or []
        self.fpm_log = os.path.join(self.dir, "fpm.log")

    def start(self):
        if self.php.fpm is None:
            raise RuntimeError("this PHP has no php-fpm")
        self.port = free_port()
        fpm_port = free_port()
        for sub in ("body", "fastcgi", "proxy", "uwsgi", "scgi"):
            os.makedirs(os.path.join(self.dir, "tmp", sub), exist_ok=True)
        fpm_conf = os.path.join(self.dir, "fpm.conf")
        with open(fpm_conf, "w") as handle:
            handle.write(FPM_CONF.format(dir=self.dir, port=fpm_port, children=self.children))
        nginx_conf = os.path.join(self.dir, "nginx.conf")
        with open(nginx_conf, "w") as handle:
            handle.write(NGINX_CONF.format(dir=self.dir, port=self.port, fpm_port=fpm_port, www=WWW))

        fpm = subprocess.Popen(self.fpm_prefix + [self.php.fpm, "-F", "-R", "-y", fpm_conf] +
                               self.php.ini_args(self.ini, self.php_log, self.load_module),
                               env=self.env, stdout=subprocess.DEVNULL,
                               stderr=open(os.path.join(self.dir, "fpm.stderr"), "w"))
        self.processes.append(fpm)
        wait_for_port(fpm_port, fpm, timeout=60 if self.fpm_prefix else 10)
        nginx = subprocess.Popen([NGINX, "-p", self.dir, "-c", nginx_conf], env=self.env,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.processes.append(nginx)
        wait_for_port(self.port, nginx)
        return self

    def fpm_log_text(self):
        text = ""
        for name in ("fpm.log", "fpm.stderr"):
            try:
                with open(os.path.join(self.dir, name), errors="replace") as handle:
                    text += handle.read()
            except FileNotFoundError:
                pass
        return text

    def crashes(self):
        """Workers the fpm master saw die of a signal."""
        return re.findall(r"exited on signal \d+.*", self.fpm_log_text())


class BuiltinServer(Server):
    """PHP's built-in web server (php -S)."""

    def __init__(self, php, ini=None, env=None, prefix=None):
        super().__init__(php, ini, env)
        self.prefix = prefix or []
        self.stderr_path = os.path.join(self.dir, "server.stderr")

    def start(self):
        self.port = free_port()
        server = subprocess.Popen(self.prefix + [self.php.cli] + self.php.ini_args(self.ini, self.php_log) +
                                  ["-S", "127.0.0.1:%d" % self.port, "-t", WWW],
                                  env=self.env, stdout=subprocess.DEVNULL, stderr=open(self.stderr_path, "w"))
        self.processes.append(server)
        wait_for_port(self.port, server, timeout=60 if self.prefix else 10)
        return self

    def crashes(self):
        process = self.processes[0] if self.processes else None
        if process is not None and process.poll() is not None and process.returncode < 0:
            return ["built-in server died of signal %d" % -process.returncode]
        return []


class Response:
    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers  # lower-case name -> list of values
        self.body = body

    def header(self, name):
        values = self.headers.get(name.lower(), [])
        return values[0] if values else None

    def header_all(self, name):
        return self.headers.get(name.lower(), [])


def curl(url, headers=None, timeout=10):
    """One request with real curl; headers: name -> value (str or bytes: a
    bytes value goes out as it is, for hostile input)."""
    command = ["curl", "-s", "-S", "--max-time", str(timeout), "-D", "-", "-o", "/dev/stderr", "--noproxy", "*"]
    for name, value in (headers or {}).items():
        if isinstance(value, bytes):
            command += ["-H", name.encode() + b": " + value if value else name.encode() + b";"]
        else:
            # "Name;" is curl's way of sending a header with an empty value.
            command += ["-H", "%s: %s" % (name, value) if value != "" else name + ";"]
    command.append(url)
    result = subprocess.run(command, capture_output=True, timeout=timeout + 5)
    if result.returncode != 0:
        raise RuntimeError("curl failed (%d): %s" % (result.returncode, result.stderr[-300:]))
    head = result.stdout.decode("latin-1")
    blocks = [b for b in re.split(r"\r\n\r\n", head) if b.strip()]
    lines = blocks[-1].split("\r\n")
    status = int(lines[0].split()[1])
    parsed = {}
    for line in lines[1:]:
        if ":" in line:
            name, value = line.split(":", 1)
            parsed.setdefault(name.strip().lower(), []).append(value.strip())
    return Response(status, parsed, result.stderr)


def signature(options):
    return hmac.new(SIGNATURE_KEY, options.encode(), hashlib.sha1).hexdigest()


def openssl_signature(options):
    """The same HMAC by the openssl tool, so that the test does not lean on
    one implementation only."""
    out = subprocess.run(["openssl", "dgst", "-sha1", "-hmac", SIGNATURE_KEY.decode()],
                         input=options.encode(), capture_output=True, check=True).stdout.decode()
    return out.strip().split()[-1]


def run_cli(php, script, ini=None, env=None, args=None, directory=None):
    """Runs a script under the CLI with the file reporter; returns
    (completed process, Traces, directory)."""
    directory = directory or tempfile.mkdtemp(prefix="corvidine-it-cli-")
    traces = Traces(directory)
    full_env = dict(os.environ)
    full_env.update({"CORVIDINE_REPORTER": "file", "CORVIDINE_COLLECTOR": traces.prefix})
    full_env.update(env or {})
    log = os.path.join(directory, "php-errors.log")
    command = [php.cli] + php.ini_args(ini or {}, log) + [script] + (args or [])
    result = subprocess.run(command, env=full_env, capture_output=True, timeout=60)
    return result, traces, directory


def is_int64(value):
    return isinstance(value, Int64)


FPM_CONF = """[global]
pid = {dir}/fpm.pid
error_log = {dir}/fpm.log
log_level = notice
daemonize = no

[www]
listen = 127.0.0.1:{port}
pm = static
pm.max_children = {children}
clear_env = no
catch_workers_output = yes
decorate_workers_output = no
"""

NGINX_CONF = """daemon off;
master_process on;
worker_processes 1;
user root;
error_log {dir}/nginx-error.log warn;
pid {dir}/nginx.pid;
events {{ worker_connections 1024; }}
http {{
    access_log off;
    client_body_temp_path {dir}/tmp/body;
    fastcgi_temp_path {dir}/tmp/fastcgi;
    proxy_temp_path {dir}/tmp/proxy;
    uwsgi_temp_path {dir}/tmp/uwsgi;
    scgi_temp_path {dir}/tmp/scgi;
    server {{
        listen 127.0.0.1:{port};
        server_name localhost;
        root {www};
        location ~ \\.php$ {{
            fastcgi_pass 127.0.0.1:{fpm_port};
            fastcgi_param SCRIPT_FILENAME $document_root$fastcgi_script_name;
            fastcgi_param QUERY_STRING $query_string;
            fastcgi_param REQUEST_METHOD $request_method;
            fastcgi_param CONTENT_TYPE $content_type;
            fastcgi_param CONTENT_LENGTH $content_length;
            fastcgi_param SCRIPT_NAME $fastcgi_script_name;
            fastcgi_param REQUEST_URI $request_uri;
            fastcgi_param DOCUMENT_URI $document_uri;
            fastcgi_param DOCUMENT_ROOT $document_root;
            fastcgi_param SERVER_PROTOCOL $server_protocol;
            fastcgi_param GATEWAY_INTERFACE CGI/1.1;
            fastcgi_param SERVER_SOFTWARE nginx;
            fastcgi_param REMOTE_ADDR $remote_addr;
            fastcgi_param REMOTE_PORT $remote_port;
            fastcgi_param SERVER_ADDR $server_addr;
            fastcgi_param SERVER_PORT $server_port;
            fastcgi_param SERVER_NAME $server_name;
        }}
    }}
}}
"""
