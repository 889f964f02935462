/* The span of a finished request, and the transaction name it settles. */
#include "php_corvidine.h"

#include "SAPI.h"

#include "corvidine/debug_log.h"
#include "corvidine/span.h"

#include "src/request/request_ini.h"
#include "src/request/request_trace.h"

/* What the agent notices about a request (no SCRIPT_NAME where variables_order
 * has no "S", say) is its own business: the debug log, never PHP's output. */
#define PHP_VESK_NOTE(message) VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_PHP, VESK_DEBUG_INFO, message)

/* The script's file name: what follows the last "/" of SCRIPT_NAME. */
static const char *php_vesk_script_base_name(void) {
    const char *script = php_vesk_server_value(PHP_VESK_SV_SCRIPT_NAME);
    if (script == NULL) {
        PHP_VESK_NOTE("Corvidine extension couldn't find SCRIPT_NAME");
        return NULL;
    }
    const char *slash = strrchr(script, '/');
    return slash != NULL ? slash + 1 : script;
}

void php_vesk_record_span(int64_t start, int64_t stop) {
    char domain[PHP_VESK_DOMAIN_SIZE];
    int no_domain = vesk_php_get_domain(domain) == -1;

    vesk_span_params_t params;
    memset(&params, 0, sizeof(params));
    params.version = 2;
    if (VESK_G(custom_transaction_name)[0] != '\0') {
        params.transaction = VESK_G(custom_transaction_name);
    } else if (VESK_G(transaction_name)[0] != '\0') {
        params.transaction = VESK_G(transaction_name);
    } else if (no_domain) {
        params.transaction = php_vesk_script_base_name();
    } else {
        /* The core makes the name from the URL. */
        params.url = php_vesk_server_value(PHP_VESK_SV_REQUEST_URI);
        if (params.url == NULL) {
            PHP_VESK_NOTE("Corvidine extension couldn't find REQUEST_URI");
        }
    }
    if (params.transaction == NULL && params.url == NULL) {
        PHP_VESK_NOTE("Corvidine extension detected empty transaction name");
    }
    params.duration = (long)(stop - start);
    params.service = VESK_G(request_service_name);
    params.do_metrics = VESK_G(do_metrics);

    char name[PHP_VESK_TRANSACTION_NAME_SIZE];
    int length;
    if (no_domain) {
        length = vesk_span(name, sizeof(name), &params);
    } else {
        params.domain = php_vesk_request_ini_on(PHP_VESK_RINI_TRANSACTION_PREPEND_DOMAIN) ? domain : NULL;
        params.status = SG(sapi_headers).http_response_code;
        const char *method = php_vesk_server_value(PHP_VESK_SV_REQUEST_METHOD);
        params.method = method != NULL ? method : "";
        params.has_error = params.status >= 500 && params.status <= 599;
        length = vesk_http_span(name, sizeof(name), &params);
    }

    if (length > 0) {
        /* transaction_name may be the source of the name: copy by memmove. */
        size_t size = sizeof(VESK_G(transaction_name));
        size_t n = (size_t)length < size - 1 ? (size_t)length : size - 1;
        memmove(VESK_G(transaction_name), name, n);
        VESK_G(transaction_name)[n] = '\0';
        VESK_G(transaction_name)[size - 1] = '\0';
    }
}
