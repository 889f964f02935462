--TEST--
corvidine.tracing / corvidine.trigger_tracing: accepted values start the agent, others warn
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

function start(array $ini): string
{
    $file = vesk_temp_path();
    $r = vesk_run(['corvidine.enable_cli' => 1, 'corvidine.service_key' => 'token:t'] + $ini, vesk_file_reporter($file));
    $rows = vesk_info_rows($r['out']);
    $sent = file_exists($file) ? count(vesk_init_documents(vesk_decode($file))) : 0;
    @unlink($file);
    // Module start's own warnings; request tracing may add its own later.
    preg_match_all('/^.*(php_vesk_config_valid|php_vesk_apply_trigger_tracing).*$/m', $r['err'], $m);
    $err = preg_replace('/\S+\.c:\d+:/', 'FILE:LINE:', implode("\n", $m[0]));
    return sprintf("support '%s', hooks '%s', trigger '%s', __Init %d, status %d%s",
        $rows['corvidine support'] ?? '?', $rows['function hooks'] ?? '-', $rows['trigger trace'] ?? '-', $sent,
        $r['status'], $err === '' ? '' : "\n    $err");
}

foreach (['', 'enabled', 'always', 'disabled', 'never', 'Enabled', 'on', 'sometimes'] as $value) {
    echo "tracing='$value': ", start(['corvidine.tracing' => $value]), "\n";
}
foreach (['', 'enabled', 'disabled', 'yes'] as $value) {
    echo "trigger_tracing='$value': ", start(['corvidine.trigger_tracing' => $value]), "\n";
}
?>
--EXPECT--
tracing='': support 'enabled', hooks 'observer API, 1 watcher(s)', trigger 'not set', __Init 1, status 0
tracing='enabled': support 'enabled', hooks 'observer API, 1 watcher(s)', trigger 'not set', __Init 1, status 0
tracing='always': support 'enabled', hooks 'observer API, 1 watcher(s)', trigger 'not set', __Init 1, status 0
tracing='disabled': support 'enabled', hooks 'observer API, 1 watcher(s)', trigger 'not set', __Init 1, status 0
tracing='never': support 'enabled', hooks 'observer API, 1 watcher(s)', trigger 'not set', __Init 1, status 0
tracing='Enabled': support 'disabled (invalid corvidine.tracing)', hooks '-', trigger '-', __Init 0, status 0
    Warning: FILE:LINE:php_vesk_config_valid(): corvidine.tracing ini setting must be 'enabled' or 'disabled' in Unknown on line 0
tracing='on': support 'disabled (invalid corvidine.tracing)', hooks '-', trigger '-', __Init 0, status 0
    Warning: FILE:LINE:php_vesk_config_valid(): corvidine.tracing ini setting must be 'enabled' or 'disabled' in Unknown on line 0
tracing='sometimes': support 'disabled (invalid corvidine.tracing)', hooks '-', trigger '-', __Init 0, status 0
    Warning: FILE:LINE:php_vesk_config_valid(): corvidine.tracing ini setting must be 'enabled' or 'disabled' in Unknown on line 0
trigger_tracing='': support 'enabled', hooks 'observer API, 1 watcher(s)', trigger 'not set', __Init 1, status 0
trigger_tracing='enabled': support 'enabled', hooks 'observer API, 1 watcher(s)', trigger 'enabled', __Init 1, status 0
trigger_tracing='disabled': support 'enabled', hooks 'observer API, 1 watcher(s)', trigger 'disabled', __Init 1, status 0
trigger_tracing='yes': support 'enabled', hooks 'observer API, 1 watcher(s)', trigger 'not set', __Init 1, status 0
    Warning: FILE:LINE:php_vesk_apply_trigger_tracing(): corvidine.trigger_tracing ini setting must be 'enabled' or 'disabled' in Unknown on line 0
