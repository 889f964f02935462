<?php

namespace App\Http\Controllers;

use App\Events\OrderPlaced;

class ShopController extends Controller
{
    public function index()
    {
        event(new OrderPlaced(7));
        $answer = app('db')->select('select ? as answer', [42])[0]->answer;
        $cache = app('cache')->store('file');
        $cache->put('visits', 1, 60);
        return view('shop', ['answer' => $answer, 'visits' => $cache->get('visits')]);
    }

    public function fatal()
    {
        // A fatal error that no handler turns into an exception.
        ini_set('memory_limit', '24M');
        return str_repeat('x', 64 * 1024 * 1024);
    }
}
