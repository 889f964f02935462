"""The server variables the extension copies at request start must be the
values _SERVER holds. Under php-fpm and php-cgi they are read from the
request's FastCGI parameters and the process environment without building
_SERVER; these cases compare them with _SERVER, built afterwards by the page
(www/server_cache.php, through the test hook corvidine_test_server_cache()).

php-fpm is spoken to directly over FastCGI, so that a case can send
parameters no web server in front would (an HTTPS of empty value, no
REQUEST_URI), and its process environment is chosen by the case.
"""
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

# Names this test controls: taken out of the inherited environment.
CONTROLLED = ("HTTP_", "SERVER_", "REQUEST_", "SCRIPT_", "REMOTE_", "HTTPS", "QUERY_STRING", "DOCUMENT_",
              "GATEWAY_INTERFACE", "CONTENT_", "REDIRECT_STATUS", "PATH_INFO")


def clean_environment(extra):
    env = {k: v for k, v in os.environ.items() if not k.startswith(CONTROLLED)}
    env.update({"CORVIDINE_REPORTER": "null"})
    env.update(extra)
    return env


def page_result(output):
    """The page's JSON behind the CGI headers."""
    head, _, body = output.partition("\r\n\r\n")
    if not body:
        head, _, body = output.partition("\n\n")
    try:
        return json.loads(body)
    except ValueError:
        raise AssertionError("not the page's answer: %r" % output[:2000])


def start_fpm(env, ini=None):
    """php-fpm with one worker and the environment given; the cases speak
    FastCGI to it, past the web server."""
    if harness.CURRENT_PHP.fpm is None:
        raise unittest.SkipTest("no php-fpm for this PHP build")
    fpm = harness.FpmServer(harness.CURRENT_PHP, dict({"corvidine.internal_test_hooks": "1"}, **(ini or {})),
                            children=1)
    fpm.env = clean_environment(env)
    fpm.get = lambda params: page_result(harness.fcgi_request(fpm.fpm_port, params).decode())
    return fpm.start()


class FpmCase(unittest.TestCase):
    """One php-fpm per class, with ENV added to its process environment."""

    ENV = {}

    @classmethod
    def setUpClass(cls):
        cls.fpm = start_fpm(cls.ENV)

    @classmethod
    def tearDownClass(cls):
        crashes = cls.fpm.crashes()
        cls.fpm.stop()
        if crashes:
            raise AssertionError("php-fpm worker crashed: %s" % crashes)

    def check(self, params):
        result = self.fpm.get(params)
        self.assertEqual(result["server"], result["cache"])
        return result["cache"]


class FpmServerCache(FpmCase):
    """The environment supplies what the parameters leave out, and loses to
    them where both have a name."""

    ENV = {"HTTP_X_FORWARDED_FOR": "10.9.8.7", "SERVER_NAME": "env-name"}

    def test_parameters_over_environment(self):
        cache = self.check(BASE_PARAMS)
        self.assertEqual("param-name", cache["SERVER_NAME"], "a parameter beats the environment")
        self.assertEqual("10.9.8.7", cache["HTTP_X_FORWARDED_FOR"], "the environment fills in")
        self.assertEqual("/server_cache.php?a=1", cache["REQUEST_URI"])
        self.assertEqual("http://", cache["PROTOCOL"])
        self.assertNotIn("HTTP_X_TRACE", cache)

    def test_https_of_empty_value_and_trace_headers(self):
        xtrace = "2B" + "A" * 56 + "01"
        cache = self.check(dict(BASE_PARAMS, HTTPS="", HTTP_X_TRACE=xtrace,
                                HTTP_X_TRACE_OPTIONS="trigger-trace;ts=1", HTTP_X_TRACE_OPTIONS_SIGNATURE="ab12",
                                HTTP_X_FORWARDED_HOST="front.example"))
        self.assertEqual("https://", cache["PROTOCOL"], "HTTPS counts whatever its value")
        self.assertEqual(xtrace, cache["HTTP_X_TRACE"])
        self.assertEqual("trigger-trace;ts=1", cache["HTTP_X_TRACE_OPTIONS"])
        self.assertEqual("ab12", cache["HTTP_X_TRACE_OPTIONS_SIGNATURE"])
        self.assertEqual("front.example", cache["HTTP_X_FORWARDED_HOST"])

    def test_missing_and_empty_values(self):
        params = dict(BASE_PARAMS, HTTP_HOST="", HTTP_X_TRACE="")
        del params["REQUEST_URI"]
        cache = self.check(params)
        self.assertNotIn("REQUEST_URI", cache)
        self.assertEqual("", cache["HTTP_HOST"])
        self.assertEqual("", cache["HTTP_X_TRACE"])

    def test_long_and_non_ascii_values(self):
        uri = "/server_cache.php?q=" + "%C3%A9\u00e9\u4e2d" * 400
        cache = self.check(dict(BASE_PARAMS, REQUEST_URI=uri, HTTP_HOST="h\u00f4te"))
        self.assertEqual(uri, cache["REQUEST_URI"])
        self.assertEqual("h\u00f4te", cache["HTTP_HOST"])

    def test_requests_in_a_row_do_not_mix(self):
        # One worker: the second request must not see the first one's values.
        self.check(dict(BASE_PARAMS, HTTPS="on", HTTP_X_TRACE="first"))
        cache = self.check(BASE_PARAMS)
        self.assertNotIn("HTTP_X_TRACE", cache)
        self.assertEqual("http://", cache["PROTOCOL"])


class FpmServerCacheFromEnvironment(FpmCase):
    """HTTPS and X-Trace from the process environment alone."""

    ENV = {"HTTPS": "off", "HTTP_X_TRACE": "from-env", "SERVER_NAME": "env-name"}

    def test_environment_alone(self):
        cache = self.check(BASE_PARAMS)
        self.assertEqual("https://", cache["PROTOCOL"])
        self.assertEqual("from-env", cache["HTTP_X_TRACE"])
        self.assertEqual("param-name", cache["SERVER_NAME"])

    def test_parameter_over_environment(self):
        cache = self.check(dict(BASE_PARAMS, HTTP_X_TRACE="from-param"))
        self.assertEqual("from-param", cache["HTTP_X_TRACE"])


class FpmServerCacheFiltered(unittest.TestCase):
    """Where _SERVER would not hold the raw values (a default input filter
    that rewrites them) or nothing at all (no "S" in variables_order), the
    copy still equals _SERVER."""

    def run_with(self, ini, params):
        fpm = start_fpm({}, ini)
        try:
            return fpm.get(params)
        finally:
            fpm.stop()

    def test_default_filter_rewrites_values(self):
        result = self.run_with({"filter.default": "special_chars"},
                               dict(BASE_PARAMS, REQUEST_URI="/server_cache.php?a=<b>&c=\"d\""))
        self.assertEqual(result["server"], result["cache"])
        self.assertNotIn("<", result["cache"]["REQUEST_URI"], "the filter applies to the copy too")

    def test_variables_order_without_server(self):
        result = self.run_with({"variables_order": "GPC"}, dict(BASE_PARAMS, HTTPS="on"))
        self.assertEqual(result["server"], result["cache"])
        self.assertEqual({"PROTOCOL": "http://"}, result["cache"])


@unittest.skipUnless(os.access(PHP_CGI, os.X_OK), "php8.2-cgi is not installed")
class CgiServerCache(unittest.TestCase):
    """php-cgi as a plain CGI program: everything comes from the process
    environment."""

    def run_cgi(self, env, drop=()):
        php = harness.CURRENT_PHP
        if php.flavour != "nts":
            self.skipTest("php-cgi8.2 is Debian's NTS build")
        log = tempfile.NamedTemporaryFile(prefix="corvidine-cgi-", suffix=".log", delete=False).name
        try:
            args = [PHP_CGI] + php.ini_args({"corvidine.internal_test_hooks": "1"}, log) + [PAGE]
            params = dict(BASE_PARAMS, REDIRECT_STATUS="200")
            for name in drop:
                del params[name]
            out = subprocess.run(args, env=clean_environment(dict(params, **env)), capture_output=True,
                                 timeout=30).stdout.decode("utf-8")
        finally:
            os.unlink(log)
        return page_result(out)

    def test_environment_values(self):
        result = self.run_cgi({"HTTPS": "", "HTTP_X_TRACE_OPTIONS": "custom-a=b", "HTTP_HOST": "h\u00f4te"})
        self.assertEqual(result["server"], result["cache"])
        self.assertEqual("https://", result["cache"]["PROTOCOL"])
        self.assertEqual("custom-a=b", result["cache"]["HTTP_X_TRACE_OPTIONS"])

    def test_without_request_uri(self):
        result = self.run_cgi({}, drop=("REQUEST_URI",))
        self.assertEqual(result["server"], result["cache"])
        self.assertEqual("http://", result["cache"]["PROTOCOL"])
        self.assertNotIn("REQUEST_URI", result["cache"])


if __name__ == "__main__":
    unittest.main()
