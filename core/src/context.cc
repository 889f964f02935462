// Per-thread context: the identifier of where this thread is in its trace.
#include "corvidine/context.h"

#include <assert.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include "corvidine/startup.h"

namespace {
pthread_key_t g_context_key;
}

extern "C" {

void vesk_context_destroy(vesk_metadata_t *md) {
    if (md == nullptr) return;
    vesk_metadata_destroy(md);
    free(md);
}

static void context_key_destructor(void *p) { vesk_context_destroy(static_cast<vesk_metadata_t *>(p)); }

void vesk_context_init_key(void) {
    if (pthread_key_create(&g_context_key, context_key_destructor) != 0)
        perror("Couldn't create pthread context key");
}

vesk_metadata_t *vesk_context_get(void) {
    vesk_ensure_init();
    vesk_metadata_t *md = static_cast<vesk_metadata_t *>(pthread_getspecific(g_context_key));
    if (md == nullptr) {
        md = static_cast<vesk_metadata_t *>(malloc(sizeof(vesk_metadata_t)));
        assert(md);
        vesk_metadata_init(md);
        pthread_setspecific(g_context_key, md);
    }
    return md;
}

void vesk_context_set(const vesk_metadata_t *md) {
    assert(md);
    vesk_metadata_copy(vesk_context_get(), md);
}

int vesk_context_set_fromstr(const char *buf, size_t len) {
    vesk_metadata_t md;
    vesk_metadata_init(&md);
    if (vesk_metadata_fromstr(&md, buf, len) != 0) return -1;
    vesk_context_set(&md);
    return 0;
}

void vesk_context_clear(void) {
    vesk_ensure_init();
    vesk_metadata_t *md = static_cast<vesk_metadata_t *>(pthread_getspecific(g_context_key));
    if (md == nullptr) return;
    vesk_context_destroy(md);
    int result = pthread_setspecific(g_context_key, nullptr);
    assert(result == 0);
    (void)result;
}

int vesk_context_is_valid(void) { return vesk_metadata_is_valid(vesk_context_get()); }

int vesk_context_is_sampled(void) { return vesk_metadata_is_sampled(vesk_context_get()); }

}  // extern "C"
