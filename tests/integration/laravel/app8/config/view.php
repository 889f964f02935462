<?php

return [
    'paths' => [resource_path('views')],
    'compiled' => storage_path('framework/views'),
];
