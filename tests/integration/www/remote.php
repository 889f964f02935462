<?php
// The called service: answers with every X-Trace request header it got ("-" for none) and the caller's Accept.
$seen = array_values(array_filter(getallheaders(), fn($name) => strcasecmp($name, 'X-Trace') === 0, ARRAY_FILTER_USE_KEY));
echo "got:", $seen ? implode(',', $seen) : '-', " accept:", $_SERVER['HTTP_ACCEPT'] ?? '-', "\n";
