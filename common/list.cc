// Doubly linked lists on nodes from the shared "List Cache".
#include "tq_list.h"

#include "tq_cache.h"
#include "tq_log.h"
#include "tq_malloc.h"

namespace {

constexpr uint32_t kHighWater = 100000;
constexpr uint32_t kMidWater = 50000;
constexpr uint32_t kLowWater = 100;

// Process-wide, constant-initialised plain records: valid before any
// constructor and after every destructor, and the grown blocks stay
// reachable from g_cache for the whole run.
constinit tq_cache_t g_cache{};
constinit bool g_cache_ready = false;
constinit tq_cache_thread_t g_lib_tc{};
constinit bool g_lib_tc_ready = false;
// The node cache attached by tq_list_thread_init on this thread, if any.
constinit thread_local tq_cache_thread_t *t_attached = nullptr;

bool cache_ready() {
  if (!g_cache_ready) g_cache_ready = tq_cache_init(&g_cache, "List Cache", 0,
                                                    sizeof(tq_list_t), "tq_list_t");
  return g_cache_ready;
}

tq_cache_thread_t *node_cache() {
  if (t_attached != nullptr) return t_attached;
  if (!g_lib_tc_ready && !tq_list_init()) return nullptr;
  return &g_lib_tc;
}

void give_back(tq_cache_thread_t *tc, tq_list_t *node) {
  node->prev = reinterpret_cast<tq_list_t *>(TQ_LIST_POISON);
  tq_cache_put(tc, node);
}

}  // namespace

bool tq_list_init() {
  if (g_lib_tc_ready) return true;
  if (!cache_ready()) return false;
  tq_cache_thread_init(&g_cache, &g_lib_tc, kHighWater, kMidWater, kLowWater);
  g_lib_tc_ready = true;
  return true;
}

void tq_list_deinit() {
  if (!g_lib_tc_ready) return;
  // The nodes go back to the shared list; the cache itself lives on, so
  // lists still held by the caller stay valid and can be freed later.
  tq_cache_thread_flush(&g_cache, &g_lib_tc);
  g_lib_tc_ready = false;
}

void tq_list_thread_init(tq_cache_thread_t *tc) {
  TQ_BUG_ON(tc == TQ_NULL, "");
  TQ_BUG_ON(!cache_ready(), "List Cache could not be created");
  tq_cache_thread_init(&g_cache, tc, kHighWater, kMidWater, kLowWater);
  t_attached = tc;
}

void tq_list_thread_deinit(tq_cache_thread_t *tc) {
  TQ_BUG_ON(tc == TQ_NULL, "");
  tq_cache_thread_flush(&g_cache, tc);
  if (t_attached == tc) t_attached = nullptr;
}

tq_list_t *tq_list_new(uint32_t tag, tq_list_t *before, void *data) {
  tq_cache_thread_t *tc = node_cache();
  if (tc == nullptr) return nullptr;
  auto *node = static_cast<tq_list_t *>(tq_cache_get(tc));
  if (node == nullptr) return nullptr;
  node->tag = tag;
  node->data = data;
  node->next = nullptr;
  node->prev = nullptr;
  if (before != nullptr) {
    node->prev = before->prev;
    node->next = before;
    if (before->prev != nullptr) before->prev->next = node;
    before->prev = node;
  }
  return node;
}

void tq_list_free(tq_list_t *list) {
  if (list == nullptr) return;
  tq_cache_thread_t *tc = node_cache();
  TQ_BUG_ON(tc == TQ_NULL, "");
  TQ_BUG_ON(reinterpret_cast<uintptr_t>(list->prev) == TQ_LIST_POISON,
            "List node %p given back twice", static_cast<void *>(list));
  // Freeing the tail of a list leaves the front a proper list.
  if (list->prev != nullptr) list->prev->next = nullptr;
  while (list != nullptr) {
    tq_list_t *next = list->next;
    give_back(tc, list);
    list = next;
  }
}

void tq_list_free_with_data(tq_list_t *list) {
  for (tq_list_t *n = list; n != nullptr; n = n->next) {
    tq_free_flags(n->data);
    n->data = nullptr;
  }
  tq_list_free(list);
}

tq_list_t *tq_list_copy(const tq_list_t *list) {
  tq_list_t *head = nullptr;
  tq_list_t *tail = nullptr;
  for (const tq_list_t *n = list; n != nullptr; n = n->next) {
    tq_list_t *node = tq_list_new(0, nullptr, n->data);
    if (node == nullptr) {
      tq_list_free(head);
      return nullptr;
    }
    node->prev = tail;
    if (tail != nullptr)
      tail->next = node;
    else
      head = node;
    tail = node;
  }
  return head;
}

tq_list_t *tq_list_last(tq_list_t *list) {
  if (list == nullptr) return nullptr;
  while (list->next != nullptr) list = list->next;
  return list;
}

tq_list_t *tq_list_append(tq_list_t *list, void *data) {
  tq_list_t *node = tq_list_new(0, nullptr, data);
  if (node == nullptr) return list;
  if (list == nullptr) return node;
  tq_list_t *last = tq_list_last(list);
  last->next = node;
  node->prev = last;
  return list;
}

tq_list_t *tq_list_concat(tq_list_t *front, tq_list_t *back) {
  if (front == nullptr) return back;
  if (back != nullptr) {
    tq_list_t *last = tq_list_last(front);
    last->next = back;
    back->prev = last;
  }
  return front;
}

tq_list_t *tq_list_reverse(tq_list_t *list) {
  tq_list_t *head = nullptr;
  while (list != nullptr) {
    tq_list_t *next = list->next;
    list->next = list->prev;
    list->prev = next;
    head = list;
    list = next;
  }
  return head;
}

uint32_t tq_list_length(const tq_list_t *list) {
  uint32_t n = 0;
  for (; list != nullptr; list = list->next) ++n;
  return n;
}
