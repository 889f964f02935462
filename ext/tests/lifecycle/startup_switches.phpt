--TEST--
corvidine.tracing / trigger_tracing words at start-up (others warn and, for tracing, keep the agent off); corvidine.max_ready_wait_time
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';
$on = 'enabled, trigger not set, __Init 1';
$off = "disabled (invalid corvidine.tracing), trigger -, __Init 0 php_vesk_config_valid(): corvidine.tracing ini setting must be 'enabled' or 'disabled'";
$cases = [['tracing', '', $on], ['tracing', 'enabled', $on], ['tracing', 'always', $on], ['tracing', 'disabled', $on],
    ['tracing', 'never', $on], ['tracing', 'Enabled', $off], ['tracing', 'on', $off],
    ['trigger_tracing', 'enabled', 'enabled, trigger enabled, __Init 1'], ['trigger_tracing', 'disabled', 'enabled, trigger disabled, __Init 1'],
    ['trigger_tracing', 'yes', "$on php_vesk_apply_trigger_tracing(): corvidine.trigger_tracing ini setting must be 'enabled' or 'disabled'"]];
foreach ($cases as [$entry, $value, $expected]) {
    $r = vesk_child(null, ['corvidine.enable_cli' => 1, "corvidine.$entry" => $value]);
    $rows = vesk_info_rows($r['out']);
    // Module start's own warnings; request tracing may add its own later.
    preg_match_all('/Warning: \S+\.c:\d+:((php_vesk_config_valid|php_vesk_apply_trigger_tracing)\(\): .*) in Unknown/', $r['err'], $m);
    $shown = trim(sprintf("%s, trigger %s, __Init %d %s", $rows['corvidine support'] ?? '?', $rows['trigger trace'] ?? '-',
        count(vesk_inits($r['docs'])), implode(' ', $m[1])));
    echo $shown === $expected ? '' : "$entry='$value': $shown\n";
}
// No reporter (an unknown name) never becomes ready, so every wait runs out; the file
// reporter installs its settings at once. Upper bounds only tell "waited" from "did not".
foreach ([['-1', 'none', 0, 1.5], ['0', 'none', 2.0, 9], ['300', 'none', 0.3, 1.9], ['0', 'file', 0, 1.5]] as [$wait, $reporter, $min, $max]) {
    $t = hrtime(true);
    vesk_child('<?php ', ['corvidine.enable_cli' => 1, 'corvidine.max_ready_wait_time' => $wait], ['CORVIDINE_REPORTER' => $reporter]);
    $s = (hrtime(true) - $t) / 1e9;
    echo $s >= $min && $s < $max ? '' : "wait $wait, reporter $reporter: took $s s\n";
}
echo "done\n";
?>
--EXPECT--
done
