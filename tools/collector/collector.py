"""A local Collector (development and tests): the real service protocol (Thrift binary protocol over
zlib over TLS) on a loopback port, with replies scripted per call and every
call recorded, its arguments decoded by Debian's python3-thrift from code
generated out of reporters/collector/collector.thrift at run time. It shares
no code with the agent's client.

    with Collector(tls=server_context(cert_path)) as c:
        c.script("postEvents", "TRY_LATER", "OK")
        ... point the client at 127.0.0.1:c.port ...
        c.calls_of("postEvents")

Replies, one per call, taken in order per method (then "OK" for good):
  "OK", "TRY_LATER", "LIMIT_EXCEEDED", "INVALID_API_KEY",
  "REDIRECT host:port", "CODE <n>" (a result code outside the enum),
  a ResultMessage / SettingsResult object to send as it is,
  "HANG" (read the call, never answer),
  bad input: "TRUNCATE" (half a reply, then close), "GARBAGE" (bytes that
  are not zlib), "HUGE_STRING" (a string claiming 2 GB), "HUGE_LIST" (a list
  claiming 2^31-1 elements), "ZLIB_BOMB" (40 MB of skippable fields in ~40 KB
  on the wire), "EXCEPTION" (a Thrift application exception),
  "WRONG_NAME" (a reply for another method), "SETTINGS_FIELD6" (a setting
  carrying the unknown field id 6 between known ones).

Each connection is served on its own thread with its own transport, so a
stalled client blocks no other. Run standalone as a local development
Collector: /usr/bin/python3 collector.py --dir DIR (see --help).
"""
import json
import os
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
IDL = os.path.normpath(os.path.join(HERE, "..", "..", "reporters", "collector", "collector.thrift"))


def _generated():
    """The Python code of collector.thrift, generated once per process."""
    if "collector_thrift" not in sys.modules:
        out = tempfile.mkdtemp(prefix="collector-py-")
        subprocess.run(["thrift", "--gen", "py", "-out", out, IDL], check=True)
        sys.path.insert(0, out)
    from collector_thrift import Collector, ttypes  # noqa: E402
    return Collector, ttypes


Collector_, ttypes = _generated()
from thrift.Thrift import TApplicationException, TMessageType, TType  # noqa: E402
from thrift.protocol import TBinaryProtocol  # noqa: E402
from thrift.transport import TSocket, TTransport, TZlibTransport  # noqa: E402

RESULT_CODES = {name: value for value, name in ttypes.ResultCode._VALUES_TO_NAMES.items()}
METHODS = ("postEvents", "postMetrics", "postStatus", "ping", "getSettings")


def server_context(cert_path, minimum=None, maximum=None, ciphers=None):
    """A server-side TLS context for a certificate+key PEM file."""
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    if ciphers:
        ctx.set_ciphers(ciphers)
    if minimum:
        ctx.minimum_version = minimum
    if maximum:
        ctx.maximum_version = maximum
    ctx.load_cert_chain(cert_path)
    return ctx


def _plain(obj):
    """A generated struct as plain data (dicts, lists, bytes, str, int)."""
    if isinstance(obj, list):
        return [_plain(x) for x in obj]
    if hasattr(obj, "thrift_spec"):
        return {k: _plain(v) for k, v in vars(obj).items()}
    return obj


class Collector:
    def __init__(self, tls=None, silent=False, host="127.0.0.1", port=0):
        """`tls`: a server SSLContext, or None to speak without TLS.
        `silent`: accept connections and never read or write a byte.
        `port`: 0 for a free one; a given one lets a test restart a Collector."""
        self.tls, self.silent = tls, silent
        self.calls, self.handshakes, self.errors = [], [], []
        self._replies = {m: [] for m in METHODS}
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self._conns = []
        self._listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind((host, port))
        self._listener.listen(16)
        self.host, self.port = self._listener.getsockname()
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()

    def script(self, method, *replies):
        with self._lock:
            self._replies[method].extend(replies)

    def calls_of(self, method):
        with self._lock:
            return [c for c in self.calls if c["method"] == method]

    def stop(self):
        self._stop.set()
        try:
            # shutdown wakes the accepting thread, so that the port is free
            # at once for a Collector started on it again.
            self._listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        try:
            self._listener.close()
        except OSError:
            pass
        with self._lock:
            conns = list(self._conns)
        for c in conns:
            try:
                c.close()
            except OSError:
                pass

    def received(self, record):
        """Keeps one decoded call and picks its reply (a subclass may store it elsewhere)."""
        with self._lock:
            self.calls.append(record)
            return self._replies[record["method"]].pop(0) if self._replies[record["method"]] else "OK"

    # -- serving -----------------------------------------------------------

    def _accept(self):
        number = 0
        while not self._stop.is_set():
            try:
                conn, _ = self._listener.accept()
            except OSError:
                return
            number += 1
            with self._lock:
                self._conns.append(conn)
            threading.Thread(target=self._serve, args=(conn, number), daemon=True).start()

    def _serve(self, conn, number):
        try:
            if self.silent:
                self._stop.wait()
                return
            conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)  # small replies go out at once
            if self.tls is not None:
                conn.settimeout(10)
                try:
                    conn = self.tls.wrap_socket(conn, server_side=True)
                except (ssl.SSLError, OSError) as e:
                    with self._lock:
                        self.handshakes.append({"conn": number, "error": str(e)})
                    return
                with self._lock:
                    self._conns.append(conn)
                    self.handshakes.append({"conn": number, "version": conn.version()})
            conn.settimeout(None)
            self._calls(conn, number)
        except Exception as e:  # recorded, never raised into the test
            with self._lock:
                self.errors.append("conn %d: %s: %s" % (number, type(e).__name__, e))
        finally:
            try:
                conn.close()
            except OSError:
                pass

    def _calls(self, conn, number):
        sock = TSocket.TSocket()
        sock.handle = conn
        reader = TBinaryProtocol.TBinaryProtocol(TZlibTransport.TZlibTransport(sock))
        compressor = zlib.compressobj()  # one zlib stream per direction and connection

        def send(payload):
            conn.sendall(compressor.compress(payload) + compressor.flush(zlib.Z_SYNC_FLUSH))

        while not self._stop.is_set():
            try:
                name, mtype, seqid = reader.readMessageBegin()
            except TTransport.TTransportException:
                return  # the client closed
            if name not in METHODS:
                raise ValueError("unknown method %r" % name)
            args = getattr(Collector_, name + "_args")()
            args.read(reader)
            reader.readMessageEnd()
            record = {"method": name, "conn": number, "type": mtype, "seqid": seqid}
            record.update(_plain(args))
            reply = self.received(record)
            if reply == "HANG":
                self._stop.wait()
                return
            if reply == "GARBAGE":
                conn.sendall(b"\xff\xfe not zlib \x00" * 8)
                continue
            if reply == "TRUNCATE":
                whole = compressor.compress(_reply(name, "OK")) + compressor.flush(zlib.Z_SYNC_FLUSH)
                conn.sendall(whole[: len(whole) // 2])
                return
            send(_reply(name, reply))


def _message(name, mtype, body):
    buf = TTransport.TMemoryBuffer()
    p = TBinaryProtocol.TBinaryProtocol(buf)
    p.writeMessageBegin(name, mtype, 0)
    body(p)
    p.writeMessageEnd()
    return buf.getvalue()


def _success(p, write_fields):
    """The result struct: field 0 `success`, a struct written by write_fields."""
    p.writeStructBegin("result")
    p.writeFieldBegin("success", TType.STRUCT, 0)
    p.writeStructBegin("success")
    write_fields(p)
    p.writeFieldStop()
    p.writeStructEnd()
    p.writeFieldEnd()
    p.writeFieldStop()
    p.writeStructEnd()


def _reply(name, reply):
    """The uncompressed bytes of one scripted reply to a call of `name`."""
    if reply == "EXCEPTION":
        error = TApplicationException(TApplicationException.INTERNAL_ERROR, "collector failure")
        return _message(name, TMessageType.EXCEPTION, error.write)
    if reply == "WRONG_NAME":
        return _reply("postStatus" if name != "postStatus" else "postEvents", "OK")
    if reply == "HUGE_STRING":
        def huge(p):  # arg claims 0x7ffffff0 bytes; none follow
            p.writeFieldBegin("arg", TType.STRING, 2)
            p.trans.write(struct.pack(">i", 0x7FFFFFF0))
        return _message(name, TMessageType.REPLY, lambda p: p.trans.write(b"\x0c\x00\x00") or huge(p))
    if reply == "HUGE_LIST":
        def huge_list(p):
            p.writeFieldBegin("settings", TType.LIST, 3)
            p.writeListBegin(TType.STRUCT, 0x7FFFFFFF)
        return _message(name, TMessageType.REPLY, lambda p: p.trans.write(b"\x0c\x00\x00") or huge_list(p))
    if reply == "ZLIB_BOMB":
        def bomb(p):
            p.writeFieldBegin("result", TType.I32, 1)
            p.writeI32(0)
            for _ in range(40):  # unknown field ids are skipped by readers
                p.writeFieldBegin("padding", TType.STRING, 99)
                p.writeBinary(b"\x00" * 1000000)
        return _message(name, TMessageType.REPLY, lambda p: _success(p, bomb))
    if reply == "SETTINGS_FIELD6":
        def settings(p):
            p.writeFieldBegin("result", TType.I32, 1)
            p.writeI32(0)
            p.writeFieldBegin("settings", TType.LIST, 3)
            p.writeListBegin(TType.STRUCT, 1)
            p.writeStructBegin("VeskSetting")
            for fid, ftype, value in ((1, TType.I32, 2), (2, TType.STRING, b"SAMPLE_START,SAMPLE_THROUGH_ALWAYS"),
                                      (3, TType.I64, 1700000000), (6, TType.I64, 42), (4, TType.I64, 1000000),
                                      (5, TType.STRING, b"")):
                p.writeFieldBegin("f", ftype, fid)
                {TType.I32: p.writeI32, TType.I64: p.writeI64, TType.STRING: p.writeBinary}[ftype](value)
            p.writeFieldBegin("arguments", TType.MAP, 7)
            p.writeMapBegin(TType.STRING, TType.STRING, 1)
            p.writeBinary(b"BucketCapacity")
            p.writeBinary(struct.pack("<d", 2.0))
            p.writeFieldBegin("ttl", TType.I64, 8)
            p.writeI64(120)
            p.writeFieldStop()
            p.writeListEnd()
        return _message(name, TMessageType.REPLY, lambda p: _success(p, settings))
    if isinstance(reply, str):
        word, _, arg = reply.partition(" ")
        code = int(arg) if word == "CODE" else RESULT_CODES[word]
        arg = arg if word == "REDIRECT" else ""
        reply = (ttypes.SettingsResult(result=code, arg=arg, settings=[]) if name == "getSettings"
                 else ttypes.ResultMessage(result=code, arg=arg))
    result = getattr(Collector_, name + "_result")(success=reply)
    return _message(name, TMessageType.REPLY, result.write)


def main():
    import argparse
    import time
    sys.path.insert(0, HERE)
    from certs import Authority
    parser = argparse.ArgumentParser(description="A local development Collector on 127.0.0.1.")
    parser.add_argument("--dir", required=True, help="where the throw-away CA and server certificate go")
    parser.add_argument("--reply", action="append", default=[], metavar="METHOD=REPLY",
                        help="script a reply, e.g. postEvents=TRY_LATER (repeatable, in order)")
    parser.add_argument("--quiet", action="store_true", help="print the port line only, not the calls")
    opts = parser.parse_args()
    os.makedirs(opts.dir, exist_ok=True)
    ca = Authority(opts.dir)
    collector = Collector(tls=server_context(ca.server("collector")))
    for item in opts.reply:
        method, _, reply = item.partition("=")
        collector.script(method, reply)
    print(json.dumps({"port": collector.port, "trusted": ca.pem_path}), flush=True)
    try:
        while True:
            time.sleep(0.2)
            with collector._lock:
                calls, collector.calls[:] = list(collector.calls), []
            for call in [] if opts.quiet else calls:
                print(json.dumps(call, default=lambda b: b.hex() if isinstance(b, bytes) else str(b)), flush=True)
    except KeyboardInterrupt:
        pass
    collector.stop()


if __name__ == "__main__":
    main()
