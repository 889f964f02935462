<?php
// Failing and odd PDO calls in every error mode: each result, error info or exception, warnings as they come.
function show(callable $call): void
{
    try {
        $result = $call();
        echo is_object($result) ? get_class($result) : var_export($result, true), "\n";
    } catch (Throwable $e) {
        echo get_class($e), ': ', $e->getMessage(), "\n";
    }
}

foreach ([PDO::ERRMODE_SILENT, PDO::ERRMODE_WARNING, PDO::ERRMODE_EXCEPTION] as $mode) {
    echo "-- mode $mode\n";
    $db = new PDO(getenv('DB_DSN'), getenv('DB_USER') ?: null, null, [PDO::ATTR_ERRMODE => $mode]);
    $db->exec("CREATE TABLE IF NOT EXISTS e (id INTEGER)");
    show(fn() => $db->query("SELECT broken FROM"));
    show(fn() => $db->errorInfo()[0]);
    show(fn() => $db->exec("INSERT INTO missing VALUES (1)"));
    show(fn() => $db->exec("DELETE FROM e WHERE id = 99"));
    show(fn() => $db->query("SELECT COUNT(*) FROM e", PDO::FETCH_COLUMN, 0)->fetchAll());
    show(fn() => $db->query("SELECT 1", 9999));
    show(fn() => $db->query());
    show(fn() => $db->exec([]));
    show(fn() => $db->commit());
    show(fn() => $db->rollBack());
    $st = $db->prepare("SELECT id FROM e WHERE id = ?");
    show(fn() => $st->execute([1, 2]));
    show(fn() => $st->execute('x'));
    show(fn() => $st->execute([1]));
    show(fn() => $st->errorInfo()[0]);
    $bad = $db->prepare("SELECT id FROM e WHERE id = :a");
    show(fn() => $bad->execute([':b' => 1]));
}
show(fn() => (new ReflectionClass('PDO'))->newInstanceWithoutConstructor()->query("SELECT 1"));
show(fn() => (new ReflectionClass('PDOStatement'))->newInstanceWithoutConstructor()->execute());
