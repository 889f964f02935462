/*
 * The Collector reporter ("ssl"), in reporters/collector. It is not in the
 * built-in table: whoever links it in registers it once, before the library
 * starts (the extension does so at module start).
 */
#ifndef CORVIDINE_SSL_REPORTER_H
#define CORVIDINE_SSL_REPORTER_H

#include "corvidine/reporter.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Init status codes of the Collector reporter. */
#define VESK_SSL_INIT_NO_MEMORY 4
#define VESK_SSL_INIT_AUTHENTICATION 8
#define VESK_SSL_INIT_TRUST 9
#define VESK_SSL_INIT_REPORTER 10

/* Host name used when options->host is empty. */
#define VESK_DEFAULT_COLLECTOR_HOST "collector.corvidine.io"

/* 0, or one of the codes above. Starts two sender threads; never waits for
 * the network. A null options record means all defaults. */
int vesk_reporter_init_ssl(vesk_reporter_t *reporter, const vesk_init_options_t *options);
/* Makes "ssl" a reporter name (vesk_reporter_entry_register). */
void vesk_reporter_register_ssl(void);

#ifdef __cplusplus
}
#endif

#endif
