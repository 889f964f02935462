<?php
// A page with faults to look at: a warning, a failing query, an exception
// nobody catches (a 500).
require __DIR__ . '/catalog.php';
trigger_error('stock count looks stale', E_USER_WARNING);
try {
    db()->query('SELECT * FROM no_such_table WHERE id = 42');
} catch (PDOException $e) {
    error_log('checkout: ' . $e->getMessage());
}
throw new RuntimeException('payment backend refused the card');
