/* Module start and shutdown, once per process. */
#include "php_corvidine.h"

#include <sys/stat.h>
#include <unistd.h>

#include "SAPI.h"

#include "corvidine/settings.h"
#include "corvidine/ssl_reporter.h"
#include "corvidine/startup.h"

#include "src/config/ini.h"
#include "src/config/init_options.h"
#include "src/errors/errors.h"
#include "src/events/php_vesk_events.h"
#include "src/hooks/observer.h"
#include "src/laravel/dispatch.h"
#include "src/lifecycle/init_event.h"
#include "src/lifecycle/module.h"
#include "src/profiler/profiler.h"
#include "src/request/request_trace.h"
#include "src/testing/wrap_family.h"
#include "src/wrap/wrap.h"

/* Written by module start and shutdown only, on the main thread. */
static php_vesk_module_state php_vesk_state = PHP_VESK_NOT_STARTED;

/* The options point into this buffer; the core copies what it keeps. */
static char php_vesk_service_key[PHP_VESK_SERVICE_KEY_SIZE];

php_vesk_module_state php_vesk_module_state_get(void) {
    return php_vesk_state;
}

/* Reads at most 200 bytes of a process's command line; -1 when unreadable. */
static ssize_t php_vesk_read_cmdline(pid_t pid, char *buffer, size_t size) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/cmdline", (int)pid);
    FILE *file = fopen(path, "r");
    if (file == NULL) {
        return -1;
    }
    size_t length = fread(buffer, 1, size, file);
    fclose(file);
    return (ssize_t)length;
}

time_t php_vesk_get_restart_timestamp(void) {
    char self[200], parent[200], path[64];
    pid_t pid = getpid(), ppid = getppid();
    ssize_t self_len = php_vesk_read_cmdline(pid, self, sizeof(self));
    ssize_t parent_len = php_vesk_read_cmdline(ppid, parent, sizeof(parent));
    int same = self_len >= 0 && self_len == parent_len && memcmp(self, parent, (size_t)self_len) == 0;

    struct stat st;
    snprintf(path, sizeof(path), "/proc/%d", (int)(same ? ppid : pid));
    return stat(path, &st) == 0 ? st.st_ctime : 0;
}

const char *php_vesk_get_service_name(void) {
    if (VESK_G(request_service_name) != NULL) {
        return VESK_G(request_service_name);
    }
    if (VESK_G(env_service_name) != NULL) {
        return VESK_G(env_service_name);
    }
    if (VESK_G(ini_service_name) != NULL) {
        return VESK_G(ini_service_name);
    }
    return "default";
}

int vesk_check_module_exists(const char *name) {
    size_t length = strlen(name);
    char *lowered = zend_str_tolower_dup(name, length);
    int found = zend_hash_str_exists(&module_registry, lowered, length);
    efree(lowered);
    return found;
}

/* A short CLI script would be over before the Collector's settings arrive,
 * so the CLI waits 2 s by default; servers don't wait unless told to. */
static void php_vesk_ready_wait(void) {
    int32_t wait_ms = (int32_t)VESK_INI_LONG("corvidine.max_ready_wait_time");
    if (wait_ms == 0 && strcmp(sapi_module.name, "cli") == 0) {
        wait_ms = 2000;
    }
    if (wait_ms > 0) {
        vesk_is_ready((unsigned)wait_ms);
    }
}

static void php_vesk_apply_trigger_tracing(void) {
    const char *trigger = VESK_INI_STR("corvidine.trigger_tracing");
    if (trigger[0] == '\0') {
        return;
    }
    if (strcmp(trigger, "enabled") == 0) {
        vesk_settings_trigger_set(1);
    } else if (strcmp(trigger, "disabled") == 0) {
        vesk_settings_trigger_set(0);
    } else {
        PHP_VESK_WARNING("corvidine.trigger_tracing ini setting must be 'enabled' or 'disabled'");
    }
}

zend_result php_vesk_module_startup(int type, int module_number) {
    php_vesk_ini_register(type, module_number);
    php_vesk_events_minit(type, module_number); /* test-only hooks, when asked for */
    php_vesk_request_test_hooks_minit(type);

    if (php_vesk_cli_off()) {
        php_vesk_state = PHP_VESK_CLI_OFF;
        return SUCCESS;
    }
    if (php_vesk_config_valid() != 0) {
        php_vesk_state = PHP_VESK_CONFIG_INVALID;
        return SUCCESS;
    }

    /* corvidine.enable is not read here: with it off the core and the hooks
     * still start, and only the request callbacks stand still. */
    vesk_reporter_register_ssl(); /* "ssl", the Collector reporter */
    vesk_init_options_t options;
    vesk_set_init_options(php_vesk_service_key, sizeof(php_vesk_service_key), &options);
    vesk_init(&options);

    php_vesk_ready_wait();
    php_vesk_send_init_event();

    php_vesk_errors_minit(); /* when corvidine.enable_error_callback is on */
    /* The wrapped modules started before this one (optional dependencies). */
    php_vesk_test_wrap_minit(type);
    php_vesk_wrap_minit();
    /* when corvidine.enable_wrap and corvidine.enable_wrap_http are on */
    php_vesk_http_stream_minit();

    php_vesk_laravel_minit(); /* a watcher of the hooks: before they start */
    php_vesk_hooks_startup();
    php_vesk_profiler_minit();

    /* The transaction settings cache is cleared here. */

    php_vesk_apply_trigger_tracing();

    php_vesk_state = PHP_VESK_STARTED;
    return SUCCESS;
}

zend_result php_vesk_module_shutdown(int type, int module_number) {
    if (php_vesk_state != PHP_VESK_STARTED) {
        /* Module start stopped early: nothing but the INI entries to undo. */
        php_vesk_ini_unregister(type, module_number);
        return SUCCESS;
    }

    if (VESK_G(env_service_name) != NULL) {
        pefree(VESK_G(env_service_name), 1);
        VESK_G(env_service_name) = NULL;
    }
    if (VESK_G(ini_service_name) != NULL) {
        pefree(VESK_G(ini_service_name), 1);
        VESK_G(ini_service_name) = NULL;
    }

    php_vesk_http_stream_mshutdown();
    php_vesk_wrap_mshutdown();
    php_vesk_errors_mshutdown();

    php_vesk_ini_unregister(type, module_number);
    php_vesk_hooks_shutdown();
    php_vesk_laravel_mshutdown();

    php_vesk_profiler_mshutdown();
    php_vesk_transaction_settings_destroy();

    /* The core itself shuts down through its exit handler, which flushes the
     * reporter. */
    php_vesk_state = PHP_VESK_NOT_STARTED;
    return SUCCESS;
}
