<?php

$app = new Illuminate\Foundation\Application(dirname(__DIR__));
$app->useStoragePath(getenv('SHOP_STORAGE') ?: dirname(__DIR__) . '/storage');

$app->singleton(Illuminate\Contracts\Http\Kernel::class, App\Http\Kernel::class);
$app->singleton(Illuminate\Contracts\Console\Kernel::class, App\Console\Kernel::class);
$app->singleton(Illuminate\Contracts\Debug\ExceptionHandler::class, App\Exceptions\Handler::class);

return $app;
