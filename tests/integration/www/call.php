<?php
// Calls ?to= by ?via= (curl | fgc | fopen) with the application settings of ?case= (own X-Trace, hfn, ctx_string,
// ctx_array; cURL only: patch, post, copy, reset, file, throw) and prints all the application sees.
if (PHP_SAPI === 'cli') parse_str($argv[1] ?? '', $_GET);
set_error_handler(function ($type, $message) { echo "warning: $message\n"; return true; });
$via = $_GET['via'] ?? 'curl';
$to = $_GET['to'];
$case = $_GET['case'] ?? '';
$timeout = (int)($_GET['timeout'] ?? 5);

if ($via === 'curl') {
    $ch = curl_init($to);
    curl_setopt_array($ch, [CURLOPT_RETURNTRANSFER => true, CURLOPT_TIMEOUT => $timeout,
                            CURLOPT_FOLLOWLOCATION => true]);
    $lines = [];
    if ($case === 'own') {
        curl_setopt($ch, CURLOPT_HTTPHEADER, ['Accept: a/b', 'X-Trace: abc']);
    } elseif ($case === 'hfn') {
        curl_setopt($ch, CURLOPT_HEADERFUNCTION, function ($handle, $line) use (&$lines) {
            $lines[] = rtrim($line);
            return strlen($line);
        });
    } else {
        curl_setopt($ch, CURLOPT_HTTPHEADER, ['Accept: a/b']);
    }
    if ($case === 'patch') {
        curl_setopt_array($ch, [CURLOPT_POST => true, CURLOPT_CUSTOMREQUEST => 'PATCH']);
    } elseif ($case === 'post') {
        curl_setopt($ch, CURLOPT_POSTFIELDS, 'a=1');
    } elseif ($case === 'copy') {
        var_dump(curl_exec($ch));
        $ch = curl_copy_handle($ch);
    } elseif ($case === 'reset') {
        curl_reset($ch);
        curl_setopt_array($ch, [CURLOPT_URL => $to, CURLOPT_RETURNTRANSFER => true]);
    } elseif ($case === 'file') {
        $file = fopen('php://memory', 'w+');
        curl_setopt($ch, CURLOPT_WRITEHEADER, $file);
    } elseif ($case === 'throw') {
        curl_setopt($ch, CURLOPT_HEADERFUNCTION, function ($handle, $line) {
            throw new RuntimeException('from the header callback');
        });
    }
    try {
        $result = curl_exec($ch);
    } catch (Throwable $e) {
        $result = get_class($e) . ': ' . $e->getMessage();
    }
    var_dump($result);
    if ($case === 'file') {
        rewind($file);
        echo "header file: ", strlen(stream_get_contents($file)), " bytes\n";
    }
    echo "errno: ", curl_errno($ch), " status: ", curl_getinfo($ch, CURLINFO_RESPONSE_CODE), "\n";
    foreach ($lines as $line) {
        echo "header: ", preg_replace('/^X-Trace: .*/i', 'X-Trace: (id)', $line), "\n";
    }
    exit;
}

$http = ['timeout' => $timeout];
$header = ['own' => "X-Trace: abc", 'ctx_string' => "Accept: a/b\r\n", 'ctx_array' => ['Accept: a/b', 'X-Other: 1']];
if (isset($header[$case])) $http['header'] = $header[$case];
$context = stream_context_create(['http' => $http]);
$before = stream_context_get_options($context);
if ($via === 'fgc') {
    $result = file_get_contents($to, false, $context);
} else {
    $stream = fopen($to, 'r', false, $context);
    $result = $stream ? stream_get_contents($stream) : $stream;
}
var_dump($result);
echo "context: ", stream_context_get_options($context) === $before ? "as before" : "changed", "\n";
foreach ($http_response_header ?? [] as $line) {
    echo "header: ", preg_replace('/^X-Trace: .*/i', 'X-Trace: (id)', $line), "\n";
}
