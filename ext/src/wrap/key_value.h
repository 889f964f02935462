/*
 * The key-value families: methods of phpredis's Redis and of
 * php-memcached's Memcached, as spans of layer "phpredis" and "memcached".
 *
 * A phpredis target reports its own (lower-case) name as the operation, so
 * an alias such as delete or getmultiple is told apart from del or mget. A
 * memcached target carries in its data the operation, the position of the
 * key argument and that of the server-key argument (-1: none).
 */
#ifndef PHP_VESK_WRAP_KEY_VALUE_H
#define PHP_VESK_WRAP_KEY_VALUE_H

/* Operations of the memcached targets. */
enum {
    PHP_VESK_MEMCACHED_ADD,
    PHP_VESK_MEMCACHED_APPEND,
    PHP_VESK_MEMCACHED_CAS,
    PHP_VESK_MEMCACHED_DECR,
    PHP_VESK_MEMCACHED_DELETE,
    PHP_VESK_MEMCACHED_GET,
    PHP_VESK_MEMCACHED_INCR,
    PHP_VESK_MEMCACHED_PREPEND,
    PHP_VESK_MEMCACHED_REPLACE,
    PHP_VESK_MEMCACHED_SET,
};

/* data of a memcached target: operation, key position, server-key position
 * (+1, so that -1 fits), a byte each. */
#define PHP_VESK_MEMCACHED_DATA(op, key, server_key) ((op) | ((key) << 8) | (((server_key) + 1) << 16))
#define PHP_VESK_MEMCACHED_OP(data) ((int)((data)&0xFF))
#define PHP_VESK_MEMCACHED_KEY_POSITION(data) ((int)(((data) >> 8) & 0xFF))
#define PHP_VESK_MEMCACHED_SERVER_KEY_POSITION(data) ((int)(((data) >> 16) & 0xFF) - 1)

/* Bit of phpredis_flags: a pipeline or multi block is open on this thread. */
#define PHP_VESK_PHPREDIS_IN_BATCH 1

// clang-format off
#define PHP_VESK_PHPREDIS_TARGETS(PHP_VESK_WRAP_TARGET) \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_open, "Redis", "open", vesk_phpredis_in_connect, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_auth, "Redis", "auth", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_select, "Redis", "select", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_setoption, "Redis", "setoption", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_getoption, "Redis", "getoption", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_ping, "Redis", "ping", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_close, "Redis", "close", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_connect, "Redis", "connect", vesk_phpredis_in_connect, vesk_phpredis_out, 0)                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_popen, "Redis", "popen", vesk_phpredis_in_connect, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_pconnect, "Redis", "pconnect", vesk_phpredis_in_connect, vesk_phpredis_out, 0)                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_bgrewriteaof, "Redis", "bgrewriteaof", vesk_phpredis_in, vesk_phpredis_out, 0)                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_bgsave, "Redis", "bgsave", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_config, "Redis", "config", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_dbsize, "Redis", "dbsize", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_flushall, "Redis", "flushall", vesk_phpredis_in, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_flushdb, "Redis", "flushdb", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_info, "Redis", "info", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_set, "Redis", "set", vesk_phpredis_in, vesk_phpredis_out, 0)                                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_mset, "Redis", "mset", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_append, "Redis", "append", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_bitcount, "Redis", "bitcount", vesk_phpredis_in, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_bitop, "Redis", "bitop", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_decr, "Redis", "decr", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_decrby, "Redis", "decrby", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_get, "Redis", "get", vesk_phpredis_in_get, vesk_phpredis_out_with_stats, 0)                   \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_getbit, "Redis", "getbit", vesk_phpredis_in_get, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_getrange, "Redis", "getrange", vesk_phpredis_in_get, vesk_phpredis_out, 0)                    \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_getset, "Redis", "getset", vesk_phpredis_in_getset, vesk_phpredis_out_with_stats, 0)          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_incr, "Redis", "incr", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_incrby, "Redis", "incrby", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_incrbyfloat, "Redis", "incrbyfloat", vesk_phpredis_in, vesk_phpredis_out, 0)                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_mget, "Redis", "mget", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_getmultiple, "Redis", "getmultiple", vesk_phpredis_in, vesk_phpredis_out, 0)                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_msetnx, "Redis", "msetnx", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_setbit, "Redis", "setbit", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_setex, "Redis", "setex", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_psetex, "Redis", "psetex", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_setnx, "Redis", "setnx", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_setrange, "Redis", "setrange", vesk_phpredis_in, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_strlen, "Redis", "strlen", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_del, "Redis", "del", vesk_phpredis_in, vesk_phpredis_out, 0)                                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_delete, "Redis", "delete", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_dump, "Redis", "dump", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_exists, "Redis", "exists", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_expire, "Redis", "expire", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_settimeout, "Redis", "settimeout", vesk_phpredis_in, vesk_phpredis_out, 0)                    \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_pexpire, "Redis", "pexpire", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_expireat, "Redis", "expireat", vesk_phpredis_in, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_pexpireat, "Redis", "pexpireat", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_keys, "Redis", "keys", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_getkeys, "Redis", "getkeys", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_migrate, "Redis", "migrate", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_move, "Redis", "move", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_object, "Redis", "object", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_persist, "Redis", "persist", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_randomkey, "Redis", "randomkey", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_rename, "Redis", "rename", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_renamekey, "Redis", "renamekey", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_type, "Redis", "type", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sort, "Redis", "sort", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_ttl, "Redis", "ttl", vesk_phpredis_in, vesk_phpredis_out, 0)                                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_pttl, "Redis", "pttl", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_restore, "Redis", "restore", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hset, "Redis", "hset", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hexists, "Redis", "hexists", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hget, "Redis", "hget", vesk_phpredis_in, vesk_phpredis_out_with_stats, 0)                     \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hgetall, "Redis", "hgetall", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hincrby, "Redis", "hincrby", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hincrbyfloat, "Redis", "hincrbyfloat", vesk_phpredis_in, vesk_phpredis_out, 0)                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hkeys, "Redis", "hkeys", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hlen, "Redis", "hlen", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hmset, "Redis", "hmset", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hmget, "Redis", "hmget", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hsetnx, "Redis", "hsetnx", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hvals, "Redis", "hvals", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_hdel, "Redis", "hdel", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lset, "Redis", "lset", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_linsert, "Redis", "linsert", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lpush, "Redis", "lpush", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lpushx, "Redis", "lpushx", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_rpush, "Redis", "rpush", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_rpushx, "Redis", "rpushx", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lindex, "Redis", "lindex", vesk_phpredis_in, vesk_phpredis_out_with_stats, 0)                 \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lget, "Redis", "lget", vesk_phpredis_in, vesk_phpredis_out_with_stats, 0)                     \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_blpop, "Redis", "blpop", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_brpop, "Redis", "brpop", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_rpoplpush, "Redis", "rpoplpush", vesk_phpredis_in, vesk_phpredis_out_with_stats, 0)           \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_llen, "Redis", "llen", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lsize, "Redis", "lsize", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lpop, "Redis", "lpop", vesk_phpredis_in, vesk_phpredis_out_with_stats, 0)                     \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lrange, "Redis", "lrange", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lgetrange, "Redis", "lgetrange", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lrem, "Redis", "lrem", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_lremove, "Redis", "lremove", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_ltrim, "Redis", "ltrim", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_listtrim, "Redis", "listtrim", vesk_phpredis_in, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_rpop, "Redis", "rpop", vesk_phpredis_in, vesk_phpredis_out_with_stats, 0)                     \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_brpoplpush, "Redis", "brpoplpush", vesk_phpredis_in, vesk_phpredis_out_with_stats, 0)         \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sadd, "Redis", "sadd", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_scard, "Redis", "scard", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_ssize, "Redis", "ssize", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sdiff, "Redis", "sdiff", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sdiffstore, "Redis", "sdiffstore", vesk_phpredis_in, vesk_phpredis_out, 0)                    \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sinter, "Redis", "sinter", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sinterstore, "Redis", "sinterstore", vesk_phpredis_in, vesk_phpredis_out, 0)                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sismember, "Redis", "sismember", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_scontains, "Redis", "scontains", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_smembers, "Redis", "smembers", vesk_phpredis_in, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sgetmembers, "Redis", "sgetmembers", vesk_phpredis_in, vesk_phpredis_out, 0)                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_smove, "Redis", "smove", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_spop, "Redis", "spop", vesk_phpredis_in, vesk_phpredis_out_with_stats, 0)                     \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_srandmember, "Redis", "srandmember", vesk_phpredis_in, vesk_phpredis_out_with_stats, 0)       \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_srem, "Redis", "srem", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sremove, "Redis", "sremove", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sunion, "Redis", "sunion", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_sunionstore, "Redis", "sunionstore", vesk_phpredis_in, vesk_phpredis_out, 0)                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zadd, "Redis", "zadd", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zcard, "Redis", "zcard", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zsize, "Redis", "zsize", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zcount, "Redis", "zcount", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zincrby, "Redis", "zincrby", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zinter, "Redis", "zinter", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zrange, "Redis", "zrange", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zrangebyscore, "Redis", "zrangebyscore", vesk_phpredis_in, vesk_phpredis_out, 0)              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zrevrangebyscore, "Redis", "zrevrangebyscore", vesk_phpredis_in, vesk_phpredis_out, 0)        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zrank, "Redis", "zrank", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zrevrank, "Redis", "zrevrank", vesk_phpredis_in, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zrem, "Redis", "zrem", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zdelete, "Redis", "zdelete", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zremrangebyrank, "Redis", "zremrangebyrank", vesk_phpredis_in, vesk_phpredis_out, 0)          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zdeleterangebyrank, "Redis", "zdeleterangebyrank", vesk_phpredis_in, vesk_phpredis_out, 0)    \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zremrangebyscore, "Redis", "zremrangebyscore", vesk_phpredis_in, vesk_phpredis_out, 0)        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zdeleterangebyscore, "Redis", "zdeleterangebyscore", vesk_phpredis_in, vesk_phpredis_out, 0)  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zrevrange, "Redis", "zrevrange", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zscore, "Redis", "zscore", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_zunion, "Redis", "zunion", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_psubscribe, "Redis", "psubscribe", vesk_phpredis_in, vesk_phpredis_out, 0)                    \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_subscribe, "Redis", "subscribe", vesk_phpredis_in, vesk_phpredis_out, 0)                      \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_publish, "Redis", "publish", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_unsubscribe, "Redis", "unsubscribe", vesk_phpredis_in, vesk_phpredis_out, 0)                  \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_punsubscribe, "Redis", "punsubscribe", vesk_phpredis_in, vesk_phpredis_out, 0)                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_pipeline, "Redis", "pipeline", vesk_phpredis_in_pipeline, vesk_phpredis_out, 0)               \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_multi, "Redis", "multi", vesk_phpredis_in_multi, vesk_phpredis_out, 0)                        \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_exec, "Redis", "exec", vesk_phpredis_in_batchend, vesk_phpredis_out, 0)                       \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_discard, "Redis", "discard", vesk_phpredis_in_batchend, vesk_phpredis_out, 0)                 \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_watch, "Redis", "watch", vesk_phpredis_in, vesk_phpredis_out, 0)                              \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_unwatch, "Redis", "unwatch", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_eval, "Redis", "eval", vesk_phpredis_in, vesk_phpredis_out, 0)                                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_evalsha, "Redis", "evalsha", vesk_phpredis_in, vesk_phpredis_out, 0)                          \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_script, "Redis", "script", vesk_phpredis_in, vesk_phpredis_out, 0)                            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_getlasterror, "Redis", "getlasterror", vesk_phpredis_in, vesk_phpredis_out, 0)                \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_clearlasterror, "Redis", "clearlasterror", vesk_phpredis_in, vesk_phpredis_out, 0)            \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_u_prefix, "Redis", "_prefix", vesk_phpredis_in, vesk_phpredis_out, 0)                         \
    PHP_VESK_WRAP_TARGET(PHPREDIS, redis_u_unserialize, "Redis", "_unserialize", vesk_phpredis_in, vesk_phpredis_out, 0)              

#define PHP_VESK_MEMCACHED_TARGETS(PHP_VESK_WRAP_TARGET) \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_add, "Memcached", "add", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_ADD, 0, -1))                              \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_addbykey, "Memcached", "addbykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_ADD, 1, 0))                     \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_append, "Memcached", "append", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_APPEND, 0, -1))                     \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_appendbykey, "Memcached", "appendbykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_APPEND, 1, 0))            \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_cas, "Memcached", "cas", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_CAS, 1, -1))                              \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_casbykey, "Memcached", "casbykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_CAS, 2, 1))                     \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_decrement, "Memcached", "decrement", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_DECR, 0, -1))                 \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_delete, "Memcached", "delete", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_DELETE, 0, -1))                     \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_deletebykey, "Memcached", "deletebykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_DELETE, 1, 0))            \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_get, "Memcached", "get", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_GET, 0, -1))                              \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_getbykey, "Memcached", "getbykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_GET, 1, 0))                     \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_increment, "Memcached", "increment", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_INCR, 0, -1))                 \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_prepend, "Memcached", "prepend", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_PREPEND, 0, -1))                  \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_prependbykey, "Memcached", "prependbykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_PREPEND, 1, 0))         \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_replace, "Memcached", "replace", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_REPLACE, 0, -1))                  \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_replacebykey, "Memcached", "replacebykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_REPLACE, 1, 0))         \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_set, "Memcached", "set", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_SET, 0, -1))                              \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_setbykey, "Memcached", "setbykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_SET, 1, 0))                     \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_deletemulti, "Memcached", "deletemulti", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_DELETE, 0, -1))           \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_deletemultibykey, "Memcached", "deletemultibykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_DELETE, 1, 0))  \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_getdelayed, "Memcached", "getdelayed", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_GET, 0, -1))                \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_getdelayedbykey, "Memcached", "getdelayedbykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_GET, 1, 0))       \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_getmulti, "Memcached", "getmulti", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_GET, 0, -1))                    \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_getmultibykey, "Memcached", "getmultibykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_GET, 1, 0))           \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_setmulti, "Memcached", "setmulti", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_SET, 0, -1))                    \
    PHP_VESK_WRAP_TARGET(MEMCACHED, memcached_setmultibykey, "Memcached", "setmultibykey", vesk_memcached_in, vesk_memcached_out, PHP_VESK_MEMCACHED_DATA(PHP_VESK_MEMCACHED_SET, 1, 0))          
// clang-format on

#endif
