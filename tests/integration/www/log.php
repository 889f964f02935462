<?php
// A page that logs: error_log() and a PHP warning, each with the caller's mark.
$mark = $_GET['m'] ?? '';
error_log("page log $mark");
trigger_error("page warning $mark", E_USER_WARNING);
echo "ok\n";
