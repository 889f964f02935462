/*
 * The local reporters: null (drops everything, turns sampling off), file
 * (concatenated BSON documents, or one file per document) and UDP (one
 * document per datagram). Each installs one local settings record.
 *
 * Init functions run under the start-up mutex; send runs on request threads.
 */
#ifndef CORVIDINE_LOCAL_REPORTERS_H
#define CORVIDINE_LOCAL_REPORTERS_H

#include "corvidine/reporter.h"
#include "corvidine/startup.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Init status codes */
#define VESK_REPORTER_INIT_OK 0
#define VESK_REPORTER_INIT_NO_TABLE 3
#define VESK_REPORTER_INIT_NO_MEMORY 4
#define VESK_REPORTER_INIT_FILE_OPEN 5
#define VESK_REPORTER_INIT_NO_ADDRESS 6
#define VESK_REPORTER_INIT_NO_SOCKET 7

#define VESK_UDP_MAX_DATAGRAM 65507
#define VESK_LOCAL_SIGNATURE_KEY "k3Tq7XwPbnR2vLyd9HsA"

int vesk_reporter_init_null(vesk_reporter_t *reporter, const vesk_init_options_t *options);
int vesk_reporter_init_file(vesk_reporter_t *reporter, const vesk_init_options_t *options);
int vesk_reporter_init_udp(vesk_reporter_t *reporter, const vesk_init_options_t *options);
/* The Collector reporter; until it exists this fails with the no-table code. */
int vesk_reporter_init_ssl(vesk_reporter_t *reporter, const vesk_init_options_t *options);

#ifdef __cplusplus
}
#endif

#endif
