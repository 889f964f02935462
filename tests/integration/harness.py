"""Real servers on free loopback ports in temp dirs (nginx + php-fpm, php -S, the CLI, databases), the file
reporter's output read back with Debian's python3-bson, curl and a FastCGI client as clients."""
import glob
import hashlib
import hmac
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

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
        self.flavour, self.module = flavour, module
        if flavour == "zts":
            prefix = os.environ.get("PHP_ZTS_PREFIX", "/opt/corvidine/php-8.2-zts").rstrip("/")
            self.cli = os.path.join(prefix, "bin", "php")
            fpm = os.path.join(prefix, "sbin", "php-fpm")
            self.fpm = fpm if os.access(fpm, os.X_OK) else None
        else:
            self.cli = "/usr/bin/php8.2" if os.access("/usr/bin/php8.2", os.X_OK) else "/usr/bin/php"
            self.fpm = "/usr/sbin/php-fpm8.2"

    def ini_args(self, ini, log, load_module=True):
        """-n (no system php.ini), our module, errors to a log, then the test's entries (a list value repeats)."""
        args = ["-n"] + (["-d", "extension=" + self.module] if load_module else [])
        args += ["-d", "log_errors=1", "-d", "error_log=" + log, "-d", "display_errors=0", "-d", "html_errors=0"]
        return args + [a for key, value in ini.items()
                       for one in (value if isinstance(value, list) else [value]) for a in ("-d", "%s=%s" % (key, one))]


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


def terminate(process, timeout):
    if process is not None and process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def shared_modules(php, names):
    """INI loading those of names that this PHP has as shared modules (a -n run loads none)."""
    directory = subprocess.run([php.cli, "-n", "-r", "echo PHP_EXTENSION_DIR;"], capture_output=True,
                               text=True, check=True).stdout
    return {"extension": [m for m in names if os.path.exists(os.path.join(directory, m + ".so"))]}


def read_text(path):
    try:
        with open(path, errors="replace") as handle:
            return handle.read()
    except FileNotFoundError:
        return ""


def write_text(path, text):
    with open(path, "w") as handle:
        handle.write(text)
    return path


class Traces:
    """The documents the file reporter wrote (one file per process), decoded strictly (UTF-8 keys/strings)."""

    def __init__(self, directory):
        self.directory = directory
        self.prefix = os.path.join(directory, "trace")

    def documents(self):
        return [d for path in sorted(glob.glob(self.prefix + "*")) for d in bson_tools.decode_file(path)]

    def events(self):
        return [d for d in self.documents() if "Label" in d and not d.get("__Init")]

    def by_task(self, task):
        return [e for e in self.events() if e["X-Trace"][2:42] == task]

    def wait_trace(self, predicate, timeout=5.0):
        """Entry and exit event of the first trace whose entry satisfies predicate (waits for the exit)."""
        deadline = time.time() + timeout
        while True:
            events = self.events()
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
        return read_text(self.php_log)

    def stop(self):
        """Stops the processes; removes the directory unless CORVIDINE_IT_KEEP=1."""
        for process in reversed(self.processes):
            terminate(process, 10)
        self.processes = []
        if os.environ.get("CORVIDINE_IT_KEEP") != "1":
            shutil.rmtree(self.dir, ignore_errors=True)

    def spawn(self, command, port, timeout=10, stderr=None):
        """Starts one process of the server (stderr: a file name in the directory) and waits for its port."""
        out = open(os.path.join(self.dir, stderr), "w") if stderr else subprocess.DEVNULL
        process = subprocess.Popen(command, env=self.env, stdout=subprocess.DEVNULL, stderr=out)
        self.processes.append(process)
        wait_for_port(port, process, timeout)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.stop()


class FpmServer(Server):
    """nginx in front of php-fpm, both on free loopback ports."""

    def __init__(self, php, ini=None, env=None, children=2, fpm_prefix=None, load_module=True, root=None,
                 front_controller=False):
        """root: document root (default www/); front_controller: paths that are no file go to /index.php."""
        super().__init__(php, ini, env, load_module)
        self.root = root or WWW
        self.fallback = "location / { try_files $uri /index.php$is_args$args; }" if front_controller else ""
        self.children = children
        self.fpm_prefix = fpm_prefix or []

    def start(self):
        if self.php.fpm is None:
            raise RuntimeError("this PHP has no php-fpm")
        self.port = free_port()
        self.fpm_port = fpm_port = free_port()
        for sub in ("body", "fastcgi", "proxy", "uwsgi", "scgi"):
            os.makedirs(os.path.join(self.dir, "tmp", sub), exist_ok=True)
        fpm_conf = write_text(os.path.join(self.dir, "fpm.conf"),
                              FPM_CONF.format(dir=self.dir, port=fpm_port, children=self.children))
        nginx_conf = write_text(os.path.join(self.dir, "nginx.conf"),
                                NGINX_CONF.format(dir=self.dir, port=self.port, fpm_port=fpm_port, www=self.root,
                                                   fallback=self.fallback))
        self.spawn(self.fpm_prefix + [self.php.fpm, "-F", "-R", "-y", fpm_conf] +
                   self.php.ini_args(self.ini, self.php_log, self.load_module), fpm_port,
                   60 if self.fpm_prefix else 10, "fpm.stderr")
        self.spawn([NGINX, "-p", self.dir, "-c", nginx_conf], self.port)
        return self

    def crashes(self):
        """Workers the fpm master saw die of a signal."""
        text = read_text(os.path.join(self.dir, "fpm.log")) + read_text(os.path.join(self.dir, "fpm.stderr"))
        return re.findall(r"exited on signal \d+.*", text)


class BuiltinServer(Server):
    """PHP's built-in web server (php -S)."""

    def __init__(self, php, ini=None, env=None, prefix=None):
        super().__init__(php, ini, env)
        self.prefix = prefix or []
        self.stderr_path = os.path.join(self.dir, "server.stderr")

    def start(self):
        self.port = free_port()
        self.spawn(self.prefix + [self.php.cli] + self.php.ini_args(self.ini, self.php_log) +
                   ["-S", "127.0.0.1:%d" % self.port, "-t", WWW], self.port, 60 if self.prefix else 10, "server.stderr")
        return self

    def crashes(self):
        process = self.processes[0] if self.processes else None
        if process is not None and process.poll() is not None and process.returncode < 0:
            return ["built-in server died of signal %d" % -process.returncode]
        return []


class Response:
    def __init__(self, status, headers, body):
        self.status, self.headers, self.body = status, headers, body  # headers: lower-case name -> values

    def header(self, name):
        return (self.headers.get(name.lower()) or [None])[0]


def curl(url, headers=None, timeout=10):
    """One request with real curl; headers: name -> str or bytes (sent as is, for hostile input)."""
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
    if not blocks:
        raise RuntimeError("curl got no response headers: %r %r" % (head[-200:], result.stderr[-300:]))
    lines = blocks[-1].split("\r\n")
    status = int(lines[0].split()[1])
    parsed = {}
    for line in lines[1:]:
        if ":" in line:
            name, value = line.split(":", 1)
            parsed.setdefault(name.strip().lower(), []).append(value.strip())
    return Response(status, parsed, result.stderr)


def fcgi_request(port, params):
    """One FastCGI request straight to php-fpm (parameters no web server would send); returns its stdout."""
    def record(kind, content):
        return struct.pack(">BBHHBB", 1, kind, 1, len(content), 0, 0) + content

    def pair(name, value):
        name, value = [v if isinstance(v, bytes) else v.encode() for v in (name, value)]
        return b"".join(struct.pack(">B", n) if n < 128 else struct.pack(">I", n | 0x80000000)
                        for n in (len(name), len(value))) + name + value
    body = b"".join(pair(k, v) for k, v in params.items())
    data, out = b"", b""
    with socket.create_connection(("127.0.0.1", port), timeout=10) as sock:
        sock.sendall(record(1, struct.pack(">HB5x", 1, 0)) + record(4, body) + record(4, b"") + record(5, b""))
        while True:
            chunk = sock.recv(65536)
            data += chunk
            while len(data) >= 8:
                _, kind, _, length, padding, _ = struct.unpack(">BBHHBB", data[:8])
                if len(data) < 8 + length + padding:
                    break
                out += data[8:8 + length] if kind == 6 else b""
                data = data[8 + length + padding:]
                if kind == 3:
                    return out
            if not chunk:
                return out


def signature(options):
    return hmac.new(SIGNATURE_KEY, options.encode(), hashlib.sha1).hexdigest()


def openssl_signature(options):
    """The same HMAC by the openssl tool, so that the test does not lean on one implementation."""
    out = subprocess.run(["openssl", "dgst", "-sha1", "-hmac", SIGNATURE_KEY.decode()],
                         input=options.encode(), capture_output=True, check=True).stdout.decode()
    return out.strip().split()[-1]


def run_cli(php, script, ini=None, env=None, args=None, directory=None, load_module=True, prefix=None):
    """Runs a script under the CLI (after prefix, e.g. valgrind) with the file reporter; returns (completed process,
    Traces, directory)."""
    directory = directory or tempfile.mkdtemp(prefix="corvidine-it-cli-")
    traces = Traces(directory)
    full_env = dict(os.environ)
    full_env.update({"CORVIDINE_REPORTER": "file", "CORVIDINE_COLLECTOR": traces.prefix})
    full_env.update(env or {})
    log = os.path.join(directory, "php-errors.log")
    command = (prefix or []) + [php.cli] + php.ini_args(ini or {}, log, load_module) + [script] + (args or [])
    result = subprocess.run(command, env=full_env, capture_output=True, timeout=300 if prefix else 60)
    return result, traces, directory


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

NGINX_CONF = """daemon off; master_process on; worker_processes 1; user root;
error_log {dir}/nginx-error.log warn; pid {dir}/nginx.pid;
events {{ worker_connections 1024; }}
http {{
    access_log off;
    client_body_temp_path {dir}/tmp/body; fastcgi_temp_path {dir}/tmp/fastcgi; proxy_temp_path {dir}/tmp/proxy;
    uwsgi_temp_path {dir}/tmp/uwsgi; scgi_temp_path {dir}/tmp/scgi;
    server {{
        listen 127.0.0.1:{port};
        server_name localhost;
        root {www};
        {fallback}
        location ~ \\.php$ {{
            fastcgi_pass 127.0.0.1:{fpm_port};
            fastcgi_param SCRIPT_FILENAME $document_root$fastcgi_script_name; fastcgi_param SCRIPT_NAME $fastcgi_script_name;
            fastcgi_param QUERY_STRING $query_string; fastcgi_param REQUEST_METHOD $request_method;
            fastcgi_param CONTENT_TYPE $content_type; fastcgi_param CONTENT_LENGTH $content_length;
            fastcgi_param REQUEST_URI $request_uri; fastcgi_param DOCUMENT_URI $document_uri;
            fastcgi_param DOCUMENT_ROOT $document_root; fastcgi_param SERVER_PROTOCOL $server_protocol;
            fastcgi_param GATEWAY_INTERFACE CGI/1.1; fastcgi_param SERVER_SOFTWARE nginx;
            fastcgi_param REMOTE_ADDR $remote_addr; fastcgi_param REMOTE_PORT $remote_port;
            fastcgi_param SERVER_ADDR $server_addr; fastcgi_param SERVER_PORT $server_port;
            fastcgi_param SERVER_NAME $server_name;
        }}
    }}
}}
"""


class Daemon:
    """A server of its own on a free loopback port, in a temporary directory; stop() ends it and removes both."""
    NAME = None
    TIMEOUT = 10

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="corvidine-it-%s-" % self.NAME)
        self.port = None
        self.process = None

    @classmethod
    def binary(cls):
        return shutil.which(cls.NAME, path="/usr/sbin:/usr/bin")

    @classmethod
    def available(cls):
        return cls.binary() is not None

    def start(self):
        self.port = free_port()
        self.process = subprocess.Popen(self.command(), cwd=self.dir, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        try:
            wait_for_port(self.port, self.process, timeout=self.TIMEOUT)
        except RuntimeError:
            self.stop()
            raise
        return self

    def stop(self):
        terminate(self.process, 30)
        self.process = None
        shutil.rmtree(self.dir, ignore_errors=True)


class MariaDB(Daemon):
    """A fresh data directory, no grant tables (any user gets in), database "test"."""
    NAME = "mariadbd"
    TIMEOUT = 60

    @classmethod
    def available(cls):
        return cls.binary() is not None and shutil.which("mariadb-install-db") is not None

    def command(self):
        self.data, self.socket = os.path.join(self.dir, "data"), os.path.join(self.dir, "mysqld.sock")
        subprocess.run(["mariadb-install-db", "--no-defaults", "--user=root", "--datadir=" + self.data,
                        "--auth-root-authentication-method=normal", "--skip-test-db"],
                       check=True, capture_output=True, timeout=120)
        os.makedirs(os.path.join(self.data, "test"), exist_ok=True)
        return [self.binary(), "--no-defaults", "--user=root", "--datadir=" + self.data, "--socket=" + self.socket,
                "--port=%d" % self.port, "--bind-address=127.0.0.1", "--skip-grant-tables", "--skip-name-resolve",
                "--skip-log-bin", "--innodb-buffer-pool-size=16M", "--pid-file=" + os.path.join(self.dir, "mysqld.pid"),
                "--log-error=" + os.path.join(self.dir, "error.log")]


def database_ini(php):
    """The database modules a -n run lacks (none for the ZTS build, which has them built in), in dependency order."""
    return {} if php.flavour == "zts" else shared_modules(php, ("mysqlnd", "mysqli", "pdo", "pdo_sqlite", "pdo_mysql"))


class RedisServer(Daemon):
    NAME = "redis-server"

    def command(self):
        return [self.binary(), "--bind", "127.0.0.1", "--port", str(self.port), "--save", "", "--appendonly", "no",
                "--dir", self.dir]


class MemcachedServer(Daemon):
    NAME = "memcached"

    def command(self):
        return [self.binary(), "-l", "127.0.0.1", "-p", str(self.port), "-U", "0"] + \
            (["-u", "root"] if os.geteuid() == 0 else [])


def key_value_ini(php):
    """The key-value modules a -n run lacks, serializers first; None without phpredis and php-memcached."""
    ini = shared_modules(php, ("igbinary", "msgpack", "redis", "memcached"))
    return ini if {"redis", "memcached"} & set(ini["extension"]) else None
