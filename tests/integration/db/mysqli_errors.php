<?php
// Failing and odd mysqli calls in each report mode: each result or exception, warnings as they come.
function show(callable $call): void
{
    try {
        $result = $call();
        echo is_object($result) ? get_class($result) : var_export($result, true), "\n";
    } catch (Throwable $e) {
        echo get_class($e), ': ', $e->getMessage(), "\n";
    }
}

$port = (int)getenv('MYSQL_PORT');
$modes = [MYSQLI_REPORT_OFF, MYSQLI_REPORT_ERROR, MYSQLI_REPORT_ERROR | MYSQLI_REPORT_STRICT, MYSQLI_REPORT_INDEX];
foreach ($modes as $mode) {
    echo "-- mode $mode\n";
    mysqli_report($mode);
    $link = new mysqli('127.0.0.1', 'root', '', 'test', $port);
    // Unused indexes are reported with the statement's text, as mysqli knows it.
    $link->query("CREATE TABLE IF NOT EXISTS e (id INT)");
    $scan = $link->stmt_init();
    $scan->prepare("SELECT id FROM e WHERE id > 1");
    show(fn() => $scan->execute());
    $scan->close();
    show(fn() => mysqli_query($link, "SELECT broken FROM"));
    show(fn() => $link->query("SELECT broken FROM"));
    show(fn() => $link->real_query("SELECT broken FROM"));
    show(fn() => mysqli_prepare($link, "SELECT broken FROM"));
    show(fn() => $link->execute_query("SELECT ?", [1, 2]));
    show(fn() => mysqli_execute_query($link, "SELECT broken FROM"));
    show(fn() => mysqli_query("SELECT 1", $link));
    show(fn() => mysqli_query($link));
    show(fn() => $link->commit());
    $st = $link->prepare("SELECT ?");
    show(fn() => $st->execute());
    show(fn() => $st->execute([1, 2]));
    show(fn() => mysqli_stmt_execute($st, ['x']));
    $fresh = mysqli_stmt_init($link);
    show(fn() => $fresh->execute());
    show(fn() => mysqli_stmt_prepare($fresh, "SELECT broken FROM"));
    show(fn() => $link->multi_query("SELECT 1; SELECT broken FROM"));
    show(fn() => $link->store_result());
    show(fn() => mysqli_next_result($link));
    show(fn() => mysqli_use_result($link));
    $link->close();
    show(fn() => $link->query("SELECT 1"));
    show(fn() => mysqli_commit($link));
    show(fn() => $st->execute());
}
show(fn() => (new mysqli())->query("SELECT 1"));
show(fn() => (new ReflectionClass('mysqli_stmt'))->newInstanceWithoutConstructor()->execute());
