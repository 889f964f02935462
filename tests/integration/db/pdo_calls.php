<?php
// Every wrapped PDO operation once, through a user subclass of PDO (whose
// query() override calls the wrapped parent). Prints what it fetched.
class AppPdo extends PDO
{
    public int $queries = 0;

    public function query(string $query, ?int $fetchMode = null, mixed ...$fetchModeArgs): PDOStatement|false
    {
        $this->queries++;
        return parent::query(...func_get_args());
    }
}

$db = new AppPdo(getenv('DB_DSN'), getenv('DB_USER') ?: null);
$db->setAttribute(PDO::ATTR_ERRMODE, PDO::ERRMODE_EXCEPTION);
$db->exec("DROP TABLE IF EXISTS t");
$db->exec("CREATE TABLE t (id INTEGER PRIMARY KEY, name VARCHAR(20))");
$db->exec("INSERT INTO t VALUES (1, 'alice'), (22, \"bob\")");
$st = $db->prepare("SELECT name FROM t WHERE id = ? AND name <> 'x'");
$st->execute([22]);
echo json_encode($st->fetchAll(PDO::FETCH_COLUMN)), "\n";
$st = $db->prepare("SELECT id FROM t WHERE name = :name AND id < :max");
$name = 'alice';
$st->bindParam(':name', $name);
$st->bindValue(':max', 100, PDO::PARAM_INT);
$st->execute();
echo json_encode($st->fetchAll(PDO::FETCH_COLUMN)), "\n";
echo $db->query("SELECT COUNT(*) FROM t WHERE id > 5", PDO::FETCH_COLUMN, 0)->fetchColumn(), "\n";
$db->beginTransaction();
$db->exec("DELETE FROM t WHERE id = 1");
$db->rollBack();
$db->beginTransaction();
$db->commit();
$st = $db->prepare("INSERT INTO t VALUES (?, ?)");
try {
    $st->execute([1, 'dup']);
} catch (PDOException $e) {
    echo "duplicate\n";
}
try {
    $db->query("SELECT broken FROM");
} catch (PDOException $e) {
    echo "caught\n";
}
echo $db->queries, " queries\n";
