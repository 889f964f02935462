<?php
// Prints the response headers PHP holds, one a line: under the CLI the
// extension must not have added any.
foreach (headers_list() as $header) {
    echo $header, "\n";
}
echo "done\n";
