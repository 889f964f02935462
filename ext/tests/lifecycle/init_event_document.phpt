--TEST--
__Init: one status document at module start, keys in order with their types, as decoded by python3-bson
--EXTENSIONS--
corvidine
--SKIPIF--
<?php if (!is_executable('/usr/bin/python3')) die('skip /usr/bin/python3 (python3-bson) is needed'); ?>
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

// A file of the extension directory this PHP was built with, for the
// install timestamp.
$installed = null;
foreach (scandir(PHP_EXTENSION_DIR) ?: [] as $entry) {
    if (str_ends_with($entry, '.so')) {
        $installed = $entry;
        break;
    }
}

function init_documents(array $ini, ?string &$pid, ?int &$before, ?int &$after, ?int &$all = null): array
{
    $file = vesk_temp_path();
    $before = time();
    $r = vesk_run(['corvidine.enable_cli' => 1, 'corvidine.service_key' => 'token:init'] + $ini,
        vesk_file_reporter($file), 'echo getmypid();');
    $after = time();
    $pid = $r['out'];
    $decoded = file_exists($file) ? vesk_decode($file) : [];
    $all = count($decoded);
    $docs = vesk_init_documents($decoded);
    @unlink($file);
    if ($r['status'] !== 0 || $r['err'] !== '') {
        echo "child failed ({$r['status']}): {$r['err']}\n";
    }
    return $docs;
}

$docs = init_documents($installed !== null ? ['corvidine.so_file' => $installed] : [], $pid, $before, $after);
echo count($docs), " __Init document(s)\n";
$checks = [
    '_V' => fn($v) => $v === '1',
    'X-Trace' => fn($v) => preg_match('/^2B[0-9A-F]{56}00$/', $v) === 1,
    'Layer' => fn($v) => $v === 'PHP',
    'Label' => fn($v) => $v === 'single',
    '__Init' => fn($v) => $v === 'True',
    'PHP.Version' => fn($v) => $v === PHP_VERSION,
    'PHP.Corvidine.Version' => fn($v) => $v === '3.8.3',
    'PHP.Debug.Version' => fn($v) => $v === (PHP_DEBUG ? 'True' : 'False'),
    'PHP.ZTS.Version' => fn($v) => $v === (PHP_ZTS ? 'True' : 'False'),
    'PHP.SAPI.Version' => fn($v) => $v === 'cli',
    'PHP.InstallDirectory' => fn($v) => $v === PHP_EXTENSION_DIR,
    'PHP.InstallTimestamp' => fn($v) => $installed === null || (int)$v === filectime(PHP_EXTENSION_DIR . "/$installed"),
    'PHP.LastRestart' => fn($v) => (int)$v >= $before - 1 && (int)$v <= $after + 1,
    'TID' => fn($v) => $v === $pid,
    'Timestamp_u' => fn($v) => intdiv((int)$v, 1000000) >= $before - 1 && intdiv((int)$v, 1000000) <= $after + 1,
    'Hostname' => fn($v) => $v === gethostname(),
];
foreach ($docs[0] ?? [] as [$key, $type, $value]) {
    $ok = isset($checks[$key]) ? ($checks[$key]($value) ? 'ok' : "WRONG VALUE '$value'") : "UNEXPECTED '$value'";
    echo "$key $type $ok\n";
}

// A missing so_file gives an install timestamp of 0.
$docs = init_documents(['corvidine.so_file' => 'no-such-file.so'], $pid, $before, $after);
foreach ($docs[0] ?? [] as [$key, $type, $value]) {
    if ($key === 'PHP.InstallTimestamp') {
        echo "missing so_file: $key = $value\n";
    }
}

// corvidine.enable only stops the request callbacks: __Init is still sent,
// and it is the only document (the CLI run is not traced).
$docs = init_documents(['corvidine.enable' => 0], $pid, $before, $after, $all);
echo "corvidine.enable=0: ", count($docs), " __Init document(s), ", $all, " document(s) in all\n";
?>
--EXPECT--
1 __Init document(s)
_V string ok
X-Trace string ok
Layer string ok
Label string ok
__Init bool ok
PHP.Version string ok
PHP.Corvidine.Version string ok
PHP.Debug.Version bool ok
PHP.ZTS.Version bool ok
PHP.SAPI.Version string ok
PHP.InstallDirectory string ok
PHP.InstallTimestamp int64 ok
PHP.LastRestart int64 ok
TID int64 ok
Timestamp_u int64 ok
Hostname string ok
missing so_file: PHP.InstallTimestamp = 0
corvidine.enable=0: 1 __Init document(s), 1 document(s) in all
