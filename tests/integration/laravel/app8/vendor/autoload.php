<?php
// The shape of the loader Composer generates, on Debian's packaged framework.
require_once __DIR__ . '/composer/autoload_real.php';

return ComposerAutoloaderInitCorvidineShop::getLoader();
