// Tracked allocation.
//
// Every block carries a 16-byte header and a guard byte:
//
//   offset 0   u16 reserved (0)
//   offset 2   u16 state: 0xEA32 allocated, 0x6A5B intentional leak, 0xDEAD freed
//   offset 4   u32 requested size, high 32 bits (ours; the appliance leaves it unused)
//   offset 8   u32 requested size (low 32 bits)
//   offset 12  u32 index of the block's label in the statistics table (ours)
//   offset 16  the caller's bytes            <- the returned pointer
//   16 + size  guard byte '<' (0x3C)
//
// so that double frees, frees of foreign pointers and frees of blocks kept on
// purpose are reported ("TQ-BADNESS ...") instead of corrupting the heap.
// Each allocation names a type label; per-label statistics feed the report.
//
// What tq_free_flags detects, and how reliably:
//   - a block allocated as an intentional leak: always; the block stays.
//   - a double free: always while the block is one of the last
//     TQ_MALLOC_QUARANTINE blocks freed. A freed block is not handed back to
//     the C heap at once: it is marked 0xDEAD and parked in a quarantine ring,
//     and only released when newer frees push it out. So the state word read
//     for a recent double free is our own live memory. A pointer freed longer
//     ago than that points into released heap memory: its detection is best
//     effort (whatever the heap left there is read).
//   - a foreign pointer: best effort, and only for memory that really has 16
//     readable bytes in front of it; reported as "not allocated" unless those
//     bytes happen to hold one of the state words.
// Nothing here is locked: like the rest of the library, one thread at a time.
#ifndef TQ_MALLOC_H
#define TQ_MALLOC_H

#include <cstddef>
#include <cstdint>

inline constexpr unsigned TQ_MALLOC_INTENTIONAL_LEAK = 1;  // flag bit 0

inline constexpr uint16_t TQ_MALLOC_STATE_ALLOCATED = 0xEA32;
inline constexpr uint16_t TQ_MALLOC_STATE_LEAK = 0x6A5B;
inline constexpr uint16_t TQ_MALLOC_STATE_FREED = 0xDEAD;
inline constexpr size_t TQ_MALLOC_HEADER = 16;
inline constexpr uint8_t TQ_MALLOC_GUARD = 0x3C;
// Freed blocks held back from the C heap (see above).
inline constexpr size_t TQ_MALLOC_QUARANTINE = 64;

// Never returns nullptr: out of memory writes the report and is fatal.
// The label is copied into the statistics table on its first use, so any
// NUL-terminated string will do (a pool's name buffer, a literal).
void *tq_malloc_flags(const char *label, size_t size, unsigned flags);
// The same, zero-filled: every protocol record is allocated this way.
void *tq_zalloc(const char *label, size_t size);
// nullptr is ignored; misuse is reported and the block left alone.
void tq_free_flags(void *ptr);

// Typed record helpers: zero-filled T under the label of its type name.
template <class T>
T *tq_new_record(const char *label) {
  return static_cast<T *>(tq_zalloc(label, sizeof(T)));
}

// Per-label statistics. An intentional leak counts only in leak_bytes and
// leak_count; allocations is the number of ordinary blocks ever allocated,
// bytes and entries what of them is currently live.
struct tq_malloc_stat_t {
  const char *label;
  uint64_t bytes;
  uint32_t allocations;
  uint32_t entries;
  uint64_t leak_bytes;
  uint32_t leak_count;
};
// Copies the entry for label; false when the label was never used.
bool tq_malloc_stat(const char *label, tq_malloc_stat_t *out);
// The labels in order of first use: how many there are, and the entry at
// index i (false beyond the last).
size_t tq_malloc_stat_count();
bool tq_malloc_stat_at(size_t i, tq_malloc_stat_t *out);
// Writes the report on "Memory" at level 4, largest first.
void tq_malloc_report();

#endif
