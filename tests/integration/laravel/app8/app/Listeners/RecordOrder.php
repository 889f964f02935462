<?php

namespace App\Listeners;

class RecordOrder
{
    public function handle(\App\Events\OrderPlaced $event)
    {
    }
}
