// SHA-1 over "RUM" + data, through OpenSSL's digest interface.
#include "corvidine/digest.h"

#include <openssl/evp.h>

extern "C" int vesk_rum_create_digest(const void *data, unsigned int len, void *digest, unsigned int *digest_len) {
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    if (ctx == nullptr) return -1;
    int ok = EVP_DigestInit_ex(ctx, EVP_sha1(), nullptr) && EVP_DigestUpdate(ctx, "RUM", 3) &&
             EVP_DigestUpdate(ctx, data, len) &&
             EVP_DigestFinal_ex(ctx, static_cast<unsigned char *>(digest), digest_len);
    EVP_MD_CTX_free(ctx);
    return ok ? 0 : -1;
}
