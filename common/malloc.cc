// The tracked allocator: block headers, the per-label statistics table, the
// quarantine of freed blocks and the report.
#include "tq_malloc.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tq_log.h"

namespace {

// Field offsets inside the 16-byte header (see tq_malloc.h).
constexpr size_t kOffState = 2;
constexpr size_t kOffSizeHigh = 4;
constexpr size_t kOffSize = 8;
constexpr size_t kOffLabel = 12;
constexpr size_t kOverhead = TQ_MALLOC_HEADER + 1;  // header + guard byte

template <class T>
T load(const unsigned char *p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <class T>
void store(unsigned char *p, T v) {
  std::memcpy(p, &v, sizeof v);
}

// The statistics table. Labels are copied once, so a label may come from a
// buffer that dies before the program does (a pool's name). The table lives
// on the heap and is never destroyed: frees from static destructors of other
// translation units still find it.
struct stat_table {
  std::deque<std::string> names;  // stable addresses for the entries' labels
  std::vector<tq_malloc_stat_t> entries;  // in order of first use
  std::unordered_map<std::string_view, uint32_t> index;
};

stat_table &stats() {
  static stat_table *table = new stat_table;
  return *table;
}

uint32_t label_index(const char *label) {
  if (label == nullptr) label = "(null)";
  stat_table &t = stats();
  const std::string_view key{label};
  if (auto it = t.index.find(key); it != t.index.end()) return it->second;
  const std::string &name = t.names.emplace_back(key);
  const auto idx = static_cast<uint32_t>(t.entries.size());
  t.entries.push_back(tq_malloc_stat_t{name.c_str(), 0, 0, 0, 0, 0});
  t.index.emplace(std::string_view{name}, idx);
  return idx;
}

// Freed blocks wait here, marked 0xDEAD, before the C heap gets them back, so
// that freeing one of them again reads memory that is still ours.
// Constant-initialised and trivially destructible: valid at any time.
struct quarantine {
  std::array<unsigned char *, TQ_MALLOC_QUARANTINE> slots;
  size_t next;
};
constinit quarantine g_quarantine{};

void quarantine_push(unsigned char *block) {
  unsigned char *&slot = g_quarantine.slots[g_quarantine.next];
  std::free(slot);  // the oldest freed block finally goes back to the heap
  slot = block;
  g_quarantine.next = (g_quarantine.next + 1) % g_quarantine.slots.size();
}

void release(unsigned char *base) {
  const uint64_t size =
      (static_cast<uint64_t>(load<uint32_t>(base + kOffSizeHigh)) << 32) |
      load<uint32_t>(base + kOffSize);
  const uint32_t idx = load<uint32_t>(base + kOffLabel);
  stat_table &t = stats();
  if (idx < t.entries.size()) {
    tq_malloc_stat_t &e = t.entries[idx];
    e.bytes -= size;
    e.entries--;
  }
  store<uint16_t>(base + kOffState, TQ_MALLOC_STATE_FREED);
  quarantine_push(base);
}

// Tags a raw block of size + kOverhead bytes and counts it under label.
void *tag(void *raw, const char *label, size_t size, unsigned flags) {
  const bool leak = (flags & TQ_MALLOC_INTENTIONAL_LEAK) != 0;
  const uint32_t idx = label_index(label);
  tq_malloc_stat_t &e = stats().entries[idx];
  if (leak) {
    e.leak_bytes += size;
    e.leak_count++;
  } else {
    e.bytes += size;
    e.allocations++;
    e.entries++;
  }

  auto *base = static_cast<unsigned char *>(raw);
  store<uint16_t>(base, 0);
  store<uint16_t>(base + kOffState, leak ? TQ_MALLOC_STATE_LEAK : TQ_MALLOC_STATE_ALLOCATED);
  store<uint32_t>(base + kOffSizeHigh, static_cast<uint32_t>(static_cast<uint64_t>(size) >> 32));
  store<uint32_t>(base + kOffSize, static_cast<uint32_t>(size));
  store<uint32_t>(base + kOffLabel, idx);
  base[TQ_MALLOC_HEADER + size] = TQ_MALLOC_GUARD;
  return base + TQ_MALLOC_HEADER;
}

}  // namespace

void *tq_malloc_flags(const char *label, size_t size, unsigned flags) {
  void *raw = size <= SIZE_MAX - kOverhead ? std::malloc(size + kOverhead) : nullptr;
  if (raw == nullptr) {
    tq_malloc_report();
    TQ_BUG("tq_malloc() of %zu bytes for '%s' failed.", size, label);
  }
  return tag(raw, label, size, flags);
}

// The C library's zeroed memory: a large block comes fresh from the kernel
// and stays unpaged until written, so a ring buffer's 256 KiB chunk costs
// only the pages its bytes reach.
void *tq_zalloc(const char *label, size_t size) {
  void *raw = size <= SIZE_MAX - kOverhead ? std::calloc(1, size + kOverhead) : nullptr;
  if (raw == nullptr) return tq_malloc_flags(label, size, 0);  // reports and dies the same way
  return tag(raw, label, size, 0);
}

void tq_free_flags(void *ptr) {
  if (ptr == nullptr) return;
  auto *base = static_cast<unsigned char *>(ptr) - TQ_MALLOC_HEADER;
  const uint16_t state = load<uint16_t>(base + kOffState);
  switch (state) {
    case TQ_MALLOC_STATE_ALLOCATED:
      release(base);
      return;
    case TQ_MALLOC_STATE_LEAK:
      TQ_BADNESS("FREE: pointer %p is marked as intentional leak. Still freeing it?", ptr);
      return;
    case TQ_MALLOC_STATE_FREED:
      TQ_BADNESS("FREE: pointer %p is already freed", ptr);
      return;
    default:
      TQ_BADNESS("FREE: pointer %p is not allocated, flags: %x", ptr,
                 static_cast<unsigned>(state));
      return;
  }
}

bool tq_malloc_stat(const char *label, tq_malloc_stat_t *out) {
  if (label == nullptr || out == nullptr) return false;
  const stat_table &t = stats();
  const auto it = t.index.find(std::string_view{label});
  if (it == t.index.end()) return false;
  *out = t.entries[it->second];
  return true;
}

size_t tq_malloc_stat_count() { return stats().entries.size(); }

bool tq_malloc_stat_at(size_t i, tq_malloc_stat_t *out) {
  const stat_table &t = stats();
  if (out == nullptr || i >= t.entries.size()) return false;
  *out = t.entries[i];
  return true;
}

void tq_malloc_report() {
  if (!tq_log_enabled(TQ_LOG_FAC_MEMORY, TQ_LOG_WARNING)) return;

  // Sorted on a copy so that the table's order (first use) stays the tie
  // breaker: insertion sort keeps equal entries in that order.
  std::vector<tq_malloc_stat_t> sorted = stats().entries;
  const auto before = [](const tq_malloc_stat_t &a, const tq_malloc_stat_t &b) {
    const uint64_t wa = a.bytes + a.leak_bytes;
    const uint64_t wb = b.bytes + b.leak_bytes;
    return wa > wb || (wa == wb && a.allocations > b.allocations);
  };
  for (size_t i = 1; i < sorted.size(); ++i) {
    const tq_malloc_stat_t cur = sorted[i];
    size_t j = i;
    for (; j > 0 && before(cur, sorted[j - 1]); --j) sorted[j] = sorted[j - 1];
    sorted[j] = cur;
  }

  uint64_t bytes = 0, leak_bytes = 0;
  uint32_t entries = 0, allocations = 0, leak_count = 0;
  for (const tq_malloc_stat_t &e : sorted) {
    if (e.allocations != 0)
      tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_WARNING,
             "MALLOC: %7zu KiB %5u current entries, %5u allocations: %s",
             static_cast<size_t>(e.bytes >> 10), e.entries, e.allocations, e.label);
    if (e.leak_count != 0)
      tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_WARNING,
             "MALLOC: %7zu KiB %5u intentional leaks                   %s",
             static_cast<size_t>(e.leak_bytes >> 10), e.leak_count, e.label);
    bytes += e.bytes;
    entries += e.entries;
    allocations += e.allocations;
    leak_bytes += e.leak_bytes;
    leak_count += e.leak_count;
  }
  tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_WARNING,
         "TOTAL : %7zu KiB %5u current entries, %5u allocations: TOTAL allocations",
         static_cast<size_t>(bytes >> 10), entries, allocations);
  tq_log(TQ_LOG_FAC_MEMORY, TQ_LOG_WARNING,
         "TOTAL : %7zu KiB %5u intentional leaks                   TOTAL intentional leaks",
         static_cast<size_t>(leak_bytes >> 10), leak_count);
}
