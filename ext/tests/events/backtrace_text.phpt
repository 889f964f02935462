--TEST--
Backtrace text of real call stacks: frame format, argument kinds, internal functions, eval, the limit, {main}
--EXTENSIONS--
corvidine
--INI--
corvidine.internal_test_hooks=1
precision=14
--FILE--
<?php
$fh = fopen('php://memory', 'r');
$id = (int)$fh;

class Shelf
{
    public function take($what, ...$more) { return corvidine_test_backtrace(); }
    public static function make(...$args) { return (new Shelf)->take(...$args); }
}

function outer($n) { return Shelf::make($n, -3, 2.5, 1/3, null, true, false, 'secret text', ['k' => 'v'],
    new ArrayObject([]), $GLOBALS['fh']); }

echo "-- methods, static calls, every argument kind\n";
$text = outer(7);
echo substr_count($text, "Resource id #$id)") === 2 ? "resource id of the handle\n" : "WRONG RESOURCE ID\n";
echo $text, "\n";
echo strpos($text, 'secret') === false ? "no string data in the text\n" : "STRING DATA LEAKED\n";

echo "-- the same text from the frames of debug_backtrace()\n";
// The text is built from the engine's frames; built from PHP's own view of
// the same stack it must read the same, so frame data is taken from where
// PHP puts it.
function same_as_debug_backtrace($a, $b)
{
    $own = corvidine_test_backtrace();
    $frames = debug_backtrace();
    // debug_backtrace() leaves itself out; ours starts at the hook's frame.
    $expected = corvidine_test_make_backtrace($frames);
    $own_tail = preg_replace('/^#0 [^\n]*\n/', '', $own);
    $renumbered = preg_replace_callback('/^#(\d+)/m', fn($m) => '#' . ($m[1] - 1), $own_tail);
    echo $renumbered === $expected ? "same\n" : "DIFFERENT:\n$own\n--\n$expected\n";
}
same_as_debug_backtrace(1, [2]);

echo "-- a callback called by an internal function has no file\n";
echo implode('', array_map(fn($x) => corvidine_test_backtrace(), [10])), "\n";

echo "-- eval\n";
echo eval('return corvidine_test_backtrace();'), "\n";
eval('function from_eval($x) { return corvidine_test_backtrace(); }');
echo from_eval(1.0), "\n";

echo "-- precision of doubles follows the precision setting\n";
ini_set('precision', 4);
echo explode("\n", outer(0))[1], "\n";
ini_set('precision', 14);

echo "-- limits\n";
function down($n, $limit) { return $n === 0 ? corvidine_test_backtrace($limit) : down($n - 1, $limit); }
// three frames: the hook, down(0), down(1), then {main}
var_dump(down(1, 1));                       // one line, no {main}
var_dump(down(1, 3));                       // limit used up exactly: no {main}
var_dump(down(1, 4));                       // room left: {main}
$deep = down(300, 0);                       // 0 means 99999: every frame
echo substr_count($deep, "\n"), " lines, ends with: ", substr($deep, strrpos($deep, "\n") + 1), "\n";
$capped = down(300, 128);
echo substr_count($capped, "\n"), " lines, last: ", substr($capped, strrpos(rtrim($capped), "\n") + 1, 4), ", {main}: ",
    str_contains($capped, '{main}') ? 'yes' : 'no', "\n";
?>
--EXPECTF--
-- methods, static calls, every argument kind
resource id of the handle
#0 %sbacktrace_text.php(%d): corvidine_test_backtrace()
#1 %sbacktrace_text.php(%d): Shelf->take(7, -3, 2.5, 0.33333333333333, NULL, true, false, String, Array, Object(ArrayObject), Resource id #%d)
#2 %sbacktrace_text.php(%d): Shelf::make(7, -3, 2.5, 0.33333333333333, NULL, true, false, String, Array, Object(ArrayObject), Resource id #%d)
#3 %sbacktrace_text.php(%d): outer(7)
#4 {main}
no string data in the text
-- the same text from the frames of debug_backtrace()
same
-- a callback called by an internal function has no file
#0 %sbacktrace_text.php(%d): corvidine_test_backtrace()
#1 [internal function]: {closure}(10)
#2 %sbacktrace_text.php(%d): array_map(Object(Closure), Array)
#3 {main}
-- eval
#0 %sbacktrace_text.php(%d) : eval()'d code(1): corvidine_test_backtrace()
#1 %sbacktrace_text.php(%d): eval()
#2 {main}
#0 %sbacktrace_text.php(%d) : eval()'d code(1): corvidine_test_backtrace()
#1 %sbacktrace_text.php(%d): from_eval(1)
#2 {main}
-- precision of doubles follows the precision setting
#1 %sbacktrace_text.php(%d): Shelf->take(0, -3, 2.5, 0.3333, NULL, true, false, String, Array, Object(ArrayObject), Resource id #%d)
-- limits
string(%d) "#0 %sbacktrace_text.php(%d): corvidine_test_backtrace(1)
"
string(%d) "#0 %sbacktrace_text.php(%d): corvidine_test_backtrace(3)
#1 %sbacktrace_text.php(%d): down(0, 3)
#2 %sbacktrace_text.php(%d): down(1, 3)
"
string(%d) "#0 %sbacktrace_text.php(%d): corvidine_test_backtrace(4)
#1 %sbacktrace_text.php(%d): down(0, 4)
#2 %sbacktrace_text.php(%d): down(1, 4)
#3 {main}"
302 lines, ends with: #302 {main}
128 lines, last: #127, {main}: no
