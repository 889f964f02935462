"""Server variables copied at request start (without building _SERVER) equal what _SERVER later holds;
php-fpm is spoken to over FastCGI directly, so a case can send what no web server would."""
import json
import os
import subprocess
import tempfile
import unittest

import harness

PAGE = os.path.join(harness.WWW, "server_cache.php")
PHP_CGI = "/usr/bin/php-cgi8.2"

# What nginx's fastcgi_params pass for a GET of the page.
BASE_PARAMS = {
    "SCRIPT_FILENAME": PAGE, "QUERY_STRING": "a=1", "REQUEST_METHOD": "GET", "CONTENT_TYPE": "",
    "CONTENT_LENGTH": "", "SCRIPT_NAME": "/server_cache.php", "REQUEST_URI": "/server_cache.php?a=1",
    "DOCUMENT_URI": "/server_cache.php", "DOCUMENT_ROOT": harness.WWW, "SERVER_PROTOCOL": "HTTP/1.1",
    "GATEWAY_INTERFACE": "CGI/1.1", "SERVER_SOFTWARE": "nginx", "REMOTE_ADDR": "127.0.0.1",
    "REMOTE_PORT": "40000", "SERVER_ADDR": "127.0.0.1", "SERVER_PORT": "8080", "SERVER_NAME": "param-name",
    "HTTP_HOST": "host1:8080", "HTTP_USER_AGENT": "test",
}
NO_URI = {k: v for k, v in BASE_PARAMS.items() if k != "REQUEST_URI"}
# Names this test controls: taken out of the inherited environment.
CONTROLLED = ("HTTP_", "SERVER_", "REQUEST_", "SCRIPT_", "REMOTE_", "HTTPS", "QUERY_STRING", "DOCUMENT_",
              "GATEWAY_INTERFACE", "CONTENT_", "REDIRECT_STATUS", "PATH_INFO")


def clean_environment(extra):
    env = {k: v for k, v in os.environ.items() if not k.startswith(CONTROLLED)}
    return dict(env, CORVIDINE_REPORTER="null", **extra)


def page_result(output):
    body = output.partition("\r\n\r\n")[2] or output.partition("\n\n")[2]
    try:
        return json.loads(body)
    except ValueError:
        raise AssertionError("not the page's answer: %r" % output[:2000])


class ServerCache(unittest.TestCase):
    def check(self, result, expected):
        self.assertEqual(result["server"], result["cache"])
        self.assertNotIn("<", result["cache"].get("REQUEST_URI", ""))
        self.assertEqual(expected, {k: result["cache"].get(k) for k in expected})

    def test_fpm(self):
        if harness.CURRENT_PHP.fpm is None:
            self.skipTest("no php-fpm for this PHP build")
        xtrace = "2B" + "A" * 56 + "01"
        uri = "/server_cache.php?q=" + "%C3%A9\u00e9\u4e2d" * 400
        # (process environment, INI), then (parameters, expected) in a row on one worker.
        servers = [
            ({"HTTP_X_FORWARDED_FOR": "10.9.8.7", "SERVER_NAME": "env-name"}, {}, [
                (BASE_PARAMS, {"SERVER_NAME": "param-name", "HTTP_X_FORWARDED_FOR": "10.9.8.7",
                               "PROTOCOL": "http://", "HTTP_X_TRACE": None}),
                (dict(BASE_PARAMS, HTTPS="", HTTP_X_TRACE=xtrace, HTTP_X_TRACE_OPTIONS="trigger-trace;ts=1",
                      HTTP_X_TRACE_OPTIONS_SIGNATURE="ab12", HTTP_X_FORWARDED_HOST="front.example"),
                 {"PROTOCOL": "https://", "HTTP_X_TRACE": xtrace, "HTTP_X_TRACE_OPTIONS_SIGNATURE": "ab12"}),
                (BASE_PARAMS, {"PROTOCOL": "http://", "HTTP_X_TRACE": None}),  # nothing left of the one before
                (dict(NO_URI, HTTP_HOST="", HTTP_X_TRACE=""), {"REQUEST_URI": None, "HTTP_HOST": "", "HTTP_X_TRACE": ""}),
                (dict(BASE_PARAMS, REQUEST_URI=uri, HTTP_HOST="h\u00f4te"), {"REQUEST_URI": uri, "HTTP_HOST": "h\u00f4te"}),
            ]),
            ({"HTTPS": "off", "HTTP_X_TRACE": "from-env", "SERVER_NAME": "env-name"}, {}, [
                (BASE_PARAMS, {"PROTOCOL": "https://", "HTTP_X_TRACE": "from-env", "SERVER_NAME": "param-name"}),
                (dict(BASE_PARAMS, HTTP_X_TRACE="from-param"), {"HTTP_X_TRACE": "from-param"}),
            ]),
            ({}, {"filter.default": "special_chars"}, [  # the filter applies to the copy too
                (dict(BASE_PARAMS, REQUEST_URI="/server_cache.php?a=<b>"), {}),
            ]),
            ({}, {"variables_order": "GPC"}, [(dict(BASE_PARAMS, HTTPS="on"), {"PROTOCOL": "http://", "REQUEST_URI": None})]),
        ]
        for env, ini, requests in servers:
            fpm = harness.FpmServer(harness.CURRENT_PHP, dict({"corvidine.internal_test_hooks": "1"}, **ini), children=1)
            fpm.env = clean_environment(env)
            with fpm:
                for params, expected in requests:
                    with self.subTest(env=env, ini=ini, expected=expected):
                        self.check(page_result(harness.fcgi_request(fpm.fpm_port, params).decode()), expected)
                self.assertEqual([], fpm.crashes())

    @unittest.skipUnless(os.access(PHP_CGI, os.X_OK), "php8.2-cgi is not installed")
    def test_cgi(self):
        php = harness.CURRENT_PHP
        if php.flavour != "nts":
            self.skipTest("php-cgi8.2 is Debian's NTS build")
        for params, expected in (
                (dict(BASE_PARAMS, HTTPS="", HTTP_X_TRACE_OPTIONS="custom-a=b", HTTP_HOST="h\u00f4te"),
                 {"PROTOCOL": "https://", "HTTP_X_TRACE_OPTIONS": "custom-a=b"}),
                (NO_URI, {"PROTOCOL": "http://", "REQUEST_URI": None})):
            with tempfile.NamedTemporaryFile(prefix="corvidine-cgi-", suffix=".log") as log:
                args = [PHP_CGI] + php.ini_args({"corvidine.internal_test_hooks": "1"}, log.name) + [PAGE]
                out = subprocess.run(args, env=clean_environment(dict(params, REDIRECT_STATUS="200")),
                                     capture_output=True, timeout=30).stdout.decode("utf-8")
            self.check(page_result(out), expected)
