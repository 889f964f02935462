"""phpredis on a redis-server and php-memcached on a memcached of their own: each call a span ("phpredis" or
"memcached"; a pipeline or multi block is one span with an info event per command); output, warnings and exceptions
are the same without the agent, predis (not wrapped) included."""
import os
import unittest

import harness
from test_database import ENGINES, TRACED
from test_request_tracing import marker, op_of

HERE = os.path.dirname(os.path.abspath(__file__))
SERVERS = {}
# BSON kinds of the keys, per layer (integers are int64, whatever their size in the wrapper).
KINDS = {"phpredis": {"KVOp": "string", "KVKey": "string", "RemoteHost": "string", "KVHit": "int64"},
         "memcached": {"KVOp": "string", "KVKey": "binary", "KVKeyCount": "int64", "RemoteHost": "binary",
                       "KVHit": "int64", "KVHitCount": "int64"}}
HOST = "127.0.0.1"

# phpredis events: label, KVOp, KVKey, RemoteHost, KVHit (1 only for a boolean true: a string counts as a miss).
REDIS_EVENTS = [
    ("entry", "connect", None, HOST, None), ("exit", None, None, None, None),
    ("entry", "pconnect", None, HOST, None), ("exit", None, None, None, None),
    ("entry", "set", None, None, None), ("exit", None, None, None, None),
    ("entry", "get", "k1", None, None), ("exit", None, None, None, 0),
    ("entry", "get", "missing", None, None), ("exit", None, None, None, 0),
    ("entry", "getset", "k1", None, None), ("exit", None, None, None, 0),
    ("entry", "hset", None, None, None), ("exit", None, None, None, None),
    ("entry", "hget", None, None, None), ("exit", None, None, None, 0),
    ("entry", "mget", None, None, None), ("exit", None, None, None, None),
    ("entry", "getmultiple", None, None, None), ("exit", None, None, None, None),
    ("entry", "lsize", None, None, None), ("exit", None, None, None, None),
    # multi()->set()->get()->exec()
    ("entry", "multi", None, None, None), ("info", "set", None, None, None), ("info", "get", "k2", None, None),
    ("info", "exec", None, None, None), ("exit", None, None, None, None),
    # multi(), a nested multi(), set(), discard()
    ("entry", "multi", None, None, None), ("info", "set", None, None, None), ("info", "discard", None, None, None),
    ("exit", None, None, None, None),
    ("entry", "pipeline", None, None, None), ("info", "incr", None, None, None), ("info", "exec", None, None, None),
    ("exit", None, None, None, None),
    # multi(Redis::PIPELINE)
    ("entry", "pipeline", None, None, None), ("info", "get", "k2", None, None), ("info", "exec", None, None, None),
    ("exit", None, None, None, None),
    # get() with an array: no entry event, the exit event all the same
    ("exit", None, None, None, 0),
    ("entry", "get", "b?n", None, None), ("exit", None, None, None, 0),
    ("entry", "delete", None, None, None), ("exit", None, None, None, None),
    ("entry", "close", None, None, None), ("exit", None, None, None, None),
]
REDIS_OUTPUT = ('[true,true,true,"v1",false,"v1",1,"x",["v2",false],["v2"],0,[true,"v"],true,[1],["v"],"TypeError",'
                'false,4,true]\n')

# One row per memcached call: KVKey, KVKeyCount, RemoteHost (entry); KVOp, KVHit, KVHitCount (exit).
MEMCACHED_CALLS = [
    (b"m1", None, HOST, "set", None, None), (b"m1", None, HOST, "get", 1, None), (b"nope", None, HOST, "get", 0, None),
    (b"m1", None, HOST, "add", 0, None), (None, 2, HOST, "set", None, None), (None, 3, HOST, "get", None, 2),
    (b"a", None, HOST, "incr", None, None), (b"a", None, HOST, "decr", None, None),
    (b"nope", None, HOST, "delete", 0, None), (b"bk", None, HOST, "set", None, None), (b"bk", None, HOST, "get", 1, None),
    (b"m1", None, HOST, "get", None, 3),  # GET_EXTENDED: an array of three
    (b"m1", None, HOST, "cas", 1, None), (b"m1", None, HOST, "append", 1, None),
    (None, 1, HOST, "get", 1, None),  # getDelayed returns true
    (None, 2, HOST, "delete", None, 2),
    (b"k\xff", None, HOST, "get", None, None),  # a bad key: neither hit nor miss
    (None, None, None, "get", 0, None),  # an integer key: none reported
]
MEMCACHED_OUTPUT = ('[true,"v",false,false,true,{"a":1,"b":2},2,0,false,true,"v",true,true,true,'
                    '[{"key":"m1","value":"w+"}],{"a":true,"b":true},false,false]\n')


def setUpModule():
    if harness.key_value_ini(harness.CURRENT_PHP) is None:
        return  # the class skips
    for name, server in (("redis", harness.RedisServer), ("memcached", harness.MemcachedServer)):
        if server.available():
            SERVERS[name] = server().start()


def tearDownModule():
    for server in SERVERS.values():
        server.stop()


class KeyValueTest(unittest.TestCase):
    def setUp(self):
        self.ini = harness.key_value_ini(harness.CURRENT_PHP)
        if self.ini is None:
            self.skipTest("this PHP has neither phpredis nor php-memcached (%s)" % harness.CURRENT_PHP.flavour)
        if len(SERVERS) < 2:
            self.skipTest("no redis-server or memcached")
        self.layers = {layer for module, layer in (("redis", "phpredis"), ("memcached", "memcached"))
                       if module in self.ini["extension"]}
        self.env = {"REDIS_PORT": str(SERVERS["redis"].port), "MEMCACHED_PORT": str(SERVERS["memcached"].port),
                    "DOWN_PORT": str(harness.free_port())}

    def run_script(self, name, ini=None, load_module=True):
        ini = dict(self.ini, include_path=".:/usr/share/php", **TRACED, **(ini or {}))
        return harness.run_cli(harness.CURRENT_PHP, os.path.join(HERE, "kv", name + ".php"), ini, self.env,
                               load_module=load_module)

    def need(self, layer):
        if layer not in self.layers:
            self.skipTest("this PHP has no %s extension (%s)" % (layer, harness.CURRENT_PHP.flavour))

    def layer(self, traces, layer):
        """The layer's events, checked to follow one another (Edge) and to have keys of their kinds."""
        events = [e for e in traces.events() if e.get("Layer") == layer]
        for before, event in zip(events, events[1:]):
            edges = event["Edge"] if isinstance(event["Edge"], list) else [event["Edge"]]
            self.assertIn(op_of(before["X-Trace"]), edges, event)
        kinds = {(key, harness.bson_tools.type_name(event[key])) for event in events for key in KINDS[layer]
                 if key in event}
        self.assertEqual({(key, KINDS[layer][key]) for key, _ in kinds}, kinds)
        return events

    def test_phpredis_calls_and_blocks(self):
        self.need("phpredis")
        result, traces, _ = self.run_script("redis_calls")
        self.assertEqual((b"", REDIS_OUTPUT), (result.stderr, result.stdout.decode()))
        found = [(e["Label"], e.get("KVOp"), e.get("KVKey"), e.get("RemoteHost"), e.get("KVHit"))
                 for e in self.layer(traces, "phpredis")]
        self.assertEqual(REDIS_EVENTS, found)

    def test_memcached_calls_with_and_without_hosts(self):
        self.need("memcached")
        for hosts in ("1", "0"):
            with self.subTest(enable_memcached_hosts=hosts):
                result, traces, _ = self.run_script("memcached_calls", {"corvidine.enable_memcached_hosts": hosts})
                self.assertEqual((b"", MEMCACHED_OUTPUT), (result.stderr, result.stdout.decode()))
                events = self.layer(traces, "memcached")
                self.assertEqual(["entry", "exit"] * len(MEMCACHED_CALLS), [e["Label"] for e in events])
                found = [(entry.get("KVKey"), entry.get("KVKeyCount"), entry.get("RemoteHost"), exit_["KVOp"],
                          exit_.get("KVHit"), exit_.get("KVHitCount"))
                         for entry, exit_ in zip(events[0::2], events[1::2])]
                want = [(key, count, host.encode() if host and hosts == "1" else None, op, hit, hits)
                        for key, count, host, op, hit, hits in MEMCACHED_CALLS]
                self.assertEqual(want, found)

    def test_switches_turn_families_off(self):
        for script, switch, layer in (("redis_calls", "corvidine.enable_wrap_phpredis", "phpredis"),
                                      ("memcached_calls", "corvidine.enable_wrap_memcached", "memcached"),
                                      ("redis_calls", "corvidine.sample_rate", "phpredis")):
            if layer not in self.layers:
                continue
            with self.subTest(switch=switch):
                result, traces, _ = self.run_script(script, {switch: "0"})
                self.assertEqual(b"", result.stderr)
                self.assertEqual([], [e for e in traces.events() if e.get("Layer") == layer])

    def test_open_block_ends_with_its_request(self):
        self.need("phpredis")
        with harness.BuiltinServer(harness.CURRENT_PHP, dict(self.ini, **TRACED), self.env) as server:
            for page, labels in (("open=1", ["entry", "exit", "entry", "info"]),
                                 ("open=0", ["entry", "exit", "entry", "exit"])):
                with self.subTest(page=page):
                    mark = marker()
                    self.assertEqual(200, harness.curl(server.url("/kv.php?%s&m=%s" % (page, mark))).status)
                    entry, _ = server.traces.wait_trace(lambda e: mark in e.get("URL", ""))
                    events = server.traces.by_task(entry["X-Trace"][2:42])
                    self.assertEqual(labels, [e["Label"] for e in events if e.get("Layer") == "phpredis"])

    def test_same_behaviour_with_and_without_the_agent(self):
        self.need("phpredis")
        for engine in ENGINES:
            with self.subTest(engine=engine):
                ini = dict(ENGINES[engine], display_errors="1", error_reporting="-1")
                plain, _, _ = self.run_script("kv_errors", ini, load_module=False)
                traced, traces, _ = self.run_script("kv_errors", ini)
                self.assertIn(b"predis pipeline: [1,", plain.stdout)
                self.assertEqual((plain.returncode, plain.stdout.decode(), plain.stderr.decode()),
                                 (traced.returncode, traced.stdout.decode(), traced.stderr.decode()))
                layers = {e.get("Layer") for e in traces.events()}
                self.assertTrue(self.layers <= layers, layers)


if __name__ == "__main__":
    unittest.main()
