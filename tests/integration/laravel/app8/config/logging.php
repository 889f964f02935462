<?php

return [
    'default' => 'single',
    'channels' => [
        'single' => ['driver' => 'single', 'path' => storage_path('logs/shop.log'), 'level' => 'debug'],
    ],
];
