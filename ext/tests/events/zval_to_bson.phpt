--TEST--
PHP values as BSON, as python3-bson reads them: types, packed arrays, objects, cycles, 1024-byte strings, growth, the 16000000-byte limit, depth, NUL in keys
--EXTENSIONS--
corvidine
--INI--
corvidine.internal_test_hooks=1
memory_limit=512M
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
function show($value): void { echo vesk_show(vesk_decode(corvidine_test_to_bson($value)[1])[0]), "\n"; }
class Base { private $secret = 'base'; }
#[AllowDynamicProperties]
class Item extends Base { public $name = 'pub'; protected $level = 2; public int $unset; public ?Item $next = null; }

$fh = fopen('php://memory', 'r');
// scalars; arrays are packed (4) only when the keys run 0, 1, 2, ...
show(['n' => null, 'f' => false, 'i' => -9007199254740993, 'd' => -0.25, 's' => "a\0b", -3 => 'm', '08' => 'k',
      'list' => [1, 2], 'one' => [1 => 'a'], 'empty' => [], 'order' => [1 => 'b', 0 => 'a'],
      'holed' => (function () { $a = [1, 2, 3]; unset($a[1]); return $a; })()]);
echo vesk_field(vesk_decode(corvidine_test_to_bson(['r' => $fh])[1])[0], 'r') === ['int64', (int)$fh] ? "resource: its id\n" : "WRONG\n";
echo "count ", corvidine_test_to_bson([5, 6, 'x' => 7, 8])[0], "\n";   // elements whose key was the next integer

// objects by their properties (private and protected by bare name); cycles become null
$item = new Item;
$item->dynamic = 1.5;
$item->next = $item;
show(['item' => $item, 'closure' => fn() => 1]);
$self = ['a' => 1];
$self['me'] = &$self;
show($self);
$shared = [1];
$o = new stdClass;
show(['x' => $shared, 'y' => $shared, 'p' => $o, 'q' => $o]);   // the same value twice is no cycle

// strings keep 1024 bytes; the length field counts the closing NUL
$bytes = corvidine_test_to_bson(['s' => str_repeat('x', 2000)])[1];
echo strlen(vesk_field(vesk_decode($bytes)[0], 's')[1]), ' ', unpack('V', $bytes, 7)[1], ' ', unpack('V', $bytes)[1] === strlen($bytes) ? 'whole' : 'WRONG', "\n";

// growth: doubling from 1024 bytes, what one write needs, 1024-byte steps past 1 MB
echo corvidine_test_to_bson([])[2], ' ', corvidine_test_to_bson(array_fill(0, 5, str_repeat('x', 1000)))[2], ' ',
    corvidine_test_to_bson([str_repeat('k', 10000) => null])[2], "\n";
[, $bytes, $cap] = corvidine_test_to_bson(array_fill(0, 1500, str_repeat('x', 1000)));
var_dump(($cap - 0x100000) % 1024 === 0 && $cap >= strlen($bytes) && $cap - strlen($bytes) < 2048);

// a document stops just below 16000000 bytes, every open document closed
$big = array_fill(0, 20000, str_repeat('y', 1000));
[$n, $bytes] = corvidine_test_to_bson(['head' => 1, 'inner' => ['deeper' => $big], 'tail' => 2]);
$doc = vesk_decode($bytes)[0];
echo implode(',', array_column($doc, 0)), ' ', strlen($bytes) <= 16000000 && strlen($bytes) > 16000000 - 1100 ? 'just below' : 'WRONG', ' ',
    count(vesk_field(vesk_field($doc, 'inner')[1], 'deeper')[1]), "\n";
unset($big, $bytes, $doc);

// nesting and chains of objects end in null 128 levels down
for ($nest = 'bottom', $i = 0; $i < 300; $i++) { $nest = [$nest]; }
for ($head = null, $i = 0; $i < 20000; $i++) { $node = new stdClass; $node->next = $head; $head = $node; }
$arrays = json_encode(vesk_decode(corvidine_test_to_bson($nest)[1])[0]);
$objects = json_encode(vesk_decode(corvidine_test_to_bson(['list' => $head])[1])[0]);
echo substr_count($arrays, '["array"') + 1, ':', str_contains($arrays, 'bottom') ? 'bottom' : 'null', ' ',
    substr_count($objects, '["document"') + 1, ':', str_contains($objects, '["null",null]') ? 'null' : 'NO NULL', "\n";
$head = null;

// a pending exception stops the walk with -1, leaving a document; keys are cut at a NUL
[$n, $bytes] = corvidine_test_to_bson(['a' => 1], true);
echo $n, ' ', json_encode(vesk_decode($bytes)[0]), ' ', json_encode(array_column(vesk_decode(corvidine_test_to_bson(["a\0b" => 1, 'c' => 2])[1])[0], 0)), "\n";
?>
--EXPECT--
n:null=null f:bool=false i:int64=-9007199254740993 d:double=-0.25 s:string="a\u0000b" -3:string="m" 08:string="k" list:[0:int64=1 1:int64=2] one:{1:string="a"} empty:[] order:{1:string="b" 0:string="a"} holed:{0:int64=1 2:int64=3}
resource: its id
count 3
item:{secret:string="base" name:string="pub" level:int64=2 next:null=null dynamic:double=1.5} closure:{}
a:int64=1 me:null=null
x:[0:int64=1] y:[0:int64=1] p:{} q:{}
1024 1025 whole
1024 8192 12051
bool(true)
head,inner just below 15821
129:null 129:null
-1 [] ["a","c"]
