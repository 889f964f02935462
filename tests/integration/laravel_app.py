"""The Laravel 8 application of laravel/app8, on Debian's
php-laravel-framework, served by nginx + php-fpm from a private copy (its
bootstrap/cache and storage must be writable). Used by test_laravel.py and
bench/http/bench_laravel.py."""
import os
import shutil

import harness

APP = os.path.join(harness.HERE, "laravel", "app8")
DEBIAN_FRAMEWORK = "/usr/share/php/Illuminate/Foundation/Application.php"
# Extensions Laravel 8 needs that Debian's PHP has as modules of their own
# (the ZTS build has them built in).
NTS_EXTENSIONS = ["ctype", "mbstring", "tokenizer", "pdo", "pdo_sqlite"]


class Laravel8Server(harness.FpmServer):
    def __init__(self, php, ini=None, env=None, children=1, load_module=True):
        full_ini = {"include_path": ".:/usr/share/php", "zend_extension": "opcache", "opcache.enable": "1",
                    "corvidine.enable_laravel_tracing": "1"}
        if php.flavour == "nts":
            full_ini["extension"] = NTS_EXTENSIONS
        full_ini.update(ini or {})
        super().__init__(php, full_ini, env, children=children, load_module=load_module, front_controller=True)
        app = os.path.join(self.dir, "app")
        shutil.copytree(APP, app)
        for sub in ("bootstrap/cache", "storage/framework/cache/data", "storage/framework/views", "storage/logs"):
            os.makedirs(os.path.join(app, sub))
        open(os.path.join(app, "storage", "shop.sqlite"), "w").close()
        self.root = os.path.join(app, "public")
