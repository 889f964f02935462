--TEST--
__Init: one status document at module start with its keys in order, also with corvidine.enable=0, none with the CLI off; PHP.LastRestart of a process started by one with the same command line
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
$so = basename(current(glob(PHP_EXTENSION_DIR . '/*.so')) ?: 'none.so');   // for the install timestamp
$before = time();
$r = vesk_child('<?php echo getmypid();', ['corvidine.enable_cli' => 1, 'corvidine.so_file' => $so]);
$inits = vesk_inits($r['docs']);
echo count($inits), " __Init, ", count($r['docs']), " documents; stderr '{$r['err']}'\n";
$checks = [
    'X-Trace' => fn($v) => preg_match('/^2B[0-9A-F]{56}00$/', $v) === 1,
    'PHP.Version' => fn($v) => $v === PHP_VERSION,
    'PHP.Debug.Version' => fn($v) => $v === (bool)PHP_DEBUG,
    'PHP.ZTS.Version' => fn($v) => $v === (bool)PHP_ZTS,
    'PHP.InstallDirectory' => fn($v) => $v === PHP_EXTENSION_DIR,
    'PHP.InstallTimestamp' => fn($v) => $so === 'none.so' || $v === filectime(PHP_EXTENSION_DIR . "/$so"),
    'PHP.LastRestart' => fn($v) => $v >= $before - 1 && $v <= time() + 1,
    'TID' => fn($v) => $v === (int)$r['out'],
    'Timestamp_u' => fn($v) => intdiv($v, 1000000) >= $before - 1 && intdiv($v, 1000000) <= time() + 1,
    'Hostname' => fn($v) => $v === gethostname(),
];
echo implode(' ', array_map(fn($p) => "{$p[0]}:{$p[1][0]}=" . (isset($checks[$p[0]]) ? ($checks[$p[0]]($p[1][1]) ? 'ok'
    : 'WRONG ' . json_encode($p[1][1])) : json_encode($p[1][1])), $inits[0] ?? [])), "\n";
foreach ([['corvidine.so_file' => 'no-such-file.so'], ['corvidine.enable' => 0], ['corvidine.enable_cli' => 0]] as $ini) {
    $docs = vesk_child('<?php ', $ini + ['corvidine.enable_cli' => 1])['docs'];
    echo json_encode($ini), ': ', count(vesk_inits($docs)), ' __Init of ', count($docs), ', install timestamp ',
        vesk_field(vesk_inits($docs)[0] ?? [], 'PHP.InstallTimestamp')[1] ?? '-', "\n";
}

// PHP.LastRestart: a child started with its parent's command line reports the parent's start (made seconds before)
$r = vesk_child(<<<'PHP'
<?php
if (getenv('ROLE') !== 'parent') return;
$dir = opendir('/proc/' . getmypid());
$parent = stat('/proc/' . getmypid())['ctime'];
while (time() <= $parent + 1) usleep(100000);
$argv = explode("\0", rtrim(file_get_contents('/proc/self/cmdline'), "\0"));
foreach (['same' => $argv, 'other' => array_merge([$argv[0], '-d', 'corvidine.so_file=x.so'], array_slice($argv, 1))] as $name => $cmd) {
    $env = ['PATH' => getenv('PATH'), 'CORVIDINE_REPORTER' => 'file', 'CORVIDINE_COLLECTOR' => getenv('OUT') . "$name.bson"];
    proc_close(proc_open($cmd, [1 => ['file', '/dev/null', 'w'], 2 => ['file', '/dev/null', 'w']], $p, null, $env));
}
echo $parent;
PHP, ['corvidine.enable_cli' => 1], ['ROLE' => 'parent', 'CORVIDINE_REPORTER' => 'null', 'OUT' => $out = sys_get_temp_dir() . '/corvidine-restart-' . getmypid()]);
foreach (['same', 'other'] as $name) {
    $restart = vesk_field(vesk_inits(vesk_decode(@file_get_contents("$out$name.bson") ?: ''))[0] ?? [], 'PHP.LastRestart')[1] ?? null;
    echo "$name command line: ", $restart === (int)$r['out'] ? "the parent's start" : ($restart > (int)$r['out'] ? 'its own start' : "WRONG $restart"), "\n";
    @unlink("$out$name.bson");
}
?>
--EXPECT--
1 __Init, 3 documents; stderr ''
_V:string="1" X-Trace:string=ok Layer:string="PHP" Label:string="single" __Init:bool=true PHP.Version:string=ok PHP.Corvidine.Version:string="3.8.3" PHP.Debug.Version:bool=ok PHP.ZTS.Version:bool=ok PHP.SAPI.Version:string="cli" PHP.InstallDirectory:string=ok PHP.InstallTimestamp:int64=ok PHP.LastRestart:int64=ok TID:int64=ok Timestamp_u:int64=ok Hostname:string=ok
{"corvidine.so_file":"no-such-file.so"}: 1 __Init of 3, install timestamp 0
{"corvidine.enable":0}: 1 __Init of 1, install timestamp 0
{"corvidine.enable_cli":0}: 0 __Init of 0, install timestamp -
same command line: the parent's start
other command line: its own start
