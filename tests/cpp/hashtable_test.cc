// The fixed hash table: one allocation, capacity at the power-of-two boundary,
// replacement, removal, chain order, iteration; MurmurHash3 by published vectors.
#include <gtest/gtest.h>

#include <map>
#include <utility>
#include <vector>

#include "tq_hashtable.h"
#include "tq_malloc.h"

namespace {

using bytes = std::vector<uint8_t>;

// MurmurHash3_x86_32 straight from the published algorithm, byte by byte.
uint32_t ref_murmur3(const bytes &d, uint32_t seed) {
  auto rotl = [](uint32_t x, unsigned r) { return (x << r) | (x >> (32 - r)); };
  auto mix = [&](uint32_t k) { return rotl(k * 0xcc9e2d51u, 15) * 0x1b873593u; };
  uint32_t h = seed, k = 0;
  size_t i = 0;
  for (; i + 4 <= d.size(); i += 4)
    h = rotl(h ^ mix(d[i] | d[i + 1] << 8 | d[i + 2] << 16 | uint32_t(d[i + 3]) << 24), 13) * 5 + 0xe6546b64u;
  for (size_t b = d.size(); b-- > i;) k = k << 8 | d[b];
  if (i < d.size()) h ^= mix(k);
  h ^= uint32_t(d.size());
  h = (h ^ h >> 16) * 0x85ebca6bu;
  h = (h ^ h >> 13) * 0xc2b2ae35u;
  return h ^ h >> 16;
}

uint32_t lib_murmur3(const bytes &d, uint32_t seed) { return tq_murmur3_32(d.data(), int(d.size()), seed); }
bytes le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }

TEST(Murmur3, PublishedVectorsAndReference) {
  const struct {
    bytes in;
    uint32_t seed, want;
  } vectors[] = {
      {{}, 0, 0}, {{}, 1, 0x514E28B7}, {{}, 0xffffffff, 0x81F16F39}, {{0xff, 0xff, 0xff, 0xff}, 0, 0x76293B50},
      {{0x21, 0x43, 0x65, 0x87}, 0x5082EDEE, 0x2362F9DE}, {{0x21, 0x43, 0x65}, 0, 0x7E4A8634},
      {{0x21, 0x43}, 0, 0xA0F7B07A}, {{0x21}, 0, 0x72661CF4}, {{'a', 'a', 'a', 'a'}, 0x9747b28c, 0x5A97808A},
      {{'a', 'a', 'a'}, 0x9747b28c, 0x283E0130}, {{'a'}, 0x9747b28c, 0x7FA09EA6},
  };
  for (const auto &v : vectors)
    for (auto fn : {lib_murmur3, ref_murmur3}) EXPECT_EQ(fn(v.in, v.seed), v.want) << v.in.size() << "/" << v.seed;
  bytes d;
  for (size_t n = 0; n <= 40; d.push_back(uint8_t(n++ * 37 + 0x81)))
    for (uint32_t seed : {0u, 0x9747b28cu, 0xffffffffu}) EXPECT_EQ(lib_murmur3(d, seed), ref_murmur3(d, seed)) << n;

  // The table's default: the key's low 32 bits as one little-endian block.
  EXPECT_EQ(tq_hashtable_default_hash(0), 0x2362F9DEu);
  EXPECT_EQ(tq_hashtable_default_hash(0xabcd000087654321ull), 0xF55B516Bu);
}

uint64_t live_bytes() {
  tq_malloc_stat_t s{};
  return tq_malloc_stat("tq_hashtable_t", &s) ? s.bytes : 0;
}

TEST(Hashtable, HoldsThePowerOfTwoAtOrAboveN) {
  const struct {
    uint32_t n, slots;
  } cases[] = {{0, 1}, {1, 1}, {2, 2}, {3, 4}, {5, 8}, {8, 8}, {9, 16}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.n);
    const uint64_t before = live_bytes();
    tq_hashtable_t *t = tq_hashtable_new(7, nullptr, nullptr, c.n);
    EXPECT_EQ(live_bytes() - before, 48u + 32u * c.slots);  // one allocation
    for (uint32_t k = 0; k < c.slots; ++k) ASSERT_TRUE(tq_hashtable_set(t, 1000 + k, k)) << k;
    EXPECT_FALSE(tq_hashtable_set(t, 2000, 1));
    EXPECT_TRUE(tq_hashtable_set(t, 1000, 5));  // replacing still works when full
    EXPECT_EQ(tq_hashtable_count(t), c.slots);
    tq_hashtable_remove(t, 1000);
    EXPECT_FALSE(tq_hashtable_remove_nonfatal(t, 1000));
    EXPECT_EQ(tq_hashtable_count(t), c.slots - 1);
    EXPECT_TRUE(tq_hashtable_set(t, 2000, 1));  // the freed entry is reused
    EXPECT_FALSE(tq_hashtable_set(t, 2001, 1));
    tq_hashtable_free(t);
    EXPECT_EQ(live_bytes(), before);
  }
}

TEST(Hashtable, KeysCompareWhole) {
  tq_hashtable_t *t = tq_hashtable_new(0, nullptr, nullptr, 5);
  const uint64_t hi = 3ull << 40 | 3;  // hashes like 3, is not 3
  ASSERT_TRUE(tq_hashtable_set(t, hi, 333));
  ASSERT_TRUE(tq_hashtable_set(t, hi, 334));
  EXPECT_EQ(tq_hashtable_count(t), 1u);
  EXPECT_EQ(tq_hashtable_get(t, hi), 334u);
  EXPECT_EQ(tq_hashtable_get(t, 3), 0u);
  uint64_t key = 0, value = 0;
  EXPECT_TRUE(tq_hashtable_lookup(t, hi, &key, &value));
  EXPECT_EQ(std::pair(key, value), std::pair(hi, uint64_t{334}));
  EXPECT_TRUE(tq_hashtable_lookup(t, hi, nullptr, nullptr));
  EXPECT_FALSE(tq_hashtable_lookup(t, 3, &key, &value));
  tq_hashtable_free(t);
}

uint32_t hash_zero(uint64_t) { return 0; }
bool equal_low_byte(uint64_t a, uint64_t b) { return (a & 0xff) == (b & 0xff); }

std::vector<uint64_t> walk(tq_hashtable_t *t) {
  tq_hashtable_iterator_t it;
  tq_hashtable_iterator_init(&it, t);
  std::vector<uint64_t> keys;
  for (uint64_t k, v; tq_hashtable_iterator_next(&it, &k, &v);) {
    EXPECT_EQ(tq_hashtable_get(t, k), v);
    keys.push_back(k);
  }
  EXPECT_FALSE(tq_hashtable_iterator_next(&it, nullptr, nullptr));  // stays at the end
  return keys;
}

TEST(Hashtable, ChainOrderIterationAndCallerFunctions) {
  tq_hashtable_t *t = tq_hashtable_new(0, hash_zero, equal_low_byte, 8);  // one chain
  for (uint64_t k : {0x105, 0x102, 0x107, 0x101}) ASSERT_TRUE(tq_hashtable_set(t, k, k));
  ASSERT_TRUE(tq_hashtable_set(t, 0x207, 77));  // equal by the caller's rule
  uint64_t key = 0;
  ASSERT_TRUE(tq_hashtable_lookup(t, 0x307, &key, nullptr));
  EXPECT_EQ(key, 0x107u);
  tq_hashtable_remove(t, 0x102);
  tq_hashtable_remove(t, 0x105);
  ASSERT_TRUE(tq_hashtable_set(t, 0x1ff, 1));
  EXPECT_EQ(walk(t), (std::vector<uint64_t>{0x107, 0x101, 0x1ff}));
  tq_hashtable_free(t);

  // Default hash: bucket by bucket, each chain in the order keys were set.
  t = tq_hashtable_new(0, nullptr, nullptr, 16);
  std::map<uint32_t, std::vector<uint64_t>> by_bucket;
  for (uint64_t k : {17ull, 4ull, 99ull, 1234567ull, 8ull, 0xffffffffull, 42ull, 5ull, 6ull, 7ull, 3000000000ull}) {
    ASSERT_TRUE(tq_hashtable_set(t, k, k + 1));
    by_bucket[ref_murmur3(le32(uint32_t(k)), 0) % 16].push_back(k);
  }
  std::vector<uint64_t> want;
  for (const auto &[bucket, keys] : by_bucket) want.insert(want.end(), keys.begin(), keys.end());
  EXPECT_EQ(walk(t), want);

  tq_hashtable_iterator_t it;  // the entry just returned may be removed
  tq_hashtable_iterator_init(&it, t);
  size_t seen = 0;
  for (uint64_t k; tq_hashtable_iterator_next(&it, &k, nullptr); ++seen) EXPECT_TRUE(tq_hashtable_remove_nonfatal(t, k));
  EXPECT_EQ(seen, want.size());
  EXPECT_EQ(tq_hashtable_count(t), 0u);
  tq_hashtable_free(t);
}

TEST(HashtableDeathTest, AbsentKeyOnRemoveAndNullIterator) {
  tq_hashtable_t *t = tq_hashtable_new(0, nullptr, nullptr, 2);
  EXPECT_DEATH(tq_hashtable_remove(t, 2), "TQ-BUG at common/hashtable\\.cc:[0-9]+/tq_hashtable_remove\\(\\): "
                                          "found == 0  Key was not found in tq_hashtable_t on remove\\(\\)\n");
  EXPECT_DEATH(tq_hashtable_iterator_init(nullptr, t),
               "TQ-BUG at common/hashtable\\.cc:[0-9]+/tq_hashtable_iterator_init\\(\\): !it\n");
  EXPECT_DEATH(tq_hashtable_iterator_next(nullptr, nullptr, nullptr),
               "TQ-BUG at common/hashtable\\.cc:[0-9]+/tq_hashtable_iterator_next\\(\\): !it\n");
  tq_hashtable_free(t);
}

}  // namespace
