// Ruleset records whose fields are rows (tqdb_api_item_field_t): the item
// layouts, the object record, statistics and IPFIX objects, copy entries.
// One reader and one writer walk the rows, so a record's wire layout is
// written down once and read and written alike.
#ifndef TQDB_API_RULESET_ROWS_H
#define TQDB_API_RULESET_ROWS_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "reply_reader.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api.h"
#include "tqdb_api_ruleset.h"

// The row of record T's member m under the dictionary key `key`.
#define TQ_ROW_KEY(key, T, m, wire) \
  tqdb_api_item_field_t { key, tqdb_api_wire::wire, offsetof(T, m), sizeof(T::m) }
// The usual case: the key is the member's name.
#define TQ_ROW(T, m, wire) TQ_ROW_KEY(#m, T, m, wire)
// The four audit texts of a record, in wire order.
#define TQ_AUDIT_ROWS(T)                                      \
  TQ_ROW_KEY("creator", T, audit.creator, Text),              \
      TQ_ROW_KEY("creation_date", T, audit.creation_date, Text), \
      TQ_ROW_KEY("modified_by", T, audit.modified_by, Text),  \
      TQ_ROW_KEY("modification_date", T, audit.modification_date, Text)

namespace tq {

using Rows = std::span<const tqdb_api_item_field_t>;

// Bytes a field of this wire form takes in the record; 0 for a text, whose
// array may have any size.
constexpr size_t record_width(tqdb_api_wire w) {
  switch (w) {
    case tqdb_api_wire::U8:
      return 1;
    case tqdb_api_wire::U16:
      return 2;
    case tqdb_api_wire::U8AsU32:
    case tqdb_api_wire::U32:
      return 4;
    case tqdb_api_wire::U64:
      return 8;
    case tqdb_api_wire::Text:
      return 0;
  }
  return 0;
}

// Every row lies inside the record and has the width its wire form needs:
// checked at compile time for each table.
constexpr bool rows_fit(size_t record, Rows rows) {
  for (const tqdb_api_item_field_t &f : rows) {
    const size_t want = record_width(f.wire);
    if (want != 0 ? f.size != want : f.size < 2) return false;
    if (size_t{f.offset} + f.size > record) return false;
  }
  return true;
}

// Reads the rows' fields into rec. Short fields read as zero / empty and are
// reported once, naming the decoder's line that reads the record.
inline void read_rows(ReplyReader &r, Rows rows, void *rec,
                      ReplyReader::Where w = ReplyReader::Where::current()) {
  auto *base = static_cast<unsigned char *>(rec);
  for (const tqdb_api_item_field_t &f : rows) {
    unsigned char *p = base + f.offset;
    switch (f.wire) {
      case tqdb_api_wire::U8:
        *p = r.u8(w);
        break;
      case tqdb_api_wire::U8AsU32: {
        const uint32_t v = r.u8(w);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case tqdb_api_wire::U16: {
        const uint16_t v = r.u16(w);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case tqdb_api_wire::U32: {
        const uint32_t v = r.u32(w);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case tqdb_api_wire::U64: {
        const uint64_t v = r.u64(w);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case tqdb_api_wire::Text:
        r.text(reinterpret_cast<char *>(p), f.size, w);
        break;
    }
  }
}

// Appends the rows' fields of rec to a request. A text goes out as the
// string it holds, never more than its maximum.
inline void write_rows(tq_msg_t *m, Rows rows, const void *rec) {
  const auto *base = static_cast<const unsigned char *>(rec);
  for (const tqdb_api_item_field_t &f : rows) {
    const unsigned char *p = base + f.offset;
    switch (f.wire) {
      case tqdb_api_wire::U8:
        tq_msg_put_uint8(m, *p);
        break;
      case tqdb_api_wire::U8AsU32: {
        uint32_t v;
        std::memcpy(&v, p, sizeof v);
        tq_msg_put_uint8(m, static_cast<uint8_t>(v));
        break;
      }
      case tqdb_api_wire::U16: {
        uint16_t v;
        std::memcpy(&v, p, sizeof v);
        tq_msg_put_uint16(m, v);
        break;
      }
      case tqdb_api_wire::U32: {
        uint32_t v;
        std::memcpy(&v, p, sizeof v);
        tq_msg_put_uint32(m, v);
        break;
      }
      case tqdb_api_wire::U64: {
        uint64_t v;
        std::memcpy(&v, p, sizeof v);
        tq_msg_put_uint64(m, v);
        break;
      }
      case tqdb_api_wire::Text: {
        const char *s = reinterpret_cast<const char *>(p);
        tq_msg_put_string_n(m, s, strnlen(s, f.size - 1u));
        break;
      }
    }
  }
}

// Puts rec at the head of list. A node the list cache cannot give releases
// rec (a flat record) and returns false.
inline bool push_front(tq_list_t *&list, void *rec) {
  tq_list_t *node = tq_list_new(0, list, rec);
  if (node == nullptr) {
    tq_free_flags(rec);
    return false;
  }
  list = node;
  return true;
}

// One attribute pair; nullptr when the pair was cut short (call with a
// reader that is still ok).
inline tqdb_api_ruleset_attr_t *read_attr(ReplyReader &r,
                                          ReplyReader::Where w = ReplyReader::Where::current()) {
  auto *a = tq_new_record<tqdb_api_ruleset_attr_t>("tqdb_api_ruleset_attr_t");
  r.text(a->key, w);
  r.text(a->value, w);
  if (r.ok()) return a;
  tq_free_flags(a);
  return nullptr;
}

// Flat records of one kind, one after the other while at least min_left
// bytes remain, appended to list in wire order. A record cut short is
// released and ends the reply: what came before it is kept.
inline tq_list_t *read_records(ReplyReader &r, const tqdb_api_item_layout_t &kind, tq_list_t *list,
                               uint32_t min_left,
                               ReplyReader::Where w = ReplyReader::Where::current()) {
  tq_list_t *fresh = nullptr;  // newest first
  while (r.ok() && r.left() >= min_left) {
    void *rec = tq_zalloc(kind.label, kind.size);
    read_rows(r, kind.fields, rec, w);
    if (!r.ok()) {
      tq_free_flags(rec);
      break;
    }
    if (!push_front(fresh, rec)) break;
  }
  return tq_list_concat(list, tq_list_reverse(fresh));
}

// The flat records of one DATA reply, appended behind list in wire order as
// read_records reads them; a reply of another type leaves list as it was.
inline tq_list_t *reply_records(tqdb_api_msg_t *env, tq_list_t *list, const char *decoder,
                                const tqdb_api_item_layout_t &kind, uint32_t min_left = 1) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  ReplyReader r(env, decoder);
  return read_records(r, kind, list, min_left);
}

}  // namespace tq

#endif
