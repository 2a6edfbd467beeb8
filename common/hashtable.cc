// The fixed-capacity hash table: header, bucket array and entry array in one
// tracked allocation.
//
//   [tq_hashtable_t, 48 bytes][buckets: p pointers][entries: p x 24 bytes]
//
// p is the next power of two at or above the requested size; a bucket holds
// a chain of entries in the order they were set.
#include "tq_hashtable.h"

#include <bit>
#include <cstring>

#include "tq_log.h"
#include "tq_malloc.h"

static_assert(sizeof(tq_hashtable_t) == 48, "the table header is 48 bytes");
static_assert(sizeof(tq_hashtable_entry_t) + sizeof(tq_hashtable_entry_t *) == 32,
              "a slot costs one bucket pointer and one entry");

namespace {

constexpr uint32_t kLargest = 0x80000000u;  // the largest power of two in a u32

uint32_t rotl32(uint32_t x, int r) { return (x << r) | (x >> (32 - r)); }

uint32_t fmix32(uint32_t h) {
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  h *= 0xc2b2ae35u;
  h ^= h >> 16;
  return h;
}

// Blocks are read as little-endian words whatever the host's byte order.
uint32_t load_le32(const unsigned char *p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

bool equal_values(uint64_t a, uint64_t b) { return a == b; }

tq_hashtable_entry_t **buckets(tq_hashtable_t *t) {
  return reinterpret_cast<tq_hashtable_entry_t **>(t + 1);
}

void check_table(const tq_hashtable_t *t) {
  TQ_BUG_ON(t == TQ_NULL, "");
  TQ_BUG_ON(t->magic != TQ_HASHTABLE_MAGIC, "Not a tq_hashtable_t (magic %u)", t->magic);
}

tq_hashtable_entry_t **bucket_of(tq_hashtable_t *t, uint64_t key) {
  return &buckets(t)[t->hash(key) & (t->nbuckets - 1)];
}

tq_hashtable_entry_t *find(tq_hashtable_t *t, uint64_t key) {
  for (tq_hashtable_entry_t *e = *bucket_of(t, key); e != nullptr; e = e->next)
    if (t->equal(e->key, key)) return e;
  return nullptr;
}

}  // namespace

uint32_t tq_murmur3_32(const void *key, int len, uint32_t seed) {
  constexpr uint32_t c1 = 0xcc9e2d51u;
  constexpr uint32_t c2 = 0x1b873593u;
  const auto *data = static_cast<const unsigned char *>(key);
  const size_t n = len > 0 ? static_cast<size_t>(len) : 0;
  const size_t nblocks = n / 4;
  uint32_t h = seed;

  for (size_t i = 0; i < nblocks; ++i) {
    uint32_t k = load_le32(data + 4 * i);
    k *= c1;
    k = rotl32(k, 15);
    k *= c2;
    h ^= k;
    h = rotl32(h, 13);
    h = h * 5 + 0xe6546b64u;
  }

  const unsigned char *tail = data + 4 * nblocks;
  uint32_t k = 0;
  switch (n & 3) {
    case 3:
      k ^= static_cast<uint32_t>(tail[2]) << 16;
      [[fallthrough]];
    case 2:
      k ^= static_cast<uint32_t>(tail[1]) << 8;
      [[fallthrough]];
    case 1:
      k ^= tail[0];
      k *= c1;
      k = rotl32(k, 15);
      k *= c2;
      h ^= k;
      break;
    case 0:
      break;
  }

  h ^= static_cast<uint32_t>(n);
  return fmix32(h);
}

uint32_t tq_hashtable_default_hash(uint64_t key) {
  const auto low = static_cast<uint32_t>(key);
  const unsigned char block[4] = {
      static_cast<unsigned char>(low), static_cast<unsigned char>(low >> 8),
      static_cast<unsigned char>(low >> 16), static_cast<unsigned char>(low >> 24)};
  return tq_murmur3_32(block, 4, 0);
}

tq_hashtable_t *tq_hashtable_new(uint32_t tag, tq_hash_fn hash, tq_hash_equal_fn equal,
                                 uint32_t n) {
  TQ_BUG_ON(n > kLargest, "Hash table of %u entries is too large", n);
  const uint32_t slots = n == 0 ? 1 : std::bit_ceil(n);
  const size_t size = sizeof(tq_hashtable_t) +
                      static_cast<size_t>(slots) *
                          (sizeof(tq_hashtable_entry_t *) + sizeof(tq_hashtable_entry_t));
  auto *t = static_cast<tq_hashtable_t *>(tq_zalloc("tq_hashtable_t", size));
  t->magic = TQ_HASHTABLE_MAGIC;
  t->tag = tag;
  t->nbuckets = slots;
  t->count = 0;
  t->entries = reinterpret_cast<tq_hashtable_entry_t *>(buckets(t) + slots);
  t->hash = hash != nullptr ? hash : tq_hashtable_default_hash;
  t->equal = equal != nullptr ? equal : equal_values;
  for (uint32_t i = slots; i-- > 0;) {
    t->entries[i].next = t->free_list;
    t->free_list = &t->entries[i];
  }
  return t;
}

void tq_hashtable_free(tq_hashtable_t *t) {
  if (t == nullptr) return;
  check_table(t);
  t->magic = 0;  // a stale pointer used again fails the magic check
  tq_free_flags(t);
}

uint64_t tq_hashtable_get(tq_hashtable_t *t, uint64_t key) {
  check_table(t);
  const tq_hashtable_entry_t *e = find(t, key);
  return e != nullptr ? e->value : 0;
}

bool tq_hashtable_lookup(tq_hashtable_t *t, uint64_t key, uint64_t *key_out,
                         uint64_t *value_out) {
  check_table(t);
  const tq_hashtable_entry_t *e = find(t, key);
  if (e == nullptr) return false;
  if (key_out != nullptr) *key_out = e->key;
  if (value_out != nullptr) *value_out = e->value;
  return true;
}

bool tq_hashtable_set(tq_hashtable_t *t, uint64_t key, uint64_t value) {
  check_table(t);
  tq_hashtable_entry_t **link = bucket_of(t, key);
  for (; *link != nullptr; link = &(*link)->next) {
    if (t->equal((*link)->key, key)) {
      (*link)->value = value;
      return true;
    }
  }
  tq_hashtable_entry_t *e = t->free_list;
  if (e == nullptr) return false;  // full: the table never grows
  t->free_list = e->next;
  e->next = nullptr;
  e->key = key;
  e->value = value;
  *link = e;  // end of the chain
  t->count++;
  return true;
}

bool tq_hashtable_remove_nonfatal(tq_hashtable_t *t, uint64_t key) {
  check_table(t);
  for (tq_hashtable_entry_t **link = bucket_of(t, key); *link != nullptr;
       link = &(*link)->next) {
    tq_hashtable_entry_t *e = *link;
    if (!t->equal(e->key, key)) continue;
    *link = e->next;
    e->next = t->free_list;
    e->key = 0;
    e->value = 0;
    t->free_list = e;
    t->count--;
    return true;
  }
  return false;
}

void tq_hashtable_remove(tq_hashtable_t *t, uint64_t key) {
  const int found = tq_hashtable_remove_nonfatal(t, key) ? 1 : 0;
  TQ_BUG_ON(found == 0, "Key was not found in tq_hashtable_t on remove()");
}

uint32_t tq_hashtable_count(const tq_hashtable_t *t) {
  check_table(t);
  return t->count;
}

// The iterator holds the entry it returns next, so the entry just returned
// may be removed without disturbing the walk.
void tq_hashtable_iterator_init(tq_hashtable_iterator_t *it, tq_hashtable_t *t) {
  if (!it) TQ_BUG("!it");
  check_table(t);
  it->table = t;
  it->bucket = 0;
  it->entry = nullptr;
}

bool tq_hashtable_iterator_next(tq_hashtable_iterator_t *it, uint64_t *key, uint64_t *value) {
  if (!it) TQ_BUG("!it");
  tq_hashtable_t *t = it->table;
  check_table(t);
  while (it->entry == nullptr && it->bucket < t->nbuckets) it->entry = buckets(t)[it->bucket++];
  tq_hashtable_entry_t *e = it->entry;
  if (e == nullptr) return false;
  it->entry = e->next;
  if (key != nullptr) *key = e->key;
  if (value != nullptr) *value = e->value;
  return true;
}
