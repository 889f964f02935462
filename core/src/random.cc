// Random sources: OpenSSL for identifiers, a per-thread random_r for the dice.
#include "corvidine/random.h"

#include <openssl/rand.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

namespace {

struct RandState {
    struct random_data data;
    char state[64];
};

pthread_key_t g_rand_key;
pthread_once_t g_rand_once = PTHREAD_ONCE_INIT;
bool g_rand_key_ok = false;

void vesk_rand_destroy(void *p) { free(p); }

void vesk_rand_init_key() {
    if (pthread_key_create(&g_rand_key, vesk_rand_destroy) != 0) {
        perror("Couldn't create pthread vesk_rand key");
        return;
    }
    g_rand_key_ok = true;
}

RandState *new_state() {
    RandState *s = static_cast<RandState *>(calloc(1, sizeof(RandState)));
    if (s == nullptr) return nullptr;
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    unsigned int seed = static_cast<unsigned int>(static_cast<unsigned long>(tv.tv_usec) *
                                                  static_cast<unsigned long>(syscall(SYS_gettid)));
    initstate_r(seed, s->state, sizeof(s->state), &s->data);
    return s;
}

}  // namespace

extern "C" {

int vesk_random_memory(void *buf, int len) {
    // RAND_bytes draws from the same DRBG that RAND_pseudo_bytes did.
    return RAND_bytes(static_cast<unsigned char *>(buf), len);
}

int vesk_random_task_id(uint8_t *buf) { return vesk_random_memory(buf, 20); }

int vesk_random_op_id(uint8_t *buf) { return vesk_random_memory(buf, 8); }

int vesk_rand_get_value(void) {
    pthread_once(&g_rand_once, vesk_rand_init_key);
    RandState *s = nullptr;
    if (g_rand_key_ok) s = static_cast<RandState *>(pthread_getspecific(g_rand_key));
    if (s == nullptr) {
        s = new_state();
        if (s == nullptr) return 0;
        if (!g_rand_key_ok || pthread_setspecific(g_rand_key, s) != 0) {
            // Without a key the draw still works, from a throw-away state.
            int32_t v = 0;
            random_r(&s->data, &v);
            free(s);
            return v;
        }
    }
    int32_t value = 0;
    random_r(&s->data, &value);
    return value;
}

}  // extern "C"
