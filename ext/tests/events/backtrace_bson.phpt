--TEST--
Backtrace and call arguments as BSON documents, read by python3-bson; zval type names and return-value records
--EXTENSIONS--
corvidine
--INI--
corvidine.internal_test_hooks=1
--SKIPIF--
<?php if (!is_executable('/usr/bin/python3')) die('skip /usr/bin/python3 (python3-bson) is needed'); ?>
--FILE--
<?php
require __DIR__ . '/events.inc';

class Point { public $x = 1; private $y = 2; }

function inner($text, $point, $list) { return corvidine_test_backtrace_bson(); }
function outer() { return inner(str_repeat('s', 2000), new Point, [1, 'two']); }

echo "-- the frames of the running code, the hook first, with arguments and no objects\n";
$doc = ev_decode_one(outer());
echo implode(',', ev_keys($doc)), "\n";
foreach ($doc as [$number, [$type, $frame]]) {
    echo "#$number $type: ";
    foreach ($frame as [$key, [$t, $v]]) {
        echo $key, '=', match ($key) {
            'file' => basename($v), 'args' => $t . '(' . count($v) . ')', default => json_encode($v) };
        echo ' ';
    }
    echo "\n";
}
$args = ev_field(ev_field($doc, '1')[1], 'args');
echo $args[0], ': ', strlen($args[1][0][1]), ' bytes of the string; ', ev_show($args[1][1][1]),
    json_encode($args[1][2]), "\n";

echo "-- at most 128 frames\n";
function down($n) { return $n === 0 ? corvidine_test_backtrace_bson() : down($n - 1); }
$doc = ev_decode_one(down(300));
echo count($doc), ' frames, last ', end($doc)[0], "\n";

echo "-- the arguments of the call running now\n";
$fh = fopen('php://memory', 'r');
$doc = ev_decode_one(corvidine_test_args_bson(1, 'two', [3, 4], str_repeat('z', 5000), new Point, $fh, null, 2.5));
echo ev_show(array_map(fn($p) => $p[0] === '3' ? ['3', ['string', strlen($p[1][1]) . ' bytes']] : $p,
    array_filter($doc, fn($p) => $p[0] !== '5')));
echo ev_field($doc, '5') === ['int64', (int)$fh] ? "resource as its id\n" : "WRONG RESOURCE\n";
echo json_encode(ev_decode_one(corvidine_test_args_bson())), "\n";

echo "-- type names\n";
$ref = 5;
$r = &$ref;
foreach ([null, false, true, 1, 1.5, 's', [], new Point, $fh] as $v) {
    echo corvidine_test_typename($v), ' ';
}
echo corvidine_test_typename($r), "\n";

echo "-- return-value records\n";
foreach ([true, false, -42, 2.5, "text\0more", new Point, $fh, null, []] as $v) {
    echo json_encode(corvidine_test_retval_kv($v)), "\n";
}
$handle = spl_object_id($p = new Point);
echo corvidine_test_retval_kv($p)[2] === $handle ? "object as its handle\n" : "WRONG HANDLE\n";
echo corvidine_test_retval_kv($fh)[2] === (int)$fh ? "resource as its id\n" : "WRONG ID\n";
?>
--EXPECTF--
-- the frames of the running code, the hook first, with arguments and no objects
0,1,2
#0 document: file=backtrace_bson.php line=%d function="corvidine_test_backtrace_bson" args=array(0) 
#1 document: file=backtrace_bson.php line=%d function="inner" args=array(3) 
#2 document: file=backtrace_bson.php line=%d function="outer" args=array(0) 
array: 1024 bytes of the string; x:int64=1
y:int64=2
["array",[["int64",1],["string","two"]]]
-- at most 128 frames
128 frames, last 127
-- the arguments of the call running now
0:int64=1
1:string="two"
2:array
  0:int64=3
  1:int64=4
3:string="1024 bytes"
4:document
  x:int64=1
  y:int64=2
6:null=null
7:double=2.5
resource as its id
[]
-- type names
null bool bool long double string array object resource long
-- return-value records
[9,"ReturnValue",1,8]
[9,"ReturnValue",0,8]
[2,"ReturnValue",-42,8]
[3,"ReturnValue",2.5,8]
[1,"ReturnValue","text\u0000more",9]
[2,"ReturnValue",%d,8]
[2,"ReturnValue",%d,8]
[0,"ReturnValue",null,0]
[0,"ReturnValue",null,0]
object as its handle
resource as its id
