<?php

class ComposerAutoloaderInitCorvidineShop
{
    private static $loader;

    public static function getLoader()
    {
        if (null !== self::$loader) {
            return self::$loader;
        }
        require_once 'Illuminate/autoload.php';
        $app = dirname(__DIR__, 2) . '/app/';
        self::$loader = function ($class) use ($app) {
            if (strncmp($class, 'App\\', 4) === 0) {
                $file = $app . str_replace('\\', '/', substr($class, 4)) . '.php';
                if (is_file($file)) {
                    require $file;
                }
            }
        };
        spl_autoload_register(self::$loader);
        return self::$loader;
    }
}
