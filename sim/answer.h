// Reply bodies built field by field, and answers that are lists.
//
// Out collects big-endian fields in a byte string, so a record can be
// measured before it is placed in a message.
//
// ListAnswer sends what a client decodes into a list: DATA messages, each
// with the request's session word and correlation id, then one OK with the
// same id that ends the answer. Records are cut only at their boundaries: a
// message takes records while it stays within the reply size limit
// (--max-reply-bytes, header words included); a record larger than the
// limit goes alone in its own message. At least one DATA message is sent,
// so an empty list is an empty DATA then OK.
//
//   ListAnswer a(c);
//   for (const auto &r : rules) { put_rule(a.out(), r); a.next(); }
//   a.finish();
#ifndef TQSIM_ANSWER_H
#define TQSIM_ANSWER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tqsim {

struct Call;

class Out {
 public:
  Out &u8(uint8_t v);
  Out &u16(uint16_t v);
  Out &u32(uint32_t v);
  Out &i32(int32_t v) { return u32(static_cast<uint32_t>(v)); }
  // u32 count including the NUL, the bytes, the NUL.
  Out &text(std::string_view s);

  const std::string &bytes() const { return b_; }
  std::size_t size() const { return b_.size(); }
  bool empty() const { return b_.empty(); }
  void clear() { b_.clear(); }

 private:
  std::string b_;
};

class ListAnswer {
 public:
  explicit ListAnswer(Call &c);
  ListAnswer(const ListAnswer &) = delete;
  ListAnswer &operator=(const ListAnswer &) = delete;

  // The record being written.
  Out &out() { return rec_; }
  // Ends the record being written.
  void next();
  // Sends what is pending and the closing OK.
  void finish();

 private:
  void send();

  Call &c_;
  std::size_t limit_;  // body bytes per message
  std::string pending_;
  Out rec_;
  bool sent_ = false;
};

}  // namespace tqsim

#endif
