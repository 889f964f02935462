--TEST--
Wrapped functions: wrong argument counts and types give the same results, warnings and exceptions with the agent (traced) as without it; plain, opcache, JIT
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/wrap.inc';

// Every wrapped function with arguments of wrong count and type, each call written out (not through a variable) so
// that opcache and the JIT see a known function at every call site.
$curl = wr_curl_ini() !== [] || extension_loaded('curl');
$any = ['', 'null', '"x"', '[]', 'new stdClass', '1.5', '1, 2, 3, 4, 5, 6, 7'];
$table = [
    'error_log' => array_merge($any, ['"x", "y"', '"x", 3, "/nonexistent/dir/file"', '"x", 0, null, null', '"x", 9']),
    'preg_match' => array_merge($any, ['"/a/", "a", $m, 99', '"(", "a"', '"/a/", []']),
    'json_decode' => array_merge($any, ['"{", false, 0', '"[1]", true, 512, JSON_THROW_ON_ERROR', '"{", false, 512, JSON_THROW_ON_ERROR']),
    '(new ArrayObject(["k" => 1]))->offsetGet' => array_merge($any, ['"k"', '"nokey"']),
    '(new ArrayIterator([1]))->seek' => array_merge($any, ['-1', '"0"', '0']),
];
if ($curl) {
    $handle = ['curl_init()', 'curl_init(), CURLOPT_URL', 'curl_init(), CURLOPT_URL, []', 'curl_init(), 99999, 1',
               'curl_init(), CURLOPT_TIMEOUT, "x"', 'curl_init(), [CURLOPT_URL => "x", 99999 => 1]', 'curl_init(), [[]]',
               'curl_init(), CURLOPT_HTTPHEADER, "notarray"'];
    foreach (['curl_exec', 'curl_setopt', 'curl_close', 'curl_reset', 'curl_copy_handle', 'curl_setopt_array'] as $f) {
        $table[$f] = array_merge($any, $handle);
    }
}

$code = "<?php\nfunction show(\$v) { return is_object(\$v) ? get_class(\$v) : json_encode(\$v); }\nfunction calls() {\n";
foreach ($table as $function => $arguments) {
    foreach ($arguments as $args) {
        $call = "$function($args)";
        $code .= "    try { echo " . var_export($call, true) . ", ' = ', show($call), \"\\n\"; }"
               . " catch (Throwable \$e) { echo " . var_export($call, true) . ", ' ! ', get_class(\$e), ': ', \$e->getMessage(), \"\\n\"; }\n";
    }
}
$code .= "}\n\$seen = [];\nfor (\$i = 0; \$i < 20; \$i++) { ob_start(); calls(); \$seen[ob_get_clean()] = 1; }\n"
       . "echo count(\$seen), \" distinct\\n\", array_key_first(\$seen);\n";
$script = rq_script($code);

$agent = ['corvidine.internal_test_hooks' => 1, 'display_errors' => 1, 'error_reporting' => -1];
foreach (wr_engines() as $engine => $engine_ini) {
    $ini = $engine_ini + wr_curl_ini() + ['display_errors' => 1, 'error_reporting' => -1];
    $plain = wr_run_plain($script, $ini);
    $traced = rq_run($script, $ini + $agent);
    $exits = count(wr_events($traced, 'test_wrap', 'exit'));
    echo "$engine: ", substr_count($plain['out'], "\n") - 1, " calls, ", strtok($plain['out'], "\n"), ", ",
         $plain['out'] === $traced['out'] && $plain['err'] === $traced['err'] ? 'same with the agent' :
         "DIFFERENT\n--- without\n{$plain['out']}{$plain['err']}\n--- with\n{$traced['out']}{$traced['err']}",
         $exits > 0 ? ', wrappers active' : ', NO WRAPPER ACTIVE', "\n";
}
?>
--EXPECTF--
plain: %d calls, 1 distinct, same with the agent, wrappers active
opcache: %d calls, 1 distinct, same with the agent, wrappers active
jit: %d calls, 1 distinct, same with the agent, wrappers active
