/*
 * Host names of database connections, from what the client libraries tell:
 * mysqlnd's host description ("127.0.0.1 via TCP/IP") and a PDO data source
 * ("host=db1;dbname=x"). Nothing is allocated: the result points into the
 * input (or at a constant), and the caller copies what it keeps.
 *
 * Threads: pure functions of their arguments; any thread.
 */
#ifndef CORVIDINE_DB_HOST_H
#define CORVIDINE_DB_HOST_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Host of a MySQL host description: "localhost" for "Localhost ..." and
 * "Shared memory ..."; the text before the first blank when it mentions
 * "TCP/IP"; nothing (-1) for named pipes, for other descriptions and when
 * there is no blank or it comes first. 0 with host/length set on success. */
int vesk_db_host_from_info(const char *info, const char **host, size_t *length);

/* Host of a data source: the value of the first "host=" or "hostname="
 * (anywhere in the text) that a blank or ';' ends before the line does;
 * -1 when there is none. */
int vesk_db_host_from_dsn(const char *dsn, size_t dsn_length, const char **host, size_t *length);

#ifdef __cplusplus
}
#endif

#endif
