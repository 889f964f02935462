<?php
// A slower page: asks the inventory service (another host, over HTTP with
// cURL) for stock, writes the order, and works a little.
require __DIR__ . '/catalog.php';
header('Content-Type: text/plain');
$items = catalog();
$ch = curl_init(getenv('DEMO_INVENTORY_URL') . '/stock.php?ids=' . implode(',', array_keys($items)));
curl_setopt($ch, CURLOPT_RETURNTRANSFER, true);
$stock = json_decode((string)curl_exec($ch), true) ?: [];
curl_close($ch);
$total = 0.0;
foreach ($items as $id => $item) {
    if (($stock[$id] ?? 0) > 0) {
        $total += price_with_tax($item['price']);
    }
}
$digest = '';
for ($i = 0; $i < 20000; $i++) {
    $digest = sha1($digest . $i);
}
db()->prepare('INSERT INTO orders (total, receipt) VALUES (?, ?)')->execute([$total, substr($digest, 0, 12)]);
printf("order total %.2f EUR, receipt %s\n", $total, substr($digest, 0, 12));
