--TEST--
Backtrace text of a given frames array: matches PHP's own trace text, odd frames, objects as frames, limits
--EXTENSIONS--
corvidine
--INI--
corvidine.internal_test_hooks=1
--FILE--
<?php
echo "-- an exception's trace reads as PHP's getTraceAsString() (no string arguments)\n";
class Thrower
{
    public function __construct(private int $depth) {}
    public function go(int $n, $extra) { if ($n === 0) throw new LogicException('x'); $this->go($n - 1, [$n]); }
    public static function start($o) { $o->go(3, null); }
}
try {
    $a = [1];
    array_walk($a, function ($v) { Thrower::start(new Thrower(1)); });
} catch (LogicException $e) {
    $ours = corvidine_test_make_backtrace($e->getTrace());
    echo $ours === $e->getTraceAsString() ? "same\n" : "DIFFERENT:\n$ours\n--\n" . $e->getTraceAsString() . "\n";
    echo $ours, "\n";
}

echo "-- frames that are not arrays take no number; objects are read through their properties\n";
$frame = new stdClass;
$frame->file = '/app/obj.php';
$frame->line = 12;
$frame->class = 'Cls';
$frame->type = '::';
$frame->function = 'fn';
$frame->args = [1, 'text'];
echo corvidine_test_make_backtrace([
    'not a frame',
    ['file' => '/app/a.php', 'line' => 3, 'function' => 'f', 'args' => [true]],
    42,
    $frame,
    ['file' => '/app/b.php', 'line' => 'seven', 'function' => 'g'],     // line not an integer: 0
    ['file' => 123, 'line' => 9, 'function' => 'h', 'args' => 'nope'],   // file not a string: internal
    ['function' => ['x'], 'class' => 5, 'args' => [[], null]],           // non-string names are left out
    [],
]), "\n";

echo "-- limits on a given array, and things that are not frame lists\n";
$three = [['function' => 'a'], ['function' => 'b'], ['function' => 'c']];
var_dump(corvidine_test_make_backtrace($three, 1));
var_dump(corvidine_test_make_backtrace($three, 2));
var_dump(corvidine_test_make_backtrace($three, 3));
var_dump(corvidine_test_make_backtrace($three, -5));   // as 0: no limit
var_dump(corvidine_test_make_backtrace(['bad'], 1));   // an invalid frame uses up the limit too
var_dump(corvidine_test_make_backtrace([]));
var_dump(corvidine_test_make_backtrace('not an array'));
?>
--EXPECTF--
-- an exception's trace reads as PHP's getTraceAsString() (no string arguments)
same
#0 %sbacktrace_frames.php(%d): Thrower->go(0, Array)
#1 %sbacktrace_frames.php(%d): Thrower->go(1, Array)
#2 %sbacktrace_frames.php(%d): Thrower->go(2, Array)
#3 %sbacktrace_frames.php(%d): Thrower->go(3, NULL)
#4 %sbacktrace_frames.php(%d): Thrower::start(Object(Thrower))
#5 [internal function]: {closure}(1, 0)
#6 %sbacktrace_frames.php(%d): array_walk(Array, Object(Closure))
#7 {main}
-- frames that are not arrays take no number; objects are read through their properties
[invalid frame]
#0 /app/a.php(3): f(true)
[invalid frame]
#1 /app/obj.php(12): Cls::fn(1, String)
#2 /app/b.php(0): g()
#3 [internal function]: h()
#4 [internal function]: (Array, NULL)
#5 [internal function]: ()
#6 {main}
-- limits on a given array, and things that are not frame lists
string(28) "#0 [internal function]: a()
"
string(56) "#0 [internal function]: a()
#1 [internal function]: b()
"
string(84) "#0 [internal function]: a()
#1 [internal function]: b()
#2 [internal function]: c()
"
string(93) "#0 [internal function]: a()
#1 [internal function]: b()
#2 [internal function]: c()
#3 {main}"
string(16) "[invalid frame]
"
string(9) "#0 {main}"
string(9) "#0 {main}"
