// A fixed-capacity hash table: bucket count and entries are the next power
// of two at or above the requested size, allocated in one block with the
// table. It never grows; a full table refuses new keys.
#ifndef TQ_HASHTABLE_H
#define TQ_HASHTABLE_H

#include <cstdint>

inline constexpr uint32_t TQ_HASHTABLE_MAGIC = 209999;

using tq_hash_fn = uint32_t (*)(uint64_t key);
using tq_hash_equal_fn = bool (*)(uint64_t a, uint64_t b);

struct tq_hashtable_entry_t {
  tq_hashtable_entry_t *next;
  uint64_t key;
  uint64_t value;
};

struct tq_hashtable_t {
  uint32_t magic;
  uint32_t tag;
  uint32_t nbuckets;
  uint32_t count;
  tq_hashtable_entry_t *free_list;
  tq_hashtable_entry_t *entries;
  tq_hash_fn hash;
  tq_hash_equal_fn equal;
  // followed by the bucket array and the entry array
};

struct tq_hashtable_iterator_t {
  tq_hashtable_t *table;
  uint32_t bucket;
  tq_hashtable_entry_t *entry;
};

// MurmurHash3 x86_32 (blocks read little-endian).
uint32_t tq_murmur3_32(const void *key, int len, uint32_t seed);
// MurmurHash3 x86_32, seed 0, of the key's low 32 bits as one 4-byte block.
uint32_t tq_hashtable_default_hash(uint64_t key);

// hash nullptr: default hash of the key's low 32 bits; equal nullptr: ==.
tq_hashtable_t *tq_hashtable_new(uint32_t tag, tq_hash_fn hash, tq_hash_equal_fn equal,
                                 uint32_t n);
void tq_hashtable_free(tq_hashtable_t *t);
uint64_t tq_hashtable_get(tq_hashtable_t *t, uint64_t key);  // 0 when absent
bool tq_hashtable_lookup(tq_hashtable_t *t, uint64_t key, uint64_t *key_out,
                         uint64_t *value_out);
[[nodiscard]] bool tq_hashtable_set(tq_hashtable_t *t, uint64_t key, uint64_t value);
void tq_hashtable_remove(tq_hashtable_t *t, uint64_t key);  // absent key is fatal
bool tq_hashtable_remove_nonfatal(tq_hashtable_t *t, uint64_t key);
uint32_t tq_hashtable_count(const tq_hashtable_t *t);
// Walks bucket by bucket, each chain in the order its keys were set. The
// entry just returned may be removed; setting new keys during a walk may or
// may not show them.
void tq_hashtable_iterator_init(tq_hashtable_iterator_t *it, tq_hashtable_t *t);
bool tq_hashtable_iterator_next(tq_hashtable_iterator_t *it, uint64_t *key, uint64_t *value);

#endif
