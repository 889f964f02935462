--TEST--
Backtraces: text of real stacks (as PHP's own trace text, every argument kind, eval, callbacks, limits), of given frame arrays, as BSON; arguments, return-value records
--EXTENSIONS--
corvidine
--INI--
corvidine.internal_test_hooks=1
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
$fh = fopen('php://memory', 'r');
// real stacks read as built from debug_backtrace(), and that as PHP's getTraceAsString()
function same(): string
{
    $own = preg_replace('/^#0 [^\n]*\n/', '', corvidine_test_backtrace());   // ours starts at the hook
    $own = preg_replace_callback('/^#(\d+)/m', fn($m) => '#' . ($m[1] - 1), $own);
    return $own === corvidine_test_make_backtrace(debug_backtrace()) ? 'same' : "DIFFERENT:\n$own";
}
class Shelf
{
    public function take($what, ...$more) { if ($what === 0) throw new LogicException(); return same(); }
    public static function make(...$args) { return (new Shelf)->take(...$args); }
}
$args = [1/3, null, true, -3, ['k' => 'v'], new ArrayObject([]), $fh];
echo Shelf::make(7, 'secret text', ...$args), ' ', eval('return same();'), ' ', array_map(fn($x) => same(), [1])[0], "\n";
foreach ([14, 4] as $precision) {
    ini_set('precision', $precision);
    try {
        array_map(fn($x) => eval('return Shelf::make(0, ...$GLOBALS["args"]);'), [1]);
    } catch (LogicException $e) {
        $ours = corvidine_test_make_backtrace($e->getTrace());
        echo $ours === $e->getTraceAsString() ? 'same ' : "DIFFERENT:\n$ours\n" . $e->getTraceAsString() . "\n";
    }
}
function leak($s) { return corvidine_test_backtrace(); }
echo "\n", str_contains(leak('secret text'), 'leak(String)') ? 'strings as String' : 'WRONG: ' . leak('secret text'), "\n";

// limits: the hook, down(0), down(1), then {main}
function down($n, $limit) { return $n === 0 ? corvidine_test_backtrace($limit) : down($n - 1, $limit); }
echo json_encode([substr_count(down(1, 1), "\n"), down(1, 3), substr_count(down(1, 4), "\n"), str_contains(down(1, 4), '{main}')]), "\n";
$deep = down(300, 0);   // 0: every frame
echo substr_count($deep, "\n"), ' ', substr($deep, strrpos($deep, "\n") + 1), ' ', substr_count(down(300, 128), "\n"), "\n";

// given frames: non-arrays take no number, objects are read through their properties
$frame = (object)['file' => '/app/obj.php', 'line' => 12, 'class' => 'Cls', 'type' => '::', 'function' => 'fn', 'args' => [1, 'text']];
echo corvidine_test_make_backtrace(['not a frame', ['file' => '/app/a.php', 'line' => 3, 'function' => 'f', 'args' => [true]], $frame,
    ['file' => '/b.php', 'line' => 'seven', 'function' => 'g'], ['file' => 123, 'function' => 'h', 'args' => 'nope'],
    ['function' => ['x'], 'class' => 5, 'args' => [[], null]]]), "\n";
var_dump(corvidine_test_make_backtrace([['function' => 'a'], ['function' => 'b']], 1), corvidine_test_make_backtrace('no'));

// as BSON: frames with their arguments (strings cut at 1024 bytes), at most 128 frames
function inner($text, $point) { return corvidine_test_backtrace_bson(); }
$doc = vesk_decode(inner(str_repeat('s', 2000), new ArrayObject([])))[0];
foreach ($doc as [$number, [, $f]]) {
    echo "#$number ", vesk_field($f, 'function')[1], ' line ', vesk_field($f, 'line')[0], ' args ', json_encode(array_map(
        fn($a) => $a[0] === 'string' ? strlen($a[1]) : $a[0], vesk_field($f, 'args')[1])), "\n";
}
function bdown($n) { return $n === 0 ? corvidine_test_backtrace_bson() : bdown($n - 1); }
echo count(vesk_decode(bdown(300))[0]), " frames\n";
echo preg_replace('/z{1024}/', 'z{1024}', json_encode(vesk_decode(corvidine_test_args_bson(1, [3], str_repeat('z', 1030), null, 2.5))[0])), "\n";

// return-value records
foreach ([true, -42, 2.5, "a\0b", null, []] as $v) { echo json_encode(corvidine_test_retval_kv($v)), ' '; }
echo "\n", corvidine_test_retval_kv($fh)[2] === (int)$fh && corvidine_test_retval_kv($o = new stdClass)[2] === spl_object_id($o) ? "ids\n" : "WRONG IDS\n";
?>
--EXPECTF--
same same same
same same 
strings as String
[1,"#0 %sbacktrace.php(%d): corvidine_test_backtrace(3)\n#1 %sbacktrace.php(%d): down(0, 3)\n#2 %sbacktrace.php(%d): down(1, 3)\n",3,true]
302 #302 {main} 128
[invalid frame]
#0 /app/a.php(3): f(true)
#1 /app/obj.php(12): Cls::fn(1, String)
#2 /b.php(0): g()
#3 [internal function]: h()
#4 [internal function]: (Array, NULL)
#5 {main}
string(28) "#0 [internal function]: a()
"
string(9) "#0 {main}"
#0 corvidine_test_backtrace_bson line int64 args []
#1 inner line int64 args [1024,"document"]
128 frames
[["0",["int64",1]],["1",["array",[["int64",3]]]],["2",["string","z{1024}"]],["3",["null",null]],["4",["double",2.5]]]
[9,"ReturnValue",1,8] [2,"ReturnValue",-42,8] [3,"ReturnValue",2.5,8] [1,"ReturnValue","a\u0000b",3] [0,"ReturnValue",null,0] [0,"ReturnValue",null,0] 
ids