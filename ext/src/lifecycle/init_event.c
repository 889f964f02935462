/* The "__Init" status event: what this PHP and this extension are. */
#include "php_corvidine.h"

#include <sys/stat.h>

#include "SAPI.h"
#include "zend_constants.h"

#include "corvidine/event.h"
#include "corvidine/metadata.h"

#include "src/config/ini.h"
#include "src/lifecycle/init_event.h"
#include "src/lifecycle/module.h"

#ifdef ZTS
#define VESK_PHP_IS_ZTS 1
#else
#define VESK_PHP_IS_ZTS 0
#endif

#if ZEND_DEBUG
#define VESK_PHP_IS_DEBUG 1
#else
#define VESK_PHP_IS_DEBUG 0
#endif

static const char *php_vesk_php_version(void) {
    zval *version = zend_get_constant_str("PHP_VERSION", sizeof("PHP_VERSION") - 1);
    return (version != NULL && Z_TYPE_P(version) == IS_STRING) ? Z_STRVAL_P(version) : "not_found";
}

/* When the extension file was installed: the change time of so_file in the
 * extension directory this PHP was built with. */
static int64_t php_vesk_install_timestamp(void) {
    char path[MAXPATHLEN];
    struct stat st;
    snprintf(path, sizeof(path), "%s/%s", PHP_EXTENSION_DIR, VESK_INI_STR("corvidine.so_file"));
    return stat(path, &st) == 0 ? (int64_t)st.st_ctime : 0;
}

int php_vesk_send_init_event(void) {
    vesk_metadata_t md;
    vesk_event_t event;
    int rc = -1;

    vesk_metadata_init(&md);
    vesk_metadata_random(&md);
    if (vesk_event_init(&event, &md, NULL) == 0) {
        vesk_event_add_info(&event, "Layer", "PHP");
        vesk_event_add_info(&event, "Label", "single");
        vesk_event_add_info_bool(&event, "__Init", 1);
        vesk_event_add_info(&event, "PHP.Version", php_vesk_php_version());
        vesk_event_add_info(&event, "PHP.Corvidine.Version", PHP_CORVIDINE_VERSION);
        vesk_event_add_info_bool(&event, "PHP.Debug.Version", VESK_PHP_IS_DEBUG);
        vesk_event_add_info_bool(&event, "PHP.ZTS.Version", VESK_PHP_IS_ZTS);
        vesk_event_add_info(&event, "PHP.SAPI.Version", sapi_module.name);
        vesk_event_add_info(&event, "PHP.InstallDirectory", PHP_EXTENSION_DIR);
        vesk_event_add_info_int64(&event, "PHP.InstallTimestamp", php_vesk_install_timestamp());
        vesk_event_add_info_int64(&event, "PHP.LastRestart", (int64_t)php_vesk_get_restart_timestamp());
        rc = vesk_event_send(VESK_SEND_STATUS, &event, &md);
        vesk_event_destroy(&event);
    }
    vesk_metadata_destroy(&md);
    return rc;
}
