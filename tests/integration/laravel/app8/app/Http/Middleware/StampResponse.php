<?php

namespace App\Http\Middleware;

use Closure;

class StampResponse
{
    public function handle($request, Closure $next)
    {
        $response = $next($request);
        $response->headers->set('X-Shop', 'stamped');
        return $response;
    }

    public function terminate($request, $response)
    {
    }
}
