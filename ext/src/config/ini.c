/* The INI table of the extension and the small readers around it. */
#include "php_corvidine.h"

#include "SAPI.h"
#include "ext/standard/html.h"
#include "ext/standard/info.h"

#include "src/config/ini.h"
#include "src/request/request_ini.h"

#define VESK_PERDIR (PHP_INI_PERDIR | PHP_INI_SYSTEM)

/* phpinfo() pages get seen by more people than they should: the service key
 * shows its service part only, never its token. */
static ZEND_INI_DISP(php_vesk_service_key_displayer) {
    zend_string *value =
        (type == ZEND_INI_DISPLAY_ORIG && ini_entry->modified) ? ini_entry->orig_value : ini_entry->value;
    int html = !sapi_module.phpinfo_as_text;
    if (value == NULL || ZSTR_LEN(value) == 0) {
        PUTS(html ? "<i>no value</i>" : "no value");
        return;
    }
    const char *colon = strchr(ZSTR_VAL(value), ':');
    PUTS("(token hidden)");
    if (colon == NULL) {
        return;
    }
    if (html) {
        zend_string *escaped =
            php_escape_html_entities((const unsigned char *)colon, strlen(colon), 0, ENT_QUOTES, NULL);
        PHPWRITE(ZSTR_VAL(escaped), ZSTR_LEN(escaped));
        zend_string_release(escaped);
    } else {
        PUTS(colon);
    }
}

/* Every setting of every feature is declared here, so that a feature reads
 * its entries by name and never registers its own. Order is the order
 * phpinfo() shows. */
// clang-format off
PHP_INI_BEGIN()
    PHP_INI_ENTRY("corvidine.tracing", "", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.trigger_tracing", "", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.sample_rate", "", VESK_PERDIR, NULL)
    PHP_INI_ENTRY_EX("corvidine.service_key", "", PHP_INI_ALL, NULL, php_vesk_service_key_displayer)
    PHP_INI_ENTRY("corvidine.enable_cli", "0", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.max_ready_wait_time", "0", PHP_INI_SYSTEM, NULL)
    PHP_INI_ENTRY("corvidine.so_file", "corvidine.so", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.debug_level", "2", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.hostname_alias", "", PHP_INI_SYSTEM, NULL)
    PHP_INI_ENTRY("corvidine.max_transactions", "50", PHP_INI_SYSTEM, NULL)
    PHP_INI_ENTRY("corvidine.max_flush_wait_time", "5000", PHP_INI_SYSTEM, NULL)
    PHP_INI_ENTRY("corvidine.events_flush_interval", "2", PHP_INI_SYSTEM, NULL)
    PHP_INI_ENTRY("corvidine.events_flush_batchsize", "2000", PHP_INI_SYSTEM, NULL)
    PHP_INI_ENTRY("corvidine.ec2_metadata_timeout", "1000", PHP_INI_SYSTEM, NULL)
    PHP_INI_ENTRY("corvidine.transaction_prepend_domain", "0", PHP_INI_SYSTEM, NULL)
    PHP_INI_ENTRY("corvidine.transaction_settings_file", "", PHP_INI_ALL, NULL)
    PHP_INI_ENTRY("corvidine.enable_backtrace", "1", PHP_INI_ALL, NULL)
    PHP_INI_ENTRY("corvidine.enable_function_args", "1", PHP_INI_ALL, NULL)
    PHP_INI_ENTRY("corvidine.enable_sanitize_sql", "1", PHP_INI_ALL, NULL)
    STD_PHP_INI_BOOLEAN("corvidine.enable_error_callback", "1", PHP_INI_ALL, OnUpdateBool, enable_error_callback,
                        zend_vesk_globals, vesk_globals)
    STD_PHP_INI_BOOLEAN("corvidine.report_suppressed_errors", "0", PHP_INI_ALL, OnUpdateBool,
                        report_suppressed_errors, zend_vesk_globals, vesk_globals)
    STD_PHP_INI_BOOLEAN("corvidine.use_error_reporting", "0", PHP_INI_ALL, OnUpdateBool, use_error_reporting,
                        zend_vesk_globals, vesk_globals)
    PHP_INI_ENTRY("corvidine.enable_wrap", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_wrap_mysqli", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_wrap_mysqli_oo", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_wrap_error_log", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_wrap_memcached", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_wrap_curl", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_wrap_pdo", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_wrap_phpredis", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_wrap_http", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_memcached_hosts", "1", PHP_INI_ALL, NULL)
    PHP_INI_ENTRY("corvidine.use_custom_start_trace", "0", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.xtrace", "", VESK_PERDIR, NULL)
    /* Off unless asked for: the call observer it needs makes PHP 8.2 set up run-time
     * caches for every internal function on every request, Laravel or not. */
    PHP_INI_ENTRY("corvidine.enable_laravel_tracing", "0", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.laravel_enable_backtrace", "0", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable", "1", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.enable_profiling", "0", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.profiling_interval", "20", VESK_PERDIR, NULL)
    PHP_INI_ENTRY("corvidine.log_trace_id", "disabled", VESK_PERDIR, NULL)
PHP_INI_END()
// clang-format on

zend_result php_vesk_ini_register(int type, int module_number) {
    return REGISTER_INI_ENTRIES();
}

void php_vesk_ini_unregister(int type, int module_number) {
    UNREGISTER_INI_ENTRIES();
    php_vesk_request_ini_forget();
}

const char *php_vesk_ini_str(const char *name, size_t len) {
    const char *value = zend_ini_string_ex(name, len, 0, NULL);
    return value != NULL ? value : "";
}

int php_vesk_cli_off(void) {
    /* The SAPI does not change while the process lives. */
    static int is_cli = -1;
    if (is_cli < 0) {
        is_cli = sapi_module.name != NULL && strcmp(sapi_module.name, "cli") == 0;
    }
    return is_cli && VESK_INI_OFF("corvidine.enable_cli");
}

int php_vesk_config_valid(void) {
    static const char *const accepted[] = {"", "enabled", "always", "disabled", "never"};
    const char *tracing = VESK_INI_STR("corvidine.tracing");
    for (size_t i = 0; i < sizeof(accepted) / sizeof(accepted[0]); i++) {
        if (strcmp(tracing, accepted[i]) == 0) {
            return 0;
        }
    }
    PHP_VESK_WARNING("corvidine.tracing ini setting must be 'enabled' or 'disabled'");
    return -1;
}
