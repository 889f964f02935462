<?php

return [
    'name' => 'shop',
    'env' => 'testing',
    'debug' => false,
    'url' => 'http://127.0.0.1',
    'timezone' => 'UTC',
    'locale' => 'en',
    'fallback_locale' => 'en',
    'key' => 'base64:' . base64_encode(str_repeat('k', 32)),
    'cipher' => 'AES-256-CBC',
    'providers' => [
        Illuminate\Cache\CacheServiceProvider::class,
        Illuminate\Database\DatabaseServiceProvider::class,
        Illuminate\Filesystem\FilesystemServiceProvider::class,
        Illuminate\Translation\TranslationServiceProvider::class,
        Illuminate\View\ViewServiceProvider::class,
        App\Providers\AppServiceProvider::class,
    ],
    'aliases' => [],
];
