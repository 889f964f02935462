<?php
// The warehouse's status page, read by the inventory service over an HTTP stream.
header('Content-Type: text/plain');
usleep(5000);
echo "open\n";
