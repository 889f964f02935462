/*
 * corvidine: the module record and its callbacks. Each callback hands over
 * to the feature folder that does the work (src/config, src/lifecycle,
 * src/hooks).
 */
#include "php_corvidine.h"

#include "src/lifecycle/info.h"
#include "src/lifecycle/module.h"
#include "src/lifecycle/request.h"
#include "src/wrap/wrap_list.h"

/* The user API's argument information and function table, generated from
 * corvidine.stub.php (tools/gen-arginfo.sh); the functions are in src/api. */
#include "corvidine_arginfo.h"

ZEND_DECLARE_MODULE_GLOBALS(vesk)

#if defined(ZTS) && defined(COMPILE_DL_CORVIDINE)
ZEND_TSRMLS_CACHE_DEFINE()
#endif

/* Runs once per PHP thread; allocates nothing. */
static PHP_GINIT_FUNCTION(vesk) {
#if defined(ZTS) && defined(COMPILE_DL_CORVIDINE)
    ZEND_TSRMLS_CACHE_UPDATE();
#endif
    memset(vesk_globals, 0, sizeof(*vesk_globals));
    vesk_globals->enable_sanitize_sql = 1;
    vesk_globals->enable_error_callback = 1;
    ZVAL_UNDEF(&vesk_globals->server_cache);
    ZVAL_UNDEF(&vesk_globals->custom_kvs);
}

static PHP_MINIT_FUNCTION(vesk) {
#if defined(ZTS) && defined(COMPILE_DL_CORVIDINE)
    ZEND_TSRMLS_CACHE_UPDATE();
#endif
    return php_vesk_module_startup(type, module_number);
}

static PHP_MSHUTDOWN_FUNCTION(vesk) {
    return php_vesk_module_shutdown(type, module_number);
}

static PHP_RINIT_FUNCTION(vesk) {
#if defined(ZTS) && defined(COMPILE_DL_CORVIDINE)
    ZEND_TSRMLS_CACHE_UPDATE();
#endif
    (void)type;
    (void)module_number;
    return php_vesk_request_startup();
}

static PHP_RSHUTDOWN_FUNCTION(vesk) {
    (void)type;
    (void)module_number;
    return php_vesk_request_shutdown();
}

static PHP_MINFO_FUNCTION(vesk) {
    php_vesk_info(zend_module);
}

/* The modules whose functions are wrapped start before this one. */
#define PHP_VESK_WRAP_DEPENDENCY(id, switch_name, module, span, test_only) ZEND_MOD_OPTIONAL(module)
static const zend_module_dep vesk_deps[] = {PHP_VESK_WRAP_FAMILIES(PHP_VESK_WRAP_DEPENDENCY) ZEND_MOD_END};
#undef PHP_VESK_WRAP_DEPENDENCY

zend_module_entry vesk_module_entry = {
    STANDARD_MODULE_HEADER_EX,
    NULL,
    vesk_deps,
    PHP_CORVIDINE_EXTNAME,
    ext_functions, /* the wrappers need no entries here: see src/wrap/wrap.h */
    PHP_MINIT(vesk),
    PHP_MSHUTDOWN(vesk),
    PHP_RINIT(vesk),
    PHP_RSHUTDOWN(vesk),
    PHP_MINFO(vesk),
    PHP_CORVIDINE_VERSION,
    PHP_MODULE_GLOBALS(vesk),
    PHP_GINIT(vesk),
    NULL, /* no globals destructor: the per-thread block owns nothing */
    NULL, /* no post-deactivate */
    STANDARD_MODULE_PROPERTIES_EX,
};

#ifdef COMPILE_DL_CORVIDINE
ZEND_GET_MODULE(vesk)
#endif
