#!/usr/bin/python3
"""--php-fpm PATH --extension SO: in a php-fpm pool the master sends "__Init" once, workers rebuild their reporters,
a .user.ini key names its directory's service only, the token never shows in phpinfo(), no worker dies."""
import argparse
import glob
import os
import re
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "tests", "integration"))
import harness  # noqa: E402

WORKERS = 3
INFO_PHP = """<?php echo "pid=", getmypid(), "\\n"; (new ReflectionExtension('corvidine'))->info();"""


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--php-fpm", required=True)
    parser.add_argument("--extension", required=True)
    args = parser.parse_args()
    www = tempfile.mkdtemp(prefix="corvidine-fpm-www-")
    os.makedirs(os.path.join(www, "dir"))
    for path, text in (("info.php", INFO_PHP), ("dir/info.php", INFO_PHP),
                       ("dir/.user.ini", "corvidine.service_key=secret-token:Per Directory\n")):
        with open(os.path.join(www, path), "w") as handle:
            handle.write(text)
    os.chmod(www, 0o755)
    harness.WWW = www
    php = harness.Php("nts", args.extension)
    php.fpm = args.php_fpm
    failed = []

    def check(ok, what, detail=""):
        print("%s %s%s" % ("ok  " if ok else "FAIL", what, "" if ok else ": %s" % (detail,)))
        if not ok:
            failed.append(what)

    with harness.FpmServer(php, ini={"corvidine.service_key": "secret-token:Main Service"},
                           children=WORKERS) as server:
        get = lambda path: harness.curl(server.url(path)).body.decode("utf-8", "replace")  # noqa: E731
        main_bodies = [get("/info.php") for _ in range(WORKERS * 6)]
        dir_bodies = [get("/dir/info.php") for _ in range(WORKERS * 2)]
        master = server.processes[0].pid
        workers = {int(m) for b in main_bodies + dir_bodies for m in re.findall(r"^pid=(\d+)$", b, re.M)}
        check(len(workers) >= 2 and master not in workers, "several forked workers served", sorted(workers))

        def rows(body):  # the name and value cells of phpinfo()'s HTML rows
            return dict((n, v) for _, n, _, v in re.findall(r"<t([dh])[^>]*>\s*([^<]*?)\s*</t\1>" * 2, body))
        for name, bodies, service in (("master's", main_bodies, "main-service"), ("per-directory", dir_bodies,
                                                                                  "per-directory")):
            seen = sorted({(rows(b).get("service name"), rows(b).get("reporter ready")) for b in bodies})
            check(seen == [(service, "yes")], "the %s key names the service, reporter ready" % name, seen)
        check(not any("secret-token" in b for b in main_bodies + dir_bodies), "the token never shows in phpinfo()")

        files = {int(path[len(server.traces.prefix):]): harness.bson_tools.decode_file(path)
                 for path in glob.glob(server.traces.prefix + "*")}
        inits = [d for d in files.get(master, []) if d.get("__Init") is True]
        check(len(inits) == 1 and inits[0].get("PHP.SAPI.Version") == "fpm-fcgi", "the master sent __Init once",
              inits)
        for pid in sorted(workers):
            docs = files.get(pid)
            check(docs is not None and not any(d.get("__Init") for d in docs),
                  "worker %d rebuilt its reporter, no second __Init" % pid)
        check(set(files) <= workers | {master}, "no reporter files of unknown processes", sorted(files))
        check(not server.crashes(), "no worker crashed", server.crashes())
    os.system("rm -rf '%s'" % www)
    print("fpm test: %s" % ("FAILED: " + "; ".join(failed) if failed else "all checks passed"))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
