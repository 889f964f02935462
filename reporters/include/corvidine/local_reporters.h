/*
 * The local reporters: null (drops everything, turns sampling off), file
 * (concatenated BSON documents, or one file per document) and UDP (one
 * document per datagram). Each installs one local settings record.
 *
 * Init functions run under the start-up mutex; send runs on request threads
 * and takes no lock: the file reporter writes each document with one write()
 * on a file opened for appending, the UDP reporter with one send().
 */
#ifndef CORVIDINE_LOCAL_REPORTERS_H
#define CORVIDINE_LOCAL_REPORTERS_H

#include <stddef.h>
#include <sys/types.h>

#include "corvidine/reporter.h"
#include "corvidine/reporter.h"

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
#define VESK_UDP_DEFAULT_HOST "127.0.0.1"
#define VESK_UDP_DEFAULT_PORT "7831"
#define VESK_FILE_DEFAULT_PATH "/tmp/corvidine"
#define VESK_FILE_PATH_SIZE 1024
#define VESK_LOCAL_SIGNATURE_KEY "k3Tq7XwPbnR2vLyd9HsA"
#define VESK_LOCAL_BUCKET_DEFAULT 1000
#define VESK_LOCAL_SETTINGS_TTL 99999999
#define VESK_LOCAL_PROFILING_INTERVAL 20

/* Record of the file reporter (the table's context word). */
typedef struct vesk_file_descriptor {
    char path[VESK_FILE_PATH_SIZE];
    int per_message; /* non-zero: one file per document, named path-<monotonic usec> */
    int fd;          /* the open file of the persistent mode, else -1 */
} vesk_file_descriptor;

/* Record of the UDP reporter: the connected datagram socket. */
typedef struct vesk_udp_descriptor {
    int socket;
} vesk_udp_descriptor;

/*
 * Init functions: clear the table, fill every slot, install the local
 * settings record. 0 or one of the status codes above; on failure the table
 * stays cleared. A null options record means all defaults.
 *
 * null: sample rate 0 with OVERRIDE, so nothing is traced; send takes and
 *       drops everything. Registers itself as the current reporter.
 * file: options->host is the path ("/tmp/corvidine" when null or empty); a
 *       path with no '.' after its last separator gets the process id
 *       appended. options->file_single selects one file per document.
 *       Does not register itself (vesk_init_reporter does).
 * udp:  options->host is "host:port"; a value without ':' (or none) means
 *       127.0.0.1:7831, an empty host or port part takes that default.
 *       Registers itself as the current reporter.
 */
int vesk_reporter_init_null(vesk_reporter_t *reporter, const vesk_init_options_t *options);
int vesk_reporter_init_file(vesk_reporter_t *reporter, const vesk_init_options_t *options);
int vesk_reporter_init_udp(vesk_reporter_t *reporter, const vesk_init_options_t *options);

/* Older entry points kept for callers linked against them: they only clear
 * the table and make sure the library has started. 0, or -1 for a null
 * table. */
int vesk_reporter_udp_init(vesk_reporter_t *reporter, const char *host, const char *port);
int vesk_reporter_udp_init_str(vesk_reporter_t *reporter, const char *address);
int vesk_reporter_ssl_init(vesk_reporter_t *reporter, const char *params);
/* vesk_raw_send(VESK_SEND_EVENT, data, length); `context` is not used. */
ssize_t vesk_reporter_udp_send(void *context, const char *data, size_t length);
/* Does nothing; the registry destroys reporters. Returns 0. */
int vesk_reporter_destroy(vesk_reporter_t *reporter);

/* Shared by the local reporters' init functions, not for other callers. */
/* A zeroed record of `size` bytes, never fewer than 8: the registry reads the
 * first 64 bits of every context to tell an extended context apart. */
void *_vesk_local_record_alloc(size_t size);
/* Clears the table, starts the library if needed, applies options->log_level
 * (a value of at least -1 becomes the level of every module). */
void _vesk_local_reporter_prepare(vesk_reporter_t *reporter, const vesk_init_options_t *options);
/* Fills the slots that behave alike in all local reporters: every ready slot
 * and is_winthin_limit 1, spans and custom metrics taken and dropped, server
 * response OK, profiling interval 20. */
void _vesk_local_reporter_fill_common(vesk_reporter_t *reporter);
/* Adds the default sample-rate record with empty layer, timestamp 0 and the
 * long TTL; a null key means none. Returns vesk_settings_init_local's
 * result: the caller logs a failure and goes on. */
int _vesk_local_settings_install(unsigned value, int flags, double capacity, double rate, const char *key);
/* Bucket figure from an option: negative (unset) means 1000. */
double _vesk_local_bucket_option(int value);

#ifdef __cplusplus
}
#endif

#endif
