<?php
// A slower page that works a little: the kind of request worth tracing.
require __DIR__ . '/catalog.php';
header('Content-Type: text/plain');
$total = 0.0;
foreach (catalog() as $item) {
    $total += price_with_tax($item['price']);
}
$digest = '';
for ($i = 0; $i < 2000; $i++) {
    $digest = sha1($digest . $i);
}
usleep(50000);
printf("order total %.2f EUR, receipt %s\n", $total, substr($digest, 0, 12));
