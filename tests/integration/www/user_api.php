<?php
// The user API inside a request: each call's result, as JSON. ?custom: the page starts and ends its own trace;
// ?route=: the tag of its metrics.
$custom = isset($_GET['custom']);
$r = $custom ? ['start' => corvidine_start_trace('api', null, ['page' => 'user_api'])] : [];
$r += [
    'started' => corvidine_trace_started(),
    'tracing' => corvidine_is_tracing(),
    'context' => is_string($c = corvidine_get_context()) ? corvidine_set_context($c) : $c,
    'entry' => corvidine_log_entry('api'),
    'log' => corvidine_log('api', 'step', ['page' => 'user_api']),
    'error' => corvidine_log_error('api', 'bad', E_WARNING),
    'exception' => corvidine_log_exception('api', new RuntimeException('boom')),
    'exit' => corvidine_log_exit('api'),
    'name' => corvidine_set_transaction_name('api-tx'),
    'id' => corvidine_get_log_trace_id(),
    'ready' => corvidine_is_ready(100),
    'summary' => corvidine_metric_summary('api.summary', 2.5, 2, true, 'svc', ['route' => $_GET['route'] ?? 'x']),
    'increment' => corvidine_metric_increment('api.count', 3, false, null, ['route' => $_GET['route'] ?? 'x']),
];
if ($custom) { $r['end'] = corvidine_end_trace(null, null, null, 'api-end'); }
echo json_encode($r);
