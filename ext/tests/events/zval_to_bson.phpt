--TEST--
PHP values as BSON: types, packed arrays, objects, cycles, 1024-byte strings, as python3-bson reads them
--EXTENSIONS--
corvidine
--INI--
corvidine.internal_test_hooks=1
--SKIPIF--
<?php if (!is_executable('/usr/bin/python3')) die('skip /usr/bin/python3 (python3-bson) is needed'); ?>
--FILE--
<?php
require __DIR__ . '/events.inc';

function show($value, bool $count = false): void
{
    [$n, $bytes] = corvidine_test_to_bson($value);
    if ($count) {
        echo "count $n\n";
    }
    echo ev_show(ev_decode_one($bytes));
}

class Base { private $secret = 'base'; }
#[AllowDynamicProperties]
class Item extends Base
{
    public $name = 'pub';
    protected $level = 2;
    private $tags = ['a', 'b'];
    public int $unset;        // typed and never set: no value, left out
    public ?Item $next = null;
}

echo "-- scalars, resources, nested arrays\n";
$fh = fopen('php://memory', 'r');
[$n, $bytes] = corvidine_test_to_bson(['res' => $fh]);
echo ev_field(ev_decode_one($bytes), 'res') === ['int64', (int)$fh] ? "resource as its id\n" : "WRONG RESOURCE\n";
show(['n' => null, 'f' => false, 't' => true, 'i' => -9007199254740993, 'd' => -0.25, 's' => "a\0b",
      'max' => PHP_INT_MAX, 7 => 'seven', -3 => 'minus three', '08' => 'string key that looks numeric']);

echo "-- packed or not: array (4) only when the keys are 0, 1, 2, ...\n";
show(['list' => [1, 2], 'one' => [1 => 'a'], 'empty' => [], 'gap' => [0 => 'a', 2 => 'b'],
      'order' => [1 => 'b', 0 => 'a'], 'mixed' => [0 => 'a', 'k' => 'b'], 'unset' => (function () {
          $a = [1, 2, 3]; unset($a[1]); return $a; })(), 'nested' => [[[]]]]);
echo "-- the return value counts elements whose key was the next integer\n";
var_dump(corvidine_test_to_bson([5, 6, 'x' => 7, 8])[0]);   // keys 0, 1, 'x', 2
var_dump(corvidine_test_to_bson([1 => 'a', 0 => 'b'])[0]);
var_dump(corvidine_test_to_bson([])[0]);

echo "-- objects: their properties, private and protected ones by bare name\n";
$item = new Item;
$item->dynamic = 1.5;
show(['item' => $item, 'closure' => fn() => 1]);
show($item);

echo "-- cycles become null\n";
$self = ['a' => 1];
$self['me'] = &$self;
$self['after'] = 2;
show($self);
$node = new Item;
$node->next = $node;
show(['node' => $node]);
$a = new Item; $b = new Item;
$a->next = $b; $b->next = $a;
show(['a' => $a]);
echo "-- the same array twice is no cycle\n";
$shared = [1, 2];
show(['x' => $shared, 'y' => $shared, 'z' => [$shared]]);
$o = new stdClass;
show(['p' => $o, 'q' => $o]);

echo "-- strings keep 1024 bytes; the length field counts the closing NUL\n";
[$n, $bytes] = corvidine_test_to_bson(['s' => str_repeat('x', 2000), 'exact' => str_repeat('y', 1024), 'z' => 'after']);
$s = ev_field(ev_decode_one($bytes), 's')[1];
$exact = ev_field(ev_decode_one($bytes), 'exact')[1];
echo strlen($s), ' ', strlen($exact), ' ', ev_field(ev_decode_one($bytes), 'z')[1], "\n";
// element: 0x02 "s\0" int32 length, bytes, NUL
var_dump(substr($bytes, 4, 3) === "\x02s\x00", unpack('V', $bytes, 7)[1], bin2hex($bytes[11 + 1024]));
echo unpack('V', $bytes)[1] === strlen($bytes) ? "document length matches\n" : "BAD DOCUMENT LENGTH\n";
?>
--EXPECT--
-- scalars, resources, nested arrays
resource as its id
n:null=null
f:bool=false
t:bool=true
i:int64=-9007199254740993
d:double=-0.25
s:string="a\u0000b"
max:int64=9223372036854775807
7:string="seven"
-3:string="minus three"
08:string="string key that looks numeric"
-- packed or not: array (4) only when the keys are 0, 1, 2, ...
list:array
  0:int64=1
  1:int64=2
one:document
  1:string="a"
empty:array
gap:document
  0:string="a"
  2:string="b"
order:document
  1:string="b"
  0:string="a"
mixed:document
  0:string="a"
  k:string="b"
unset:document
  0:int64=1
  2:int64=3
nested:array
  0:array
    0:array
-- the return value counts elements whose key was the next integer
int(3)
int(1)
int(0)
-- objects: their properties, private and protected ones by bare name
item:document
  secret:string="base"
  name:string="pub"
  level:int64=2
  tags:array
    0:string="a"
    1:string="b"
  next:null=null
  dynamic:double=1.5
closure:document
secret:string="base"
name:string="pub"
level:int64=2
tags:array
  0:string="a"
  1:string="b"
next:null=null
dynamic:double=1.5
-- cycles become null
a:int64=1
me:null=null
after:int64=2
node:document
  secret:string="base"
  name:string="pub"
  level:int64=2
  tags:array
    0:string="a"
    1:string="b"
  next:null=null
a:document
  secret:string="base"
  name:string="pub"
  level:int64=2
  tags:array
    0:string="a"
    1:string="b"
  next:document
    secret:string="base"
    name:string="pub"
    level:int64=2
    tags:array
      0:string="a"
      1:string="b"
    next:null=null
-- the same array twice is no cycle
x:array
  0:int64=1
  1:int64=2
y:array
  0:int64=1
  1:int64=2
z:array
  0:array
    0:int64=1
    1:int64=2
p:document
q:document
-- strings keep 1024 bytes; the length field counts the closing NUL
1024 1024 after
bool(true)
int(1025)
string(2) "00"
document length matches
