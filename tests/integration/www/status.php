<?php
// Answers with the status code asked for in ?code= (503 by default).
http_response_code(isset($_GET['code']) ? (int)$_GET['code'] : 503);
echo "status\n";
