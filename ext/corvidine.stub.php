<?php

/**
 * The functions the corvidine extension offers to PHP code.
 *
 * This file is both the source of the extension's argument information
 * (ext/corvidine_arginfo.h, made from it by PHP's gen_stub.php: run
 * tools/gen-arginfo.sh after an edit) and a stub for IDEs: put it on the
 * include path of your IDE, never include it from running code.
 *
 * "info" arguments are arrays (or objects, whose properties are taken) of
 * key => value pairs added to the event, each value as a string; the keys
 * "Label", "Layer", "Edge", "Timestamp" and "Timestamp_u" are reserved and
 * dropped with a warning. "backtrace" is a bool (add the backtrace of this
 * call or not) or an array of frames as debug_backtrace() gives them. "edge"
 * is an X-Trace identifier, or an array of them, of an earlier event of the
 * same trace. A bad info, backtrace or edge gives a warning and null.
 * These three are declared mixed so that a wrong one reaches that warning;
 * the @param lines below give the types they take.
 *
 * @generate-function-entries
 */

/** The identifier of the last event of the running trace; false when none is sampled. */
function corvidine_get_context(): string|false {}

/** Continues the given X-Trace identifier: at once in a running trace, else in the next corvidine_start_trace(). */
function corvidine_set_context(string $context): bool {}

/** Names the transaction of the running trace (255 bytes at most). */
function corvidine_set_transaction_name(string $name): bool {}

/**
 * Starts a trace (ending a sampled one already running) with an entry event of $layer.
 *
 * @return array{sample_rate: int, sample_source: int}|false|null
 *
 * @param array|object|null $info
 * @param array|object|bool|null $backtrace
 */
function corvidine_start_trace(
    string $layer,
    ?string $xtrace = null,
    mixed $info = null,
    mixed $backtrace = null
): array|false|null {}

/**
 * Ends the trace with its exit event; $transaction_name names it.
 *
 * @param array|object|null $info
 * @param array|object|bool|null $backtrace
 * @param array|object|string|null $edge
 */
function corvidine_end_trace(
    mixed $info = null,
    mixed $backtrace = null,
    mixed $edge = null,
    ?string $transaction_name = null
): ?bool {}

/** Whether this request is sampled: events are sent. */
function corvidine_is_tracing(): bool {}

/** Whether a trace was started in this request, sampled or not. */
function corvidine_trace_started(): bool {}

/** Whether the agent has its settings, waiting up to $timeout milliseconds for them. */
function corvidine_is_ready(int $timeout = 0): bool {}

/**
 * An event of $layer ("" for none) labelled $label.
 *
 * The old form corvidine_log(string $label, array|object $info, bool $backtrace = false)
 * still works, with a deprecation notice.
 *
 * @param string|array|object $label
 * @param array|object|bool|null $info
 * @param array|object|bool|null $backtrace
 * @param array|object|string|null $edge
 */
function corvidine_log(
    string $layer,
    mixed $label,
    mixed $info = null,
    mixed $backtrace = null,
    mixed $edge = null
): ?bool {}

/**
 * An "entry" event of $layer.
 *
 * @param array|object|null $info
 * @param array|object|bool|null $backtrace
 */
function corvidine_log_entry(
    string $layer,
    mixed $info = null,
    mixed $backtrace = null
): ?bool {}

/**
 * An "exit" event of $layer.
 *
 * @param array|object|null $info
 * @param array|object|bool|null $backtrace
 * @param array|object|string|null $edge
 */
function corvidine_log_exit(
    string $layer,
    mixed $info = null,
    mixed $backtrace = null,
    mixed $edge = null
): ?bool {}

/**
 * An "error" event with $message and the class of PHP error type $code (E_WARNING, ...), always with a backtrace.
 *
 * @param array|object|null $info
 * @param array|object|bool|null $backtrace
 * @param array|object|string|null $edge
 */
function corvidine_log_error(
    string $layer,
    string $message,
    int $code,
    mixed $info = null,
    mixed $backtrace = null,
    mixed $edge = null
): ?bool {}

/**
 * An "error" event describing $exception (with its trace when $backtrace is not false).
 *
 * @param array|object|null $info
 * @param array|object|bool|null $backtrace
 * @param array|object|string|null $edge
 */
function corvidine_log_exception(
    string $layer,
    Throwable $exception,
    mixed $info = null,
    mixed $backtrace = null,
    mixed $edge = null
): ?bool {}

/**
 * A custom metric: $value observed $count times, under string => string $tags.
 * True when the agent took it for its Collector.
 */
function corvidine_metric_summary(
    string $name,
    float $value,
    int $count = 1,
    bool $host_tag = false,
    ?string $service_name = null,
    ?array $tags = null
): bool {}

/** A custom metric counting $count occurrences, under string => string $tags. */
function corvidine_metric_increment(
    string $name,
    int $count = 1,
    bool $host_tag = false,
    ?string $service_name = null,
    ?array $tags = null
): bool {}

/** The trace id for log lines: task id, "-", and "1" when sampled or "0". */
function corvidine_get_log_trace_id(): string {}
