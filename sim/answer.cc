#include "answer.h"

#include "dispatch.h"
#include "options.h"
#include "tq_msg.h"

namespace tqsim {
namespace {

// Session word and correlation id in front of every reply body.
constexpr std::size_t kHeaderBytes = 8;

}  // namespace

Out &Out::u8(uint8_t v) {
  b_.push_back(static_cast<char>(v));
  return *this;
}

Out &Out::u16(uint16_t v) { return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v)); }

Out &Out::u32(uint32_t v) {
  return u16(static_cast<uint16_t>(v >> 16)).u16(static_cast<uint16_t>(v));
}

Out &Out::text(std::string_view s) {
  u32(static_cast<uint32_t>(s.size() + 1));
  b_.append(s);
  b_.push_back('\0');
  return *this;
}

ListAnswer::ListAnswer(Call &c) : c_(c) {
  const std::size_t max = c.hub.options().max_reply_bytes;
  limit_ = max > kHeaderBytes ? max - kHeaderBytes : 1;
}

void ListAnswer::next() {
  if (!pending_.empty() && pending_.size() + rec_.size() > limit_) send();
  pending_ += rec_.bytes();
  rec_.clear();
}

void ListAnswer::send() {
  Msg m = c_.data();
  if (m) tq_msg_put_data(m.get(), pending_.data(), pending_.size());
  c_.reply(std::move(m));
  pending_.clear();
  sent_ = true;
}

void ListAnswer::finish() {
  if (!rec_.empty()) next();
  if (!pending_.empty() || !sent_) send();
  c_.ok();
}

}  // namespace tqsim
