<?php
// The service key as PHP holds it for this request, in hex.
echo bin2hex((string)ini_get("corvidine.service_key"));
