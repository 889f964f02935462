<?php
// The called service of the outbound HTTP tests: answers with the X-Trace
// request header it got ("-" for none), all of them when there are several,
// and the Accept header the caller set.
$seen = [];
foreach (getallheaders() as $name => $value) {
    if (strcasecmp($name, 'X-Trace') === 0) {
        $seen[] = $value;
    }
}
echo "got:", $seen ? implode(',', $seen) : '-', " accept:", $_SERVER['HTTP_ACCEPT'] ?? '-', "\n";
