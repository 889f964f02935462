"""What the development Collector received, in SQLite, and the views its web
page asks for: recent traces, one trace as spans, response-time percentiles,
profiles. Documents are kept as JSON; an event keeps every `Edge` it had.

One connection per thread (sqlite3 objects stay in the thread that made
them); writes are serialised by SQLite itself.
"""
import json
import os
import sqlite3
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))
import bson_tools  # noqa: E402
import hdr_decode  # noqa: E402

SCHEMA = """
CREATE TABLE IF NOT EXISTS events (id INTEGER PRIMARY KEY, task TEXT, op TEXT, label TEXT, layer TEXT, ts INTEGER,
                                   host TEXT, received REAL, doc TEXT);
CREATE INDEX IF NOT EXISTS events_task ON events (task);
CREATE TABLE IF NOT EXISTS profiles (id INTEGER PRIMARY KEY, task TEXT, label TEXT, ts INTEGER, doc TEXT);
CREATE INDEX IF NOT EXISTS profiles_task ON profiles (task);
CREATE TABLE IF NOT EXISTS documents (id INTEGER PRIMARY KEY, kind TEXT, host TEXT, pid INTEGER, received REAL,
                                      doc TEXT);
CREATE TABLE IF NOT EXISTS histograms (id INTEGER PRIMARY KEY, service TEXT, txn TEXT, ts INTEGER, encoded TEXT);
"""
# Keys a span shows beside its timing, merged from its entry, info and exit events.
SPAN_KEYS = ("URL", "HTTPMethod", "Method", "Status", "HTTPStatus", "RemoteURL", "IsService", "Query", "QueryArgs",
             "Flavor", "Database", "RemoteHost", "KVOp", "KVKey", "KVKeyCount", "KVHit", "KVHitCount",
             "TransactionName", "HTTP-Host", "Controller", "Action", "Function", "Class", "FunctionName", "Queries", "SN")


def plain(value):
    """A decoded BSON value as JSON-ready data (bytes as UTF-8 text, bad bytes replaced)."""
    if isinstance(value, bson_tools.Document):
        return {k: plain(v) for k, v in value.items()}
    if isinstance(value, dict):
        return {k: plain(v) for k, v in value.items()}
    if isinstance(value, list):
        return [plain(v) for v in value]
    if isinstance(value, bytes):  # queries may come as binary: shown as text where they are
        return value.decode("utf-8", "replace")
    if isinstance(value, (str, int, float, bool)) or value is None:
        return value
    return str(value)


def event_record(doc):
    """An event as a dict, `Edge` always a list."""
    record = plain(doc)
    record["Edge"] = [str(e) for e in doc.getall("Edge")]
    return record


class Store:
    def __init__(self, path):
        self.path = path
        self._local = threading.local()
        self.db().executescript(SCHEMA)

    def db(self):
        conn = getattr(self._local, "conn", None)
        if conn is None:
            conn = sqlite3.connect(self.path, timeout=30, isolation_level=None)
            conn.execute("PRAGMA journal_mode=WAL")
            conn.row_factory = sqlite3.Row
            self._local.conn = conn
        return conn

    # -- storing -------------------------------------------------------------

    def add_call(self, record):
        """Stores the documents of one Collector call; returns how many were kept."""
        method, identity = record["method"], record.get("identity") or {}
        host, pid, now = identity.get("hostname") or "", identity.get("pid") or 0, time.time()
        kept = 0
        db = self.db()
        db.execute("BEGIN")
        try:
            for raw in record.get("messages") or []:
                try:
                    docs = bson_tools.decode(raw, errors="replace")
                except Exception as e:  # a bad document is noted, the rest of the batch kept
                    db.execute("INSERT INTO documents (kind, host, pid, received, doc) VALUES (?,?,?,?,?)",
                               ("undecodable", host, pid, now, json.dumps({"error": str(e), "bytes": len(raw)})))
                    continue
                for doc in docs:
                    self._add_document(db, method, doc, host, pid, now)
                    kept += 1
            db.execute("COMMIT")
        except BaseException:
            db.execute("ROLLBACK")
            raise
        return kept

    def _add_document(self, db, method, doc, host, pid, now):
        if method == "postEvents" and "X-Trace" in doc:
            record = event_record(doc)
            xtrace = str(doc.get("X-Trace"))
            task, op = xtrace[2:42], xtrace[42:58]
            if doc.get("Spec") == "profiling":
                db.execute("INSERT INTO profiles (task, label, ts, doc) VALUES (?,?,?,?)",
                           (task, doc.get("Label"), doc.get("Timestamp_u"), json.dumps(record)))
            else:
                db.execute("INSERT INTO events (task, op, label, layer, ts, host, received, doc) "
                           "VALUES (?,?,?,?,?,?,?,?)", (task, op, doc.get("Label"), doc.get("Layer"),
                                                        doc.get("Timestamp_u"), doc.get("Hostname") or host, now,
                                                        json.dumps(record)))
            return
        kind = {"postMetrics": "metrics", "postStatus": "status"}.get(method, "event")
        db.execute("INSERT INTO documents (kind, host, pid, received, doc) VALUES (?,?,?,?,?)",
                   (kind, host, pid, now, json.dumps(plain(doc))))
        for h in doc.get("histograms") or [] if kind == "metrics" else []:
            tags = h.get("tags") or {}
            db.execute("INSERT INTO histograms (service, txn, ts, encoded) VALUES (?,?,?,?)",
                       (tags.get("SN", ""), tags.get("TransactionName", ""), doc.get("Timestamp_u"),
                        str(h.get("value", ""))))

    # -- views ---------------------------------------------------------------

    def counts(self):
        db = self.db()
        out = {"events": db.execute("SELECT COUNT(*) FROM events").fetchone()[0],
               "traces": db.execute("SELECT COUNT(DISTINCT task) FROM events").fetchone()[0],
               "profiles": db.execute("SELECT COUNT(DISTINCT task) FROM profiles").fetchone()[0]}
        for kind, n in db.execute("SELECT kind, COUNT(*) FROM documents GROUP BY kind"):
            out[kind] = n
        return out

    def last_received(self, kind):
        """When the last document of a kind ("metrics", "status") came, 0 for never."""
        return self.db().execute("SELECT COALESCE(MAX(received), 0) FROM documents WHERE kind = ?", (kind,)).fetchone()[0]

    def traces(self, limit=100, since=0.0):
        """The latest traces (first event received at `since` or later), newest first: root transaction, URL,
        duration, hosts, services (the HTTP hosts its PHP spans served), errors."""
        rows = self.db().execute(
            "SELECT task, MIN(ts) AS start, MAX(ts) AS end, COUNT(*) AS n, GROUP_CONCAT(DISTINCT host) AS hosts, "
            "GROUP_CONCAT(DISTINCT json_extract(doc, '$.\"HTTP-Host\"')) AS services, "
            "SUM(label = 'error') AS errors FROM events GROUP BY task HAVING MIN(received) >= ? "
            "ORDER BY MAX(id) DESC LIMIT ?", (since, limit))
        out = []
        for row in rows.fetchall():
            root = self._root(row["task"])
            out.append({"task": row["task"], "start": row["start"], "duration": (row["end"] or 0) - (row["start"] or 0),
                        "events": row["n"], "hosts": sorted((row["hosts"] or "").split(",")),
                        "services": sorted(filter(None, (row["services"] or "").split(","))),
                        "errors": row["errors"] or 0, "transaction": root.get("TransactionName", ""),
                        "url": root.get("URL", ""), "status": root.get("Status"), "service": root.get("SN", ""),
                        "profiled": self.db().execute("SELECT 1 FROM profiles WHERE task = ? LIMIT 1",
                                                      (row["task"],)).fetchone() is not None})
        return out

    def _root(self, task):
        """Keys of the trace's first entry and its last exit (transaction name, URL, status)."""
        db = self.db()
        keys = {}
        for sql in ("SELECT doc FROM events WHERE task = ? AND label = 'entry' ORDER BY ts, id LIMIT 1",
                    "SELECT doc FROM events WHERE task = ? AND label = 'exit' ORDER BY ts DESC, id DESC LIMIT 1"):
            row = db.execute(sql, (task,)).fetchone()
            if row:
                keys.update({k: v for k, v in json.loads(row[0]).items() if k in SPAN_KEYS})
        return keys

    def trace(self, task):
        rows = self.db().execute("SELECT op, label, layer, ts, host, doc FROM events WHERE task = ? ORDER BY ts, id",
                                 (task,)).fetchall()
        return build_spans([dict(json.loads(r["doc"]), _op=r["op"], _host=r["host"]) for r in rows])

    def percentiles(self, wanted=(50, 90, 95, 99)):
        """Per service and transaction: count, the percentiles and the maximum, in µs, over every
        histogram received; a histogram that does not decode is counted as such."""
        groups, bad = {}, 0
        for row in self.db().execute("SELECT service, txn, encoded FROM histograms"):
            try:
                groups.setdefault((row["service"], row["txn"]), []).append(hdr_decode.decode(row["encoded"]))
            except ValueError:
                bad += 1
        out = []
        for (service, txn), hists in sorted(groups.items()):
            merged = hdr_decode.merge(hists)
            values = hdr_decode.percentiles(merged, list(wanted) + [100])
            out.append({"service": service, "transaction": txn or "(all)", "count": sum(c for _, c in merged.values()),
                        "percentiles": dict(zip(["p%g" % p for p in wanted], values[:-1])), "max": values[-1]})
        return {"rows": out, "undecodable": bad}

    def profile(self, task=None):
        """Samples of one trace's profile (or of all) as stacks, outermost frame first, with their weight."""
        sql = "SELECT task, doc FROM profiles" + (" WHERE task = ?" if task else "") + " ORDER BY task, ts, id"
        by_span = {}  # a request's services profile the same task: one span per thread
        for row in self.db().execute(sql, (task,) if task else ()):
            doc = json.loads(row["doc"])
            by_span.setdefault((row["task"], doc.get("TID")), []).append(doc)
        stacks = {}
        for docs in by_span.values():
            for stack, weight in profile_stacks(docs):
                stacks[stack] = stacks.get(stack, 0) + weight
        return [{"stack": list(s), "samples": n} for s, n in sorted(stacks.items(), key=lambda kv: -kv[1])]


def frame_name(frame):
    name = frame.get("M") or "{main}"
    if frame.get("C"):
        name = frame["C"] + "::" + name
    if frame.get("F"):
        name += " (%s%s)" % (os.path.basename(frame["F"]), ":%d" % frame["L"] if frame.get("L") else "")
    return name


def profile_stacks(docs):
    """(stack, samples) per snapshot of a profiling span: each snapshot names the frames that left since the one
    before (FramesExited) and the new ones, innermost first (NewFrames); the snapshots it dropped as equal to it
    (SnapshotsOmitted) count for it."""
    stack, out = [], []
    for doc in docs:
        if doc.get("Label") != "info" or "FramesExited" not in doc:
            continue
        exited = int(doc.get("FramesExited") or 0)
        if exited:
            del stack[max(0, len(stack) - exited):]
        frames = doc.get("NewFrames") or {}
        frames = [frames[k] for k in sorted(frames, key=int)] if isinstance(frames, dict) else list(frames)
        stack.extend(frame_name(f) for f in reversed(frames))
        omitted = doc.get("SnapshotsOmitted") or {}
        out.append((tuple(stack), 1 + len(omitted)))
    return out


def build_spans(events):
    """Entry/exit pairs into spans, each under its parent, in start order. An event's span follows its
    edges: an entry opens a span below the span of the event its edge points at (the parent of that span
    when the event is an exit); an info or exit belongs to that span, the first one still open among
    several (a cURL exit also points at the remote service's exit, whose parent is the cURL span)."""
    by_op = {}
    spans = []

    def span_of(op):
        target = by_op.get(op)
        if target is None:
            return None
        span, label = target
        return span["parent"] if label == "exit" and span["closed"] else span

    for e in events:
        label, edges = e.get("Label"), e.get("Edge") or []
        candidates = [s for s in (span_of(op) for op in edges) if s is not None]
        if label == "entry":
            parent = candidates[0] if candidates else None
            span = {"id": len(spans), "layer": e.get("Layer") or "?", "host": e.get("_host"), "start": e.get("Timestamp_u"),
                    "end": None, "parent": parent, "closed": False, "keys": {}, "errors": [], "events": 1}
            spans.append(span)
        else:
            span = ([s for s in candidates if not s["closed"]] or candidates or [None])[0]
            if span is None:
                continue  # an event whose span never arrived
            span["events"] += 1
        for k in SPAN_KEYS:
            if k in e and (label == "exit" or k not in span["keys"]):
                span["keys"][k] = e[k]
        if label == "error" or "ErrorClass" in e:
            span["errors"].append({k: e.get(k) for k in ("ErrorClass", "ErrorMsg", "Backtrace") if k in e})
        if label == "exit":
            span["end"], span["closed"] = e.get("Timestamp_u"), True
        by_op[e["_op"]] = (span, label)

    def depth(span):
        d, p = 0, span["parent"]
        while p is not None:
            d, p = d + 1, p["parent"]
        return d

    ordered = []

    def walk(span):
        ordered.append(span)
        for child in sorted((s for s in spans if s["parent"] is span), key=lambda s: (s["start"] or 0, s["id"])):
            walk(child)

    for root in sorted((s for s in spans if s["parent"] is None), key=lambda s: (s["start"] or 0, s["id"])):
        walk(root)
    def service(span):
        while span is not None and "HTTP-Host" not in span["keys"]:
            span = span["parent"]
        return span["keys"]["HTTP-Host"] if span else ""

    return [{"id": s["id"], "parent": s["parent"]["id"] if s["parent"] else None, "depth": depth(s),
             "layer": s["layer"], "host": s["host"], "service": service(s), "start": s["start"], "end": s["end"], "keys": s["keys"],
             "errors": s["errors"], "events": s["events"]} for s in ordered]
