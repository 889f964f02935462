/* phpinfo(): whether the agent runs, what it started with, how it is doing. */
#include "php_corvidine.h"

#include "ext/standard/info.h"

#include "corvidine/debug_log.h"
#include "corvidine/settings.h"
#include "corvidine/startup.h"
#include "corvidine/tracing_decisions.h"

#include "src/config/ini.h"
#include "src/hooks/observer.h"
#include "src/lifecycle/info.h"
#include "src/lifecycle/module.h"

static const char *php_vesk_ready_text(int status) {
    switch (status) {
        case 0:
            return "yes";
        case 3:
            return "no (no reporter)";
        case 5:
            return "no (no room for events)";
        default:
            return "no";
    }
}

static const char *php_vesk_mode_text(int mode) {
    switch (mode) {
        case 0:
            return "disabled";
        case 1:
            return "enabled";
        default:
            return "not set";
    }
}

static const char *php_vesk_sample_source_text(int source) {
    switch (source) {
        case VESK_SAMPLE_SOURCE_LOCAL:
            return "local configuration";
        case VESK_SAMPLE_SOURCE_UNSET:
            return "compiled in default";
        case VESK_SAMPLE_SOURCE_LAYER:
            return "vesk setting";
        case 4:
            return "previous vesk setting";
        case VESK_SAMPLE_SOURCE_DEFAULT:
            return "vesk default";
        default:
            return "unknown";
    }
}

/* The rate and its source for this service, as the tracing decision sees
 * them now: no incoming identifier, nothing custom. */
static void php_vesk_info_sampling(void) {
    vesk_tracing_decisions_in_t in;
    memset(&in, 0, sizeof(in));
    in.version = 2;
    in.service_name = php_vesk_get_service_name();
    in.custom_sample_rate = -1;
    in.custom_tracing_mode = -1;
    in.custom_trigger_mode = -1;
    vesk_tracing_decisions_out_t out;
    memset(&out, 0, sizeof(out));
    out.version = 2;
    vesk_tracing_decisions(&in, &out);
    char rate[16];
    snprintf(rate, sizeof(rate), "%d", out.sample_rate);
    php_info_print_table_row(2, "sample rate", rate);
    php_info_print_table_row(2, "sample source", php_vesk_sample_source_text(out.sample_source));
}

static void php_vesk_info_string(const char *name, const char *value) {
    php_info_print_table_row(2, name, (value != NULL && value[0] != '\0') ? value : "not set");
}

/* -1 means "not given": the reporter uses its own default. */
static void php_vesk_info_int(const char *name, int value) {
    char text[32];
    if (value == -1) {
        php_info_print_table_row(2, name, "not set");
        return;
    }
    snprintf(text, sizeof(text), "%d", value);
    php_info_print_table_row(2, name, text);
}

/* The key in use, without its secret token part. */
static void php_vesk_info_service_key(const char *key) {
    if (key == NULL || key[0] == '\0') {
        php_info_print_table_row(2, "service key", "not set");
        return;
    }
    const char *colon = strchr(key, ':');
    char text[PHP_VESK_SERVICE_KEY_SIZE + 16];
    snprintf(text, sizeof(text), "(token hidden)%s", colon != NULL ? colon : "");
    php_info_print_table_row(2, "service key", text);
}

/* What the core really started with, after INI and environment. */
static void php_vesk_info_options(void) {
    const vesk_init_options_t *options = vesk_init_options_get();
    if (options == NULL) {
        return;
    }
    php_info_print_table_start();
    php_info_print_table_colspan_header(2, "start-up options (environment over INI)");
    /* An empty name picks the Collector reporter. */
    php_vesk_info_string("reporter", (options->reporter != NULL && options->reporter[0] != '\0')
                                         ? options->reporter
                                         : VESK_DEFAULT_REPORTER);
    php_vesk_info_service_key(options->service_key);
    php_vesk_info_string("collector", options->host);
    php_vesk_info_string("hostname alias", options->hostname_alias);
    php_vesk_info_string("trusted path", options->trusted_path);
    php_vesk_info_string("log file", options->log_file_path);
    php_vesk_info_int("log level", options->log_level == -2 ? -1 : options->log_level);
    php_vesk_info_int("buffer size", options->buffer_size);
    php_vesk_info_int("trace metrics", options->trace_metrics);
    php_vesk_info_int("histogram precision", options->histogram_precision);
    php_vesk_info_int("max transactions", options->max_transactions);
    php_vesk_info_int("max flush wait time", options->max_flush_wait_time);
    php_vesk_info_int("events flush interval", options->events_flush_interval);
    php_vesk_info_int("events flush batch size", options->events_flush_batch_size);
    php_vesk_info_int("token bucket capacity", options->token_bucket_capacity);
    php_vesk_info_int("token bucket rate", options->token_bucket_rate);
    php_vesk_info_int("file single", options->file_single);
    php_vesk_info_int("ec2 metadata timeout", options->ec2_metadata_timeout);
    php_info_print_table_end();
}

void php_vesk_info(zend_module_entry *zend_module) {
    php_vesk_module_state state = php_vesk_module_state_get();

    php_info_print_table_start();
    if (state != PHP_VESK_STARTED) {
        php_info_print_table_header(
            2, "corvidine support",
            state == PHP_VESK_CLI_OFF ? "disabled (CLI)" : "disabled (invalid corvidine.tracing)");
        php_info_print_table_row(2, "version", PHP_CORVIDINE_VERSION);
        php_info_print_table_end();
        DISPLAY_INI_ENTRIES();
        return;
    }

    php_info_print_table_header(2, "corvidine support", "enabled");
    php_info_print_table_row(2, "version", PHP_CORVIDINE_VERSION);
    php_info_print_table_row(2, "libvesk version", vesk_config_get_version_string());
    php_vesk_info_sampling();
    php_info_print_table_row(2, "service name", php_vesk_get_service_name());
    php_info_print_table_row(2, "reporter ready", php_vesk_ready_text(vesk_reporter_is_ready(NULL)));
    php_info_print_table_row(2, "trigger trace", php_vesk_mode_text(vesk_settings_cfg_get()->trigger_mode));
    php_info_print_table_row(2, "debug log level", vesk_debug_log_level_name(vesk_debug_log_level_get()));
#ifdef ZTS
    php_info_print_table_row(2, "thread safety", "enabled");
#else
    php_info_print_table_row(2, "thread safety", "disabled");
#endif
    char hooks[64];
    if (php_vesk_hooks_installed()) {
        snprintf(hooks, sizeof(hooks), "observer API, %d watcher(s)", php_vesk_hooks_watcher_count());
    } else {
        snprintf(hooks, sizeof(hooks), "none (no feature watches calls)");
    }
    php_info_print_table_row(2, "function hooks", hooks);
    php_info_print_table_end();

    php_vesk_info_options();
    DISPLAY_INI_ENTRIES();
}
