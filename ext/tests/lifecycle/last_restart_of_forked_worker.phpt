--TEST--
__Init PHP.LastRestart: a process whose parent runs the same command line reports the parent's start
--EXTENSIONS--
corvidine
--SKIPIF--
<?php if (!is_executable('/usr/bin/python3')) die('skip /usr/bin/python3 (python3-bson) is needed'); ?>
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

// The parent runs this code; it starts itself again with the same argument
// vector (a "worker"), and once with a different one (an unrelated child).
// The parent's own /proc entry is made (and held open) well before either
// child starts, so the two answers are seconds apart.
$code = <<<'PHP'
if (getenv('ROLE') !== 'parent') {
    return;
}
$dir = opendir('/proc/' . getmypid());
$parent_ctime = stat('/proc/' . getmypid())['ctime'];
while (time() <= $parent_ctime + 1) {
    usleep(100000);
}
$argv = explode("\0", rtrim(file_get_contents('/proc/self/cmdline'), "\0"));
$run = function (array $cmd, string $file) {
    $env = ['PATH' => getenv('PATH'), 'ROLE' => 'child', 'CORVIDINE_REPORTER' => 'file', 'CORVIDINE_COLLECTOR' => $file];
    $p = proc_open($cmd, [1 => ['file', '/dev/null', 'w'], 2 => ['file', '/dev/null', 'w']], $pipes, null, $env);
    proc_close($p);
};
$run($argv, getenv('SAME_FILE'));
$run(array_merge([$argv[0], '-d', 'corvidine.so_file=other.so'], array_slice($argv, 1)), getenv('OTHER_FILE'));
echo $parent_ctime;
PHP;

$same = vesk_temp_path();
$other = vesk_temp_path();
$r = vesk_exec(vesk_command(['corvidine.enable_cli' => 1, 'corvidine.service_key' => 'token:restart'], ['-r', $code]),
    ['ROLE' => 'parent', 'CORVIDINE_REPORTER' => 'null', 'SAME_FILE' => $same, 'OTHER_FILE' => $other]);
$parent_ctime = (int)$r['out'];

function last_restart(string $file): ?int
{
    foreach (file_exists($file) ? vesk_init_documents(vesk_decode($file))[0] ?? [] : [] as [$key, $type, $value]) {
        if ($key === 'PHP.LastRestart') {
            return (int)$value;
        }
    }
    return null;
}
$worker = last_restart($same);
$unrelated = last_restart($other);
echo "parent ran: ", $r['status'] === 0 && $parent_ctime > 0 ? 'yes' : "no: {$r['err']}", "\n";
echo "same command line: ", $worker === $parent_ctime ? "parent's start" : "wrong ($worker vs $parent_ctime)", "\n";
echo "other command line: ", $unrelated !== null && $unrelated > $parent_ctime ? 'its own start' : "wrong ($unrelated vs $parent_ctime)", "\n";
@unlink($same);
@unlink($other);
?>
--EXPECT--
parent ran: yes
same command line: parent's start
other command line: its own start
