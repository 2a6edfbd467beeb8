// The connection log: search, count, service and day lists.
//
// The search decoder reads items until the body ends. Each item kind is a
// row (kItems) and an entry is groups of fields (rows of Col), each group
// failing with its own text, so the decoder is the tables and one walker.
#include "tqdb_api_connlog.h"

#include <cstring>
#include <span>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tq_str.h"
#include "tqdb_api.h"

namespace {

using Entry = tqdb_api_connlog_recv_entry_t;
using Meta = tqdb_api_connlog_meta_t;
using Filter = tqdb_api_connlog_filter_t;
using Result = tqdb_api_connlog_result_t;

constexpr char kDecoder[] = "tqdb_api_connlog_search_handle";
constexpr char kEntryLabel[] = "tqdb_api_connlog_recv_entry_t";
constexpr char kTextLabel[] = "tqdb_api_connlog_text";
constexpr char kNoError[] = "No error";

// --- fields as rows -----------------------------------------------------------------------

enum class W : uint8_t { U8, U16, U32, U64 };
struct Col {
  W w;
  uint16_t offset;
};
#define TQ_COL(T, m, w) Col{W::w, offsetof(T, m)}
#define TQ_WORD(T, m, i) Col{W::U32, offsetof(T, m) + 4 * (i)}

// Reads the columns into rec; false at the first that runs past the body.
bool read_cols(tq_msg_t *m, std::span<const Col> cols, void *rec) {
  auto *base = static_cast<unsigned char *>(rec);
  for (const Col &c : cols) {
    unsigned char *p = base + c.offset;
    bool ok = false;
    switch (c.w) {
      case W::U8:
        ok = tq_msg_get_uint8(m, p);
        break;
      case W::U16: {
        uint16_t v;
        ok = tq_msg_get_uint16(m, &v);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case W::U32: {
        uint32_t v;
        ok = tq_msg_get_uint32(m, &v);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case W::U64: {
        uint64_t v;
        ok = tq_msg_get_uint64(m, &v);
        std::memcpy(p, &v, sizeof v);
        break;
      }
    }
    if (!ok) return false;
  }
  return true;
}

struct Group {
  const char *error;
  std::span<const Col> cols;
};

constexpr Col kHead[] = {TQ_COL(Entry, start, U32), TQ_COL(Entry, end, U32),
                         TQ_COL(Entry, family, U8), TQ_COL(Entry, protocol, U8)};
constexpr Col kIPv4[] = {TQ_WORD(Entry, client, 0), TQ_WORD(Entry, server, 0)};
constexpr Col kIPv6[] = {TQ_WORD(Entry, client, 0), TQ_WORD(Entry, client, 1),
                         TQ_WORD(Entry, client, 2), TQ_WORD(Entry, client, 3),
                         TQ_WORD(Entry, server, 0), TQ_WORD(Entry, server, 1),
                         TQ_WORD(Entry, server, 2), TQ_WORD(Entry, server, 3)};
constexpr Col kTraffic[] = {TQ_COL(Entry, clientport, U16), TQ_COL(Entry, serverport, U16),
                            TQ_COL(Entry, bytes_in, U64),   TQ_COL(Entry, bytes_out, U64),
                            TQ_COL(Entry, service, U32),    TQ_COL(Entry, serverhostname, U32),
                            TQ_COL(Entry, netobject, U32)};
constexpr Col kNat[] = {TQ_COL(Entry, natclient, U32), TQ_COL(Entry, natclientport, U16),
                        TQ_COL(Entry, natserver, U32), TQ_COL(Entry, natserverport, U16)};
constexpr Col kMetaCols[] = {TQ_COL(Meta, total, U32),         TQ_COL(Meta, returned, U32),
                             TQ_COL(Meta, n_matches, U32),     TQ_COL(Meta, searched_from, U64),
                             TQ_COL(Meta, searched_to, U64),   TQ_COL(Meta, complete, U8),
                             TQ_COL(Meta, elapsed_ms, U32)};

// The address group by family byte; a family beyond the table fails as (4).
constexpr Group kAddresses[] = {{"Error parsing entry (2)", kIPv4},
                                {"Error parsing entry (3)", kIPv6}};
constexpr char kBadFamily[] = "Error parsing entry (4)";
// The fixed groups after the addresses.
constexpr Group kTail[] = {{"Error parsing entry (5)", kTraffic},
                           {"Error parsing entry (6)", kNat}};

// --- items --------------------------------------------------------------------------------

// How an item ends the reading of a body.
enum class Step : uint8_t { Next, Done, Fail };

// What one reply is read with: the body, the record and the entries of this
// reply (newest first) that join the record only when the reply succeeds.
struct Reading {
  tqdb_api_msg_t *env;
  Result *r;
  tq_list_t *fresh = nullptr;
  bool cut = false;  // a field ran past the body

  tq_msg_t *msg() const { return env->msg; }
  Step fail(const char *text, bool short_body = true) {
    std::strncpy(r->error, text, sizeof r->error - 1);
    r->error[sizeof r->error - 1] = '\0';
    cut = short_body;
    return Step::Fail;
  }
};

void entry_free(Entry *e) {
  if (e == nullptr) return;
  tq_list_free(e->vnos);
  tq_free_flags(e);
}

const char *read_entry_groups(tq_msg_t *m, Entry *e, bool &cut) {
  cut = true;
  if (!read_cols(m, kHead, e)) return "Error parsing entry (1)";
  if (e->family >= std::size(kAddresses)) {
    cut = false;
    return kBadFamily;
  }
  const Group &addr = kAddresses[e->family];
  if (!read_cols(m, addr.cols, e)) return addr.error;
  for (const Group &g : kTail)
    if (!read_cols(m, g.cols, e)) return g.error;
  uint32_t n = 0;
  if (!tq_msg_get_uint32(m, &n)) return "Error parsing entry (7)";
  tq_list_t *vnos = nullptr;  // newest first
  for (uint32_t i = 0; i < n; ++i) {
    uint32_t v = 0;
    tq_list_t *node = tq_msg_get_uint32(m, &v)
                          ? tq_list_new(0, vnos, reinterpret_cast<void *>(uintptr_t{v}))
                          : nullptr;
    if (node == nullptr) {
      e->vnos = tq_list_reverse(vnos);
      return "Error reading vno";
    }
    vnos = node;
  }
  e->vnos = tq_list_reverse(vnos);
  return nullptr;
}

Step read_entry(Reading &rd) {
  auto *e = tq_new_record<Entry>(kEntryLabel);
  bool cut = false;
  if (const char *why = read_entry_groups(rd.msg(), e, cut)) {
    entry_free(e);
    return rd.fail(why, cut);
  }
  tq_list_t *node = tq_list_new(0, rd.fresh, e);
  if (node == nullptr) {
    entry_free(e);
    return rd.fail("Error parsing entry (1)", false);
  }
  rd.fresh = node;
  return Step::Next;
}

Step read_table_start(Reading &rd) {
  uint32_t n = 0;
  if (!tq_msg_get_uint32(rd.msg(), &n)) {
    rd.fail("Error reading strings from stringtable init");
    return Step::Done;
  }
  rd.r->strings_announced += n;
  return Step::Next;
}

Step read_table_string(Reading &rd) {
  uint32_t id = 0;
  if (!tq_msg_get_uint32(rd.msg(), &id)) return rd.fail("Error reading id from stringtable");
  char text[TQDB_API_CONNLOG_TEXT_MAX + 1];
  if (!tq_msg_get_string_len(rd.msg(), text, sizeof text))
    return rd.fail("Error reading string from stringtable");
  tq_list_t *node = tq_list_new(id, rd.r->strings, tq_strdup(kTextLabel, text));
  if (node == nullptr) return rd.fail("Error reading string from stringtable", false);
  rd.r->strings = node;
  return Step::Next;
}

void meta_clear(Meta &m) {
  tq_free_flags(m.matches);
  tq_list_free_with_data(m.warnings);
  m = Meta{};
}

Step read_metadata(Reading &rd) {
  tq_msg_t *m = rd.msg();
  Meta meta{};
  if (!read_cols(m, kMetaCols, &meta)) return rd.fail("Error parsing metadata");
  if (uint64_t{meta.n_matches} * 8 > tq_msg_avail_bytes(m)) {
    (void)tq_msg_skip(m, tq_msg_avail_bytes(m));
    return rd.fail("Error parsing per cond match");
  }
  if (meta.n_matches != 0) {
    meta.matches =
        static_cast<uint64_t *>(tq_zalloc("tqdb_api_connlog_matches", meta.n_matches * 8u));
    for (uint32_t i = 0; i < meta.n_matches; ++i)
      (void)tq_msg_get_uint64(m, &meta.matches[i]);  // room checked above
  }
  uint32_t w = 0;
  bool ok = tq_msg_get_uint32(m, &w);
  tq_list_t *warnings = nullptr;  // newest first
  for (uint32_t i = 0; ok && i < w; ++i) {
    char text[TQDB_API_CONNLOG_TEXT_MAX + 1];
    ok = tq_msg_get_string_len(m, text, sizeof text);
    if (ok) {
      char *copy = tq_strdup(kTextLabel, text);
      tq_list_t *node = tq_list_new(0, warnings, copy);
      if (node == nullptr) tq_free_flags(copy);
      warnings = node ? node : warnings;
      ok = node != nullptr;
    }
  }
  meta.warnings = tq_list_reverse(warnings);
  if (!ok) {
    meta_clear(meta);
    return rd.fail("Error parsing warning");
  }
  meta_clear(rd.r->meta);
  rd.r->meta = meta;
  rd.r->has_meta = 1;
  return Step::Next;
}

// Item kinds 1, 2, 3, 4 in order.
using ItemFn = Step (*)(Reading &);
constexpr ItemFn kItems[] = {read_entry, read_table_start, read_table_string, read_metadata};

void entries_free(tq_list_t *list) {
  for (tq_list_t *n = list; n; n = n->next) entry_free(static_cast<Entry *>(n->data));
  tq_list_free(list);
}

// A text list answer: the reply's strings behind list.
tq_list_t *text_list(tqdb_api_msg_t *env, tq_list_t *list, const char *decoder) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq::ReplyReader r(env, decoder);
  tq_list_t *fresh = nullptr;  // newest first
  char text[TQDB_API_CONNLOG_TEXT_MAX + 1];
  while (r.ok() && r.left() > 0) {
    r.text(text);
    if (!r.ok() || !tq::push_front(fresh, tq_strdup(kTextLabel, text))) break;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}

// The filter's fields in wire order, by the shared table.
void put_filter(tq_msg_t *m, const Filter *f) {
  Filter none{};
  const auto *base = reinterpret_cast<const unsigned char *>(f ? f : &none);
  for (const tqdb_api_connlog_filter_field_t &row : TQDB_API_CONNLOG_FILTER_FIELDS) {
    const unsigned char *p = base + row.offset;
    switch (row.wire) {
      case tqdb_api_connlog_filter_wire::U64: {
        uint64_t v;
        std::memcpy(&v, p, sizeof v);
        tq_msg_put_uint64(m, v);
        break;
      }
      case tqdb_api_connlog_filter_wire::U32: {
        uint32_t v;
        std::memcpy(&v, p, sizeof v);
        tq_msg_put_uint32(m, v);
        break;
      }
      case tqdb_api_connlog_filter_wire::Text: {
        const char *s = reinterpret_cast<const char *>(p);
        tq_msg_put_string_n(m, s, strnlen(s, row.size - 1u));
        break;
      }
    }
  }
}

}  // namespace

uint32_t tqdb_api_connlog_search(tqdb_api_handle_t *h, uint32_t session, const Filter *filter) {
  return tqdb_api_request(h, TQDB_REQ_CONNLOG_SEARCH, session,
                          [&](tq_msg_t *m) { put_filter(m, filter); });
}

uint32_t tqdb_api_connlog_count(tqdb_api_handle_t *h, uint32_t session, const Filter *filter) {
  return tqdb_api_request(h, TQDB_REQ_CONNLOG_COUNT, session,
                          [&](tq_msg_t *m) { put_filter(m, filter); });
}

uint32_t tqdb_api_connlog_servicelist(tqdb_api_handle_t *h, uint32_t session, const char *day) {
  return tqdb_api_send(h, TQDB_REQ_CONNLOG_SERVICELIST, session, day);
}

uint32_t tqdb_api_connlog_daylist(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_send(h, TQDB_REQ_CONNLOG_DAYLIST, session);
}

Result *tqdb_api_connlog_result_new() {
  auto *r = tq_new_record<Result>("tqdb_api_connlog_result_t");
  std::memcpy(r->error, kNoError, sizeof kNoError);
  return r;
}

void tqdb_api_connlog_result_free(Result *r) {
  if (r == nullptr) return;
  entries_free(r->entries);
  tq_list_free_with_data(r->strings);
  meta_clear(r->meta);
  tq_free_flags(r);
}

const char *tqdb_api_connlog_string(const Result *r, uint32_t id) {
  if (r == nullptr || id == 0) return "";
  for (const tq_list_t *n = r->strings; n; n = n->next)
    if (n->tag == id) return static_cast<const char *>(n->data);
  return "";
}

int tqdb_api_connlog_search_handle(tqdb_api_msg_t *env, Result *r) {
  if (r == nullptr || tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return 0;
  Reading rd{env, r};
  Step step = Step::Next;
  while (step == Step::Next && tq_msg_avail_bytes(env->msg) > 0) {
    uint8_t kind = 0;
    (void)tq_msg_get_uint8(env->msg, &kind);
    step = kind >= 1 && kind <= std::size(kItems) ? kItems[kind - 1](rd)
                                                  : rd.fail("Unknown reply type", false);
  }
  if (rd.cut) tqdb_api_msg_corrupt(env, kDecoder, __FILE__, __LINE__);
  if (step == Step::Fail) {
    entries_free(rd.fresh);
    return 0;
  }
  tq_list_t *fresh = tq_list_reverse(rd.fresh);
  if (fresh != nullptr) {
    tq_list_t *tail = tq_list_last(fresh);
    r->entries = r->entries ? (tq_list_concat(r->entries_tail, fresh), r->entries) : fresh;
    r->entries_tail = tail;
  }
  return 1;
}

tq_list_t *tqdb_api_connlog_servicelist_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return text_list(env, list, "tqdb_api_connlog_servicelist_handle");
}

tq_list_t *tqdb_api_connlog_daylist_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return text_list(env, list, "tqdb_api_connlog_daylist_handle");
}

void tqdb_api_connlog_list_free(tq_list_t *list) { tq_list_free_with_data(list); }

uint64_t tqdb_api_connlog_count_handle(tqdb_api_msg_t *env) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return 0;
  tq::ReplyReader r(env, "tqdb_api_connlog_count_handle");
  return r.u64();
}
