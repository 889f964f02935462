--TEST--
CLI gating: with corvidine.enable_cli off the CLI registers the INI entries and does nothing else
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

foreach (['0', '1', 'On', 'Off', ''] as $value) {
    $file = vesk_temp_path();
    $ini = ['corvidine.service_key' => 'token:cli'];
    if ($value !== '') {
        $ini['corvidine.enable_cli'] = $value;
    }
    $r = vesk_run($ini, vesk_file_reporter($file), 'echo ini_get("corvidine.so_file"), "|", extension_loaded("corvidine") ? "loaded" : "missing";');
    $info_file = vesk_temp_path();
    $info = vesk_info_rows(vesk_run($ini, vesk_file_reporter($info_file))['out']);
    @unlink($info_file);
    $documents = file_exists($file) ? count(vesk_init_documents(vesk_decode($file))) : 'no file';
    printf("enable_cli=%-5s script: %s; support: %s; __Init sent: %s; stderr: '%s'\n", $value === '' ? '(def)' : $value,
        $r['out'], $info['corvidine support'] ?? '?', $documents, trim($r['err']));
    @unlink($file);
}
?>
--EXPECT--
enable_cli=0     script: corvidine.so|loaded; support: disabled (CLI); __Init sent: no file; stderr: ''
enable_cli=1     script: corvidine.so|loaded; support: enabled; __Init sent: 1; stderr: ''
enable_cli=On    script: corvidine.so|loaded; support: enabled; __Init sent: 1; stderr: ''
enable_cli=Off   script: corvidine.so|loaded; support: disabled (CLI); __Init sent: no file; stderr: ''
enable_cli=(def) script: corvidine.so|loaded; support: disabled (CLI); __Init sent: no file; stderr: ''
