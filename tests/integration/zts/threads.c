/* threads EXTENSION SETTINGS-DIR THREADS REQUESTS: a threaded SAPI on libphp.so (ZTS). Each thread serves its
 * requests at once with a settings file of its own (odd requests ruled out); CORVIDINE_THREADS_CODE is the code
 * a request runs, CORVIDINE_THREADS_INI more INI lines. Prints the counts; exits 0 when every X-Trace flag fits. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "php.h"
#include "php_main.h"
#include "php_variables.h"
#include "SAPI.h"
#include "zend_ini.h"

static const char *settings_dir;
static const char *request_code = "echo 'ok';";
static int requests_per_thread;

static __thread int thread_number;
static __thread int request_number;
static __thread int serving; /* 0 while the module starts */
static __thread int saw_xtrace;
static __thread char xtrace_flags[3];

static pthread_mutex_t counts_lock = PTHREAD_MUTEX_INITIALIZER;
static int answered, sampled_headers, unsampled_headers, wrong_flags;

static size_t threads_ub_write(const char *str, size_t length) { (void)str; return length; }

static void threads_flush(void *context) { (void)context; }

static void threads_send_header(sapi_header_struct *header, void *context) {
    (void)context;
    if (header != NULL && strncmp(header->header, "X-Trace: ", 9) == 0 && header->header_len == 9 + 60) {
        saw_xtrace = 1;
        memcpy(xtrace_flags, header->header + 9 + 58, 2);
        xtrace_flags[2] = '\0';
    }
}

/* Odd requests ask for a URL the thread's rules switch off. */
static void threads_register_variables(zval *track) {
    char uri[64];
    snprintf(uri, sizeof(uri), "/t%d/r%d%s", thread_number, request_number, request_number % 2 ? "/off" : "");
    php_register_variable("REQUEST_URI", uri, track);
    php_register_variable("SCRIPT_NAME", "/index.php", track);
    php_register_variable("REQUEST_METHOD", "GET", track);
    php_register_variable("HTTP_HOST", "threads.test", track);
    php_register_variable("SERVER_PORT", "8080", track);
}

/* The thread's settings file, as a per-directory value of the request. */
static int threads_activate(void) {
    if (!serving) {
        return SUCCESS;
    }
    char path[1024];
    snprintf(path, sizeof(path), "%s/rules-%d.ini", settings_dir, thread_number);
    zend_string *name = zend_string_init(ZEND_STRL("corvidine.transaction_settings_file"), 0);
    zend_alter_ini_entry_chars(name, path, strlen(path), PHP_INI_SYSTEM, PHP_INI_STAGE_HTACCESS);
    zend_string_release(name);
    return SUCCESS;
}

static int threads_deactivate(void) { return SUCCESS; }

static char *threads_read_cookies(void) { return NULL; }

static void threads_log_message(const char *message, int type) { (void)type; fprintf(stderr, "%s\n", message); }

static int threads_startup(sapi_module_struct *module) { return php_module_startup(module, NULL); }

static sapi_module_struct threads_module = {
    "corvidine-threads", "corvidine threaded test server", threads_startup, php_module_shutdown_wrapper,
    threads_activate, threads_deactivate, threads_ub_write, threads_flush, NULL /* get uid */, NULL /* getenv */,
    php_error, NULL /* header handler */, NULL /* send headers: each goes to send_header */, threads_send_header,
    NULL /* read POST */, threads_read_cookies, threads_register_variables, threads_log_message,
    NULL /* get request time */, NULL /* terminate process */, STANDARD_SAPI_MODULE_PROPERTIES,
};

static void *serve(void *argument) {
    thread_number = (int)(intptr_t)argument;
    (void)ts_resource(0);
    serving = 1;
    for (request_number = 0; request_number < requests_per_thread; request_number++) {
        saw_xtrace = 0;
        SG(server_context) = (void *)1; /* "a request is being served" */
        SG(request_info).request_method = "GET";
        SG(request_info).no_headers = 0;
        if (php_request_startup() == FAILURE) {
            fprintf(stderr, "thread %d: request %d did not start\n", thread_number, request_number);
            continue;
        }
        zend_eval_string(request_code, NULL, "threads");
        php_request_shutdown(NULL);
        SG(server_context) = NULL;

        pthread_mutex_lock(&counts_lock);
        if (saw_xtrace) {
            int sampled = strcmp(xtrace_flags, "01") == 0;
            answered++;
            sampled_headers += sampled;
            unsampled_headers += !sampled;
            wrong_flags += sampled != (request_number % 2 == 0);
        }
        pthread_mutex_unlock(&counts_lock);
    }
    ts_free_thread();
    return NULL;
}

int main(int argc, char **argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: %s EXTENSION SETTINGS-DIR THREADS REQUESTS\n", argv[0]);
        return 2;
    }
    settings_dir = argv[2];
    request_code = getenv("CORVIDINE_THREADS_CODE") ? getenv("CORVIDINE_THREADS_CODE") : request_code;
    const char *more_ini = getenv("CORVIDINE_THREADS_INI") ? getenv("CORVIDINE_THREADS_INI") : "";
    int threads = atoi(argv[3]);
    requests_per_thread = atoi(argv[4]);

    php_tsrm_startup();
    zend_signal_startup();
    sapi_startup(&threads_module);
    char *ini;
    if (asprintf(&ini, "extension=%s\nmax_execution_time=0\nexpose_php=0\noutput_buffering=0\n%s\n", argv[1],
                 more_ini) < 0) {
        return 1;
    }
    threads_module.ini_entries = ini;
    threads_module.php_ini_ignore = 1;
    if (threads_module.startup(&threads_module) == FAILURE) {
        fprintf(stderr, "module start failed\n");
        return 1;
    }

    pthread_t *ids = calloc((size_t)threads, sizeof(*ids));
    for (int i = 0; i < threads; i++) {
        pthread_create(&ids[i], NULL, serve, (void *)(intptr_t)i);
    }
    for (int i = 0; i < threads; i++) {
        pthread_join(ids[i], NULL);
    }
    free(ids);

    php_module_shutdown();
    sapi_shutdown();
    tsrm_shutdown();
    free(ini);

    int total = threads * requests_per_thread;
    printf("requests %d answered %d sampled-headers %d unsampled-headers %d wrong-flags %d\n", total, answered,
           sampled_headers, unsampled_headers, wrong_flags);
    return (answered == total && wrong_flags == 0) ? 0 : 1;
}
