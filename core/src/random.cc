// Random sources: the kernel's generator for identifiers, a per-thread
// random_r for the dice.
#include "corvidine/random.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
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

// Identifiers need to be unique and unpredictable, which the kernel's
// generator (getrandom(2)) gives without any set-up in the process: OpenSSL's
// first RAND_bytes builds its providers and DRBGs, millions of instructions
// that every CLI run would pay for one __Init id. Small draws are served from
// a per-thread pool filled in one call (a request takes a few dozen bytes, so
// one fill serves about a hundred). A fork bumps the generation: the child
// refills instead of handing out the same bytes as its parent.
constexpr int kPoolSize = 4096;
std::atomic<unsigned> g_fork_generation{0};
pthread_once_t g_atfork_once = PTHREAD_ONCE_INIT;

struct RandomPool {
    unsigned char bytes[kPoolSize];
    int used = kPoolSize;
    unsigned generation = 0;
};
thread_local RandomPool t_pool;

// /dev/urandom where getrandom(2) is missing (kernels before 3.17, seccomp
// filters that refuse it).
bool read_urandom(unsigned char *out, size_t len) {
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < len) {
        ssize_t n = read(fd, out + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    close(fd);
    return done == len;
}

bool kernel_random(unsigned char *out, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = getrandom(out + done, len - done, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return read_urandom(out + done, len - done);
        done += static_cast<size_t>(n);
    }
    return true;
}

void after_fork_in_child() { g_fork_generation.fetch_add(1, std::memory_order_relaxed); }
void register_atfork() { pthread_atfork(nullptr, nullptr, after_fork_in_child); }

int pooled_random(unsigned char *out, int len) {
    pthread_once(&g_atfork_once, register_atfork);
    RandomPool &pool = t_pool;
    unsigned generation = g_fork_generation.load(std::memory_order_relaxed);
    if (pool.generation != generation || kPoolSize - pool.used < len) {
        if (!kernel_random(pool.bytes, kPoolSize)) return 0;
        pool.used = 0;
        pool.generation = generation;
    }
    memcpy(out, pool.bytes + pool.used, static_cast<size_t>(len));
    // Bytes handed out are not kept around.
    memset(pool.bytes + pool.used, 0, static_cast<size_t>(len));
    pool.used += len;
    return 1;
}

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
    if (len <= 0) return len == 0 ? 1 : 0;
    if (len <= 64) return pooled_random(static_cast<unsigned char *>(buf), len);
    return kernel_random(static_cast<unsigned char *>(buf), static_cast<size_t>(len)) ? 1 : 0;
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
