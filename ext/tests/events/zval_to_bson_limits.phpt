--TEST--
PHP values as BSON at the edges: buffer growth, the 16000000-byte limit, deep nesting, pending exceptions, odd keys
--EXTENSIONS--
corvidine
--INI--
corvidine.internal_test_hooks=1
memory_limit=512M
--SKIPIF--
<?php if (!is_executable('/usr/bin/python3')) die('skip /usr/bin/python3 (python3-bson) is needed'); ?>
--FILE--
<?php
require __DIR__ . '/events.inc';

echo "-- growth: doubling from 1024 bytes, then 1024-byte steps past 1 MB, or what one write needs\n";
echo corvidine_test_to_bson([])[2], "\n";
echo corvidine_test_to_bson(['s' => str_repeat('x', 1024), 't' => str_repeat('x', 400)])[2], "\n";
echo corvidine_test_to_bson(array_fill(0, 5, str_repeat('x', 1000)))[2], "\n";
// one key of 10000 bytes: 2048 is not enough, so the block grows by the
// 10003 bytes that the write needs (head and room for the closing byte)
echo corvidine_test_to_bson([str_repeat('k', 10000) => null])[2], "\n";
[$n, $bytes, $cap] = corvidine_test_to_bson(array_fill(0, 1500, str_repeat('x', 1000)));
echo $cap > 0x100000 && ($cap - 0x100000) % 1024 === 0 && $cap >= strlen($bytes) && $cap - strlen($bytes) < 2048
    ? "1 KB steps past 1 MB\n" : "UNEXPECTED SIZE $cap for " . strlen($bytes) . " bytes\n";

echo "-- a document never goes past 16000000 bytes and stays readable\n";
$big = array_fill(0, 20000, str_repeat('y', 1000));
[$n, $bytes] = corvidine_test_to_bson($big);
$doc = ev_decode_one($bytes);
$len = strlen($bytes);
echo $len <= 16000000 && $len > 16000000 - 1100 ? "cut just below the limit\n" : "LENGTH $len\n";
echo unpack('V', $bytes)[1] === $len ? "length field set\n" : "LENGTH FIELD WRONG\n";
echo count($doc) === $n && ev_keys($doc) === array_map('strval', range(0, $n - 1)) ? "a prefix of $n elements\n" : "NOT A PREFIX\n";
// the same inside a nested document: every open document is closed
[$n, $bytes] = corvidine_test_to_bson(['head' => 1, 'inner' => ['deeper' => $big], 'tail' => 2]);
$doc = ev_decode_one($bytes);
echo implode(',', ev_keys($doc)), ' ', strlen($bytes) <= 16000000 ? 'within' : 'OVER', ' ',
    count(ev_field(ev_field($doc, 'inner')[1], 'deeper')[1]), "\n";
unset($big, $bytes, $doc);

echo "-- deep nesting and long chains of objects end in null 128 levels below the document\n";
function depth(array $typed): string
{
    $d = 0;
    while (in_array($typed[0], ['array', 'document'], true) && count($typed[1]) > 0) {
        $d++;
        $first = $typed[1][0];
        $typed = $typed[0] === 'array' ? $first : $first[1];
    }
    return $d . ':' . $typed[0];
}
$nest = 'bottom';
for ($i = 0; $i < 300; $i++) {
    $nest = [$nest];
}
echo depth(['document', ev_decode_one(corvidine_test_to_bson($nest)[1])]), "\n";
$head = null;
// (PHP itself can't free a chain much longer than this at exit)
for ($i = 0; $i < 20000; $i++) {
    $node = new stdClass;
    $node->next = $head;
    $head = $node;
}
echo depth(['document', ev_decode_one(corvidine_test_to_bson(['list' => $head])[1])]), "\n";
$head = null;

echo "-- a pending exception stops the walk with -1; what was written stays a document\n";
[$n, $bytes] = corvidine_test_to_bson(['a' => 1, 'b' => [2]], true);
var_dump($n, ev_decode_one($bytes));

echo "-- keys are C strings in BSON: cut at a NUL (also the mangled names of an array cast from an object,\n";
echo "   which are left as they stand); an object's own properties go by their names\n";
class Hidden { private $p = 1; protected $q = 2; public $r = 3; }
[$n, $bytes] = corvidine_test_to_bson(["a\0b" => 1, 'c' => 2]);
echo json_encode(ev_keys(ev_decode_one($bytes))), "\n";
[$n, $bytes] = corvidine_test_to_bson((array)new Hidden);
echo json_encode(ev_keys(ev_decode_one($bytes))), "\n";
[$n, $bytes] = corvidine_test_to_bson(new Hidden);
echo json_encode(ev_keys(ev_decode_one($bytes))), "\n";
?>
--EXPECT--
-- growth: doubling from 1024 bytes, then 1024-byte steps past 1 MB, or what one write needs
1024
2048
8192
12051
1 KB steps past 1 MB
-- a document never goes past 16000000 bytes and stays readable
cut just below the limit
length field set
a prefix of 15821 elements
head,inner within 15821
-- deep nesting and long chains of objects end in null 128 levels below the document
129:null
129:null
-- a pending exception stops the walk with -1; what was written stays a document
int(-1)
array(0) {
}
-- keys are C strings in BSON: cut at a NUL (also the mangled names of an array cast from an object,
   which are left as they stand); an object's own properties go by their names
["a","c"]
["","","r"]
["p","q","r"]
