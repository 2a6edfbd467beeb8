// Reading a reply body the way the ruleset decoders must: a field that runs
// past the body reads as zero (or an empty text), the envelope's
// corrupt-message callback is told once, naming the decoder and the place
// of the field, and reading goes on with the next field, so a body cut short
// yields records with empty tails rather than no records.
//
//   tq::ReplyReader r(env, "tqdb_api_object_list_handle");
//   o->id = r.u32();
//   r.text(o->name);
//   if (!r.ok()) ...   // some field was short
//
// The place reported is the caller's source line, so a report points at the
// field that was missing. After the first short field every later field
// reads as zero without touching the body: a string cut short leaves its
// count consumed, and what follows it is no longer where the next field
// would be.
#ifndef TQDB_API_REPLY_READER_H
#define TQDB_API_REPLY_READER_H

#include <cstddef>
#include <cstdint>
#include <source_location>

#include "tq_msg.h"
#include "tqdb_api.h"
#include "tqdb_api_ruleset.h"  // tqdb_api_audit_t

namespace tq {

class ReplyReader {
 public:
  using Where = std::source_location;

  ReplyReader(tqdb_api_msg_t *env, const char *decoder) : env_(env), decoder_(decoder) {}
  // A reader that tells nobody: for the decoders whose replies may end in
  // the middle of a record by design (the level list).
  static ReplyReader quiet(tqdb_api_msg_t *env) {
    ReplyReader r(env, nullptr);
    r.report_ = false;
    return r;
  }

  tq_msg_t *msg() const { return env_->msg; }
  uint32_t left() const { return tq_msg_avail_bytes(env_->msg); }
  // No field has been short so far.
  bool ok() const { return ok_; }
  // Marks the reply broken for a reason other than a short field (a count
  // the body cannot hold), reported like one.
  void fail(Where w = Where::current()) { check(false, w); }

  uint8_t u8(Where w = Where::current()) { return get<uint8_t, tq_msg_get_uint8>(w); }
  uint16_t u16(Where w = Where::current()) { return get<uint16_t, tq_msg_get_uint16>(w); }
  uint32_t u32(Where w = Where::current()) { return get<uint32_t, tq_msg_get_uint32>(w); }
  uint64_t u64(Where w = Where::current()) { return get<uint64_t, tq_msg_get_uint64>(w); }
  int32_t i32(Where w = Where::current()) { return get<int32_t, tq_msg_get_int32>(w); }
  // A text cut to size - 1 characters; empty when short.
  void text(char *buf, size_t size, Where w = Where::current()) {
    if (!ok_ || !check(tq_msg_get_string_len(env_->msg, buf, size), w)) buf[0] = '\0';
  }
  template <size_t N>
  void text(char (&buf)[N], Where w = Where::current()) {
    text(buf, N, w);
  }
  // The four audit texts, in wire order.
  void audit(tqdb_api_audit_t &a, Where w = Where::current()) {
    text(a.creator, w);
    text(a.creation_date, w);
    text(a.modified_by, w);
    text(a.modification_date, w);
  }

 private:
  template <class T, bool (*Get)(tq_msg_t *, T *)>
  T get(const Where &w) {
    T v = 0;
    if (ok_) check(Get(env_->msg, &v), w);
    return v;
  }
  bool check(bool read, const Where &w) {
    if (!read) {
      ok_ = false;
      if (report_) tqdb_api_msg_corrupt(env_, decoder_, w.file_name(), static_cast<int>(w.line()));
    }
    return read;
  }

  tqdb_api_msg_t *env_;
  const char *decoder_;
  bool ok_ = true;
  bool report_ = true;
};

}  // namespace tq

#endif
