<?php
/*
 * Cost of the event helpers as PHP code pays it (needs the extension with
 * corvidine.internal_test_hooks=1, the CLI on and the null reporter; run by
 * tools/bench-events.sh):
 *
 *  event      an event with 6 string keys and the memory keys, no backtrace,
 *             sent to the null reporter: the time of a sampled call minus
 *             that of the same call on an unsampled context, which returns
 *             before building anything (so the test hook's own argument
 *             handling is not counted).
 *  backtrace  the text backtrace of a 20-frame stack (19 PHP functions with
 *             three arguments each, plus the hook's frame).
 *
 * Prints the median of ROUNDS rounds, in microseconds.
 */
$rounds = (int)($argv[1] ?? 7);
$calls = (int)($argv[2] ?? 100000);

$task = str_repeat('A1', 20);
$sampled = "2B{$task}" . str_repeat('B2', 8) . '01';
$unsampled = "2B{$task}" . str_repeat('B2', 8) . '00';
$records = [
    [1, 'Key1', 'value one'], [1, 'Key2', 'value two'], [1, 'Key3', 'https://example.com/path?q=1'],
    [1, 'Key4', 'GET'], [1, 'Key5', 'some longer value with spaces in it'], [1, 'Key6', '200'],
];

function time_events(string $context, array $records, int $calls): float
{
    corvidine_test_set_context($context);
    $start = hrtime(true);
    for ($i = 0; $i < $calls; $i++) {
        corvidine_test_event('bench', 'info', $records, 0);
    }
    return (hrtime(true) - $start) / 1e3 / $calls;
}

function frames(int $depth, string $text, int $calls): float
{
    if ($depth > 1) {
        return frames($depth - 1, $text, $calls);
    }
    $start = hrtime(true);
    for ($i = 0; $i < $calls; $i++) {
        corvidine_test_backtrace(0);
    }
    return (hrtime(true) - $start) / 1e3 / $calls;
}

function median(array $values): float
{
    sort($values);
    return $values[intdiv(count($values), 2)];
}

// the stack really is 20 frames deep
function probe(int $depth) { return $depth > 1 ? probe($depth - 1) : corvidine_test_backtrace(0); }
$lines = substr_count(probe(19), "\n");
if ($lines !== 20) {
    fwrite(STDERR, "expected a 20-frame backtrace, got $lines frames\n");
    exit(1);
}
if (corvidine_test_set_context($sampled) && corvidine_test_event('bench', 'info', $records, 0) <= 0) {
    fwrite(STDERR, "the event was not sent: is the null reporter in place?\n");
    exit(1);
}

$sent = $skipped = $bt = [];
for ($r = 0; $r < $rounds; $r++) {
    $sent[] = time_events($sampled, $records, $calls);
    $skipped[] = time_events($unsampled, $records, $calls);
    $bt[] = frames(19, 'an argument', intdiv($calls, 4));
}
printf("event (6 string keys + memory keys, null reporter): %.3f us (sampled call %.3f us, unsampled call %.3f us)\n",
    median($sent) - median($skipped), median($sent), median($skipped));
printf("text backtrace, 20 frames: %.3f us\n", median($bt));
