<?php
// Preloaded by opcache in the tests that check the preload request.
function corvidine_preloaded() { return 1; }
