/* INI entries and CORVIDINE_* environment variables into vesk_init_options_t. */
#include "php_corvidine.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>

#include "corvidine/span.h"

#include "src/config/ini.h"
#include "src/config/init_options.h"

int php_vesk_digit_led(const char *value, int *out) {
    if (value == NULL || value[0] < '0' || value[0] > '9') {
        return 0;
    }
    errno = 0;
    long parsed = strtol(value, NULL, 10);
    *out = (errno == ERANGE || parsed > INT_MAX) ? INT_MAX : (int)parsed;
    return 1;
}

/* INI integers are zend_long; the options hold int. */
static int php_vesk_ini_int(zend_long value) {
    if (value > INT_MAX) {
        return INT_MAX;
    }
    if (value < INT_MIN) {
        return INT_MIN;
    }
    return (int)value;
}

static void php_vesk_env_string(const char *name, const char **option) {
    const char *value = getenv(name);
    if (value != NULL) {
        *option = value;
    }
}

static void php_vesk_env_digits(const char *name, int *option) {
    php_vesk_digit_led(getenv(name), option);
}

/* Copies `key` into the buffer, cleans its service part and remembers that
 * part (what follows the first ":") in *service_name, on the process heap. */
static void php_vesk_take_service_key(char *buffer, size_t size, const char *key, char **service_name) {
    memset(buffer, 0, size);
    strncpy(buffer, key, size - 1);

    int length = (int)strlen(buffer);
    if (length > 0) {
        vesk_validate_transform_service_name(buffer, &length);
    }

    const char *colon = strchr(buffer, ':');
    if (colon != NULL) {
        if (*service_name != NULL) {
            pefree(*service_name, 1);
        }
        *service_name = pestrdup(colon + 1, 1);
    }
}

int vesk_set_init_options(char *service_key_buffer, size_t buffer_size, vesk_init_options_t *options) {
    memset(service_key_buffer, 0, buffer_size);
    options->version = VESK_INIT_OPTIONS_VERSION;
    vesk_init_options_set_defaults(options);

    /* The environment's key, when set at all, replaces the INI key whole;
     * both service names stay known, so that a request whose INI key names
     * either of them is not taken for a service of its own. */
    const char *ini_key = VESK_INI_STR("corvidine.service_key");
    if (ini_key[0] != '\0') {
        php_vesk_take_service_key(service_key_buffer, buffer_size, ini_key, &VESK_G(ini_service_name));
    }
    const char *env_key = getenv("CORVIDINE_SERVICE_KEY");
    if (env_key != NULL) {
        php_vesk_take_service_key(service_key_buffer, buffer_size, env_key, &VESK_G(env_service_name));
    }
    options->service_key = service_key_buffer;

    php_vesk_env_string("CORVIDINE_REPORTER", &options->reporter);
    php_vesk_env_string("CORVIDINE_COLLECTOR", &options->host);

    const char *alias = VESK_INI_STR("corvidine.hostname_alias");
    options->hostname_alias = alias[0] != '\0' ? alias : NULL;
    php_vesk_env_string("CORVIDINE_HOSTNAME_ALIAS", &options->hostname_alias);

    php_vesk_env_string("CORVIDINE_TRUSTEDPATH", &options->trusted_path);
    php_vesk_env_digits("CORVIDINE_BUFSIZE", &options->buffer_size);
    php_vesk_env_string("CORVIDINE_LOGNAME", &options->log_file_path);

    options->log_level = php_vesk_ini_int(VESK_INI_LONG("corvidine.debug_level"));
    php_vesk_env_digits("CORVIDINE_DEBUG_LEVEL", &options->log_level);

    const char *metrics = getenv("CORVIDINE_TRACE_METRICS");
    if (metrics != NULL && strcmp(metrics, "true") == 0) {
        options->trace_metrics = 1;
    } else if (metrics != NULL && strcmp(metrics, "false") == 0) {
        options->trace_metrics = 0;
    }

    php_vesk_env_digits("CORVIDINE_HISTOGRAM_PRECISION", &options->histogram_precision);

    options->max_transactions = php_vesk_ini_int(VESK_INI_LONG("corvidine.max_transactions"));
    php_vesk_env_digits("CORVIDINE_MAX_TRANSACTIONS", &options->max_transactions);

    options->max_flush_wait_time = php_vesk_ini_int(VESK_INI_LONG("corvidine.max_flush_wait_time"));
    php_vesk_env_digits("CORVIDINE_FLUSH_MAX_WAIT_TIME", &options->max_flush_wait_time);

    options->events_flush_interval = php_vesk_ini_int(VESK_INI_LONG("corvidine.events_flush_interval"));
    php_vesk_env_digits("CORVIDINE_EVENTS_FLUSH_INTERVAL", &options->events_flush_interval);

    options->events_flush_batch_size = php_vesk_ini_int(VESK_INI_LONG("corvidine.events_flush_batchsize"));
    php_vesk_env_digits("CORVIDINE_EVENTS_FLUSH_BATCH_SIZE", &options->events_flush_batch_size);

    php_vesk_env_digits("CORVIDINE_TOKEN_BUCKET_CAPACITY", &options->token_bucket_capacity);
    php_vesk_env_digits("CORVIDINE_TOKEN_BUCKET_RATE", &options->token_bucket_rate);
    php_vesk_env_digits("CORVIDINE_REPORTER_FILE_SINGLE", &options->file_single);

    options->ec2_metadata_timeout = php_vesk_ini_int(VESK_INI_LONG("corvidine.ec2_metadata_timeout"));
    php_vesk_env_digits("CORVIDINE_EC2_METADATA_TIMEOUT", &options->ec2_metadata_timeout);

    return 0;
}
