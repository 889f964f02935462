--TEST--
Service key: cleaned, the environment's key replaces the INI key, both service names are remembered
--EXTENSIONS--
corvidine
--FILE--
<?php
require __DIR__ . '/../support/child.inc';

function start(?string $ini_key, ?string $env_key): array
{
    $ini = ['corvidine.enable_cli' => 1];
    if ($ini_key !== null) {
        $ini['corvidine.service_key'] = $ini_key;
    }
    $env = ['CORVIDINE_REPORTER' => 'null'];
    if ($env_key !== null) {
        $env['CORVIDINE_SERVICE_KEY'] = $env_key;
    }
    $r = vesk_run($ini, $env);
    $rows = vesk_info_rows($r['out']);
    return [$rows['service name'] ?? "none: {$r['err']}", $rows['service key'] ?? 'none'];
}

$cases = [
    [null, null],
    ['token:billing', null],
    ['token:My App!', null],
    [null, 'token:env-svc'],
    ['TOKEN:Env Svc', null],
    ['token:ini-svc', 'other:env-svc'],
    ['token-without-service', null],
    [null, 'token-without-service'],
];
foreach ($cases as [$ini_key, $env_key]) {
    [$name, $key] = start($ini_key, $env_key);
    printf("ini=%-24s env=%-16s -> name '%s', key '%s'\n", var_export($ini_key, true), var_export($env_key, true),
        $name, $key);
}

// A key longer than the 328-byte buffer is cut, not overrun.
[$name] = start('token:' . str_repeat('a', 400), null);
echo "long key -> service name of ", strlen($name), " characters\n";
?>
--EXPECT--
ini=NULL                     env=NULL             -> name 'default', key 'not set'
ini='token:billing'          env=NULL             -> name 'billing', key '(token hidden):billing'
ini='token:My App!'          env=NULL             -> name 'my-app', key '(token hidden):my-app'
ini=NULL                     env='token:env-svc'  -> name 'env-svc', key '(token hidden):env-svc'
ini='TOKEN:Env Svc'          env=NULL             -> name 'env-svc', key '(token hidden):env-svc'
ini='token:ini-svc'          env='other:env-svc'  -> name 'env-svc', key '(token hidden):env-svc'
ini='token-without-service'  env=NULL             -> name 'default', key '(token hidden)'
ini=NULL                     env='token-without-service' -> name 'default', key '(token hidden)'
long key -> service name of 321 characters
