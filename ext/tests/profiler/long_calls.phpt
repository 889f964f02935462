--TEST--
Profiler: a tick during a long internal call is sampled as the call returns, with the call innermost (also for modules loaded after this one)
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/profiler.inc';

/* The modules to load after ours (those not built in); null when one is missing. */
function pf_modules(array $names): ?array
{
    $load = array_values(array_filter($names, fn($name) => !extension_loaded($name)));
    $missing = array_filter($load, fn($name) => !is_file(ini_get('extension_dir') . "/$name.so"));
    return $missing ? null : $load;
}

$cases = [
    // label, modules, the caller's body (about 0.2 s inside the call)
    ['usleep', [], 'usleep(200000);'],
    ['curl_exec', ['curl'], '$s = stream_socket_server("tcp://127.0.0.1:0"); $c = curl_init("http://" . stream_socket_get_name($s, false) . "/");
        curl_setopt($c, CURLOPT_TIMEOUT_MS, 200); curl_setopt($c, CURLOPT_RETURNTRANSFER, true); curl_exec($c);'],
    ['PDO::query', ['pdo', 'pdo_sqlite'], '$db = new PDO("sqlite::memory:"); $t = hrtime(true); $n = 100000;
        while (hrtime(true) - $t < 2e8) { $db->query("WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c WHERE x < $n) SELECT count(*) FROM c")->fetchAll(); }'],
];
foreach ($cases as [$label, $modules, $body]) {
    $load = pf_modules($modules);
    if ($load === null) {
        echo "$label: module not available\n";
        continue;
    }
    $r = pf_run("<?php function caller() { $body }\ncaller();\n", [], $load);
    $innermost = [];
    foreach (pf_stacks($r["profile"]) as $s) {
        $key = implode(">", array_slice($s["frames"], -2));
        $innermost[$key] = ($innermost[$key] ?? 0) + $s["ticks"];
    }
    arsort($innermost);
    echo "$label: status {$r['status']}, most ticks in ", array_key_first($innermost) ?? 'nothing', "\n";
}
?>
--EXPECT--
usleep: status 0, most ticks in caller>usleep
curl_exec: status 0, most ticks in caller>curl_exec
PDO::query: status 0, most ticks in caller>PDO::query
