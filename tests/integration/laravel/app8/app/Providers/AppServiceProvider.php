<?php

namespace App\Providers;

use Illuminate\Support\ServiceProvider;

class AppServiceProvider extends ServiceProvider
{
    public function boot()
    {
        $this->app['events']->listen(\App\Events\OrderPlaced::class, \App\Listeners\RecordOrder::class);
        $router = $this->app['router'];
        $router->middleware('web')->group(function ($router) {
            $router->get('/shop', [\App\Http\Controllers\ShopController::class, 'index']);
            $router->get('/fatal', [\App\Http\Controllers\ShopController::class, 'fatal']);
        });
    }
}
