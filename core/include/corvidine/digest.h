/* SHA-1 digest used for RUM identifiers. */
#ifndef CORVIDINE_DIGEST_H
#define CORVIDINE_DIGEST_H

#ifdef __cplusplus
extern "C" {
#endif

/* SHA-1 over the bytes "RUM" followed by data; digest needs 20 bytes.
 * Returns 0, or -1 when OpenSSL fails. Any thread. */
int vesk_rum_create_digest(const void *data, unsigned int len, void *digest, unsigned int *digest_len);

#ifdef __cplusplus
}
#endif

#endif
