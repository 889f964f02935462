<?php
// Every wrapped mysqli operation once, as functions and as methods; the
// last query goes through the socket.
mysqli_report(MYSQLI_REPORT_OFF);
$port = (int)getenv('MYSQL_PORT');
$link = mysqli_connect('127.0.0.1', 'root', '', 'test', $port);
mysqli_query($link, "DROP TABLE IF EXISTS m");
$link->query("CREATE TABLE m (id INT, name VARCHAR(20))");
mysqli_real_query($link, "INSERT INTO m VALUES (1, 'alice'), (2, 'bob')");
$link->real_query("SELECT name FROM m WHERE id = 2");
echo json_encode($link->store_result()->fetch_all()), "\n";
mysqli_real_query($link, "SELECT id FROM m ORDER BY id");
echo json_encode(mysqli_use_result($link)->fetch_all()), "\n";
mysqli_multi_query($link, "SELECT 1; SELECT 'two'");
do {
    echo json_encode(mysqli_store_result($link)->fetch_all()), "\n";
} while (mysqli_next_result($link));
$st = mysqli_prepare($link, "SELECT name FROM m WHERE id = ?");
$id = 1;
mysqli_stmt_bind_param($st, 'i', $id);
mysqli_stmt_execute($st);
echo json_encode(mysqli_stmt_get_result($st)->fetch_all()), "\n";
$st2 = $link->stmt_init();
$st2->prepare("SELECT id FROM m WHERE name = ? AND id < 100");
$st2->execute(['bob']);
echo json_encode($st2->get_result()->fetch_all()), "\n";
echo json_encode($link->execute_query("SELECT name FROM m WHERE id = ?", [2])->fetch_all()), "\n";
$link->begin_transaction();
mysqli_commit($link);
$link->begin_transaction();
$link->rollback();
var_dump(mysqli_query($link, "SELECT broken FROM"));
$local = new mysqli('localhost', 'root', '', 'test', 0, getenv('MYSQL_SOCKET'));
echo json_encode($local->query("SELECT 'local'")->fetch_all()), "\n";
