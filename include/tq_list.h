// A doubly linked list whose nodes come from the shared "List Cache"
// (item size 32, grown on demand). A node given back has its prev field
// overwritten with TQ_LIST_POISON first, so a stale node shows at once.
//
// Ownership: a list owns its nodes; whether it owns the data is the
// caller's choice (tq_list_free vs tq_list_free_with_data).
#ifndef TQ_LIST_H
#define TQ_LIST_H

#include <cstdint>

struct tq_cache_thread_t;

inline constexpr uintptr_t TQ_LIST_POISON = 0xFACEB00B;

struct tq_list_t {
  uint32_t tag;
  tq_list_t *next;
  tq_list_t *prev;
  void *data;
};
static_assert(sizeof(tq_list_t) == 32, "list nodes are 32-byte cache items");

// A node with tag and data; inserted in front of `before` when given (taking
// over before's previous link). nullptr when the cache is empty.
tq_list_t *tq_list_new(uint32_t tag, tq_list_t *before, void *data);
// Gives back every node from list along the next links; a predecessor of
// list is cut off (its next becomes nullptr). Giving back a node twice is
// fatal while the node still carries the poison.
void tq_list_free(tq_list_t *list);
// First releases each node's data with tq_free_flags, then the nodes.
void tq_list_free_with_data(tq_list_t *list);
// Same data pointers, tags 0, same order.
tq_list_t *tq_list_copy(const tq_list_t *list);

// Convenience for decoders that keep wire order: appends data (tag 0)
// behind the last node of list (nullptr starts a list) and returns the head.
// tq_list_reverse turns a list around and returns its new head.
tq_list_t *tq_list_append(tq_list_t *list, void *data);
tq_list_t *tq_list_last(tq_list_t *list);
// back's nodes behind front's (either may be nullptr); the head of the whole.
// Walks front to its end: hand it the tail to keep appends cheap.
tq_list_t *tq_list_concat(tq_list_t *front, tq_list_t *back);
tq_list_t *tq_list_reverse(tq_list_t *list);
uint32_t tq_list_length(const tq_list_t *list);

// The "List Cache" and the library thread's node cache; idempotent, and
// done on first use by tq_list_new.
bool tq_list_init();
void tq_list_deinit();

// Attach / release a thread's node cache (the library's own thread gets one
// at start-up).
void tq_list_thread_init(tq_cache_thread_t *tc);
void tq_list_thread_deinit(tq_cache_thread_t *tc);

#endif
