#include "json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <tuple>
#include <unordered_set>

#include "tq_log.h"

namespace tqsim {

// ---------------------------------------------------------------- the value

Json::Kind Json::kind() const {
  // Indexed by the variant's alternatives, in their order.
  static constexpr Kind kKinds[] = {Kind::null,  Kind::boolean, Kind::integer, Kind::integer,
                                    Kind::real,  Kind::string,  Kind::array,   Kind::object};
  static_assert(std::size(kKinds) == std::variant_size_v<decltype(v_)>);
  return kKinds[v_.index()];
}

std::optional<bool> Json::as_bool() const {
  if (const auto *b = std::get_if<bool>(&v_)) return *b;
  return std::nullopt;
}

std::optional<double> Json::as_double() const {
  if (const auto *d = std::get_if<double>(&v_)) return *d;
  if (const auto *u = std::get_if<uint64_t>(&v_)) return static_cast<double>(*u);
  if (const auto *i = std::get_if<int64_t>(&v_)) return static_cast<double>(*i);
  return std::nullopt;
}

const Json *Json::find(std::string_view key) const {
  if (const auto *o = as_object()) {
    for (const auto &[k, v] : *o)
      if (k == key) return &v;
  }
  return nullptr;
}

Json *Json::find(std::string_view key) {
  return const_cast<Json *>(std::as_const(*this).find(key));
}

Json &Json::operator[](std::string_view key) {
  if (is_null()) v_ = Object{};
  auto *o = as_object();
  TQ_BUG_ON(o == TQ_NULL, "member \"%.*s\" of a JSON value that is no object",
            static_cast<int>(key.size()), key.data());
  if (Json *v = find(key)) return *v;
  o->emplace_back(std::piecewise_construct, std::forward_as_tuple(key), std::tuple<>());
  return o->back().second;
}

void Json::push_back(Json v) {
  if (is_null()) v_ = Array{};
  auto *a = as_array();
  TQ_BUG_ON(a == TQ_NULL, "appending to a JSON value that is no array");
  a->push_back(std::move(v));
}

std::size_t Json::size() const {
  if (const auto *a = as_array()) return a->size();
  if (const auto *o = as_object()) return o->size();
  return 0;
}

bool operator==(const Json &a, const Json &b) { return a.v_ == b.v_; }

// --------------------------------------------------------------- the writer

namespace {

void put_string(std::string &out, std::string_view s) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  for (const char c : s) {
    const auto b = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (b < 0x20) {
      out += "\\u00";
      out += kHex[b >> 4];
      out += kHex[b & 0xf];
    } else {
      out += c;  // bytes >= 0x80 too: UTF-8 (or whatever they are) stays as is
    }
  }
  out += '"';
}

template <class T>
void put_number(std::string &out, T n) {
  char buf[32];
  const auto r = std::to_chars(buf, buf + sizeof buf, n);
  out.append(buf, r.ptr);
}

class Writer {
 public:
  Writer(std::string &out, bool pretty) : out_(out), pretty_(pretty) {}

  void value(const Json &v, int level) {
    switch (v.kind()) {
      case Json::Kind::null:
        out_ += "null";
        return;
      case Json::Kind::boolean:
        out_ += *v.as_bool() ? "true" : "false";
        return;
      case Json::Kind::integer:
        if (const auto u = v.as_u64())
          put_number(out_, *u);
        else
          put_number(out_, *v.as_i64());
        return;
      case Json::Kind::real:
        real(*v.as_double());
        return;
      case Json::Kind::string:
        put_string(out_, *v.as_string());
        return;
      case Json::Kind::array:
        array(*v.as_array(), level);
        return;
      case Json::Kind::object:
        object(*v.as_object(), level);
        return;
    }
  }

 private:
  // Shortest text that reads back as the same double, and as a double: a
  // whole number gets ".0" so it does not come back as an integer.
  void real(double d) {
    if (!std::isfinite(d)) {
      out_ += "null";
      return;
    }
    const std::size_t from = out_.size();
    put_number(out_, d);
    if (out_.find_first_of(".e", from) == std::string::npos) out_ += ".0";
  }

  static bool scalar(const Json &v) {
    return v.kind() != Json::Kind::array && v.kind() != Json::Kind::object;
  }

  void newline(int level) {
    if (!pretty_) return;
    out_ += '\n';
    out_.append(static_cast<std::size_t>(level) * 2, ' ');
  }

  void array(const Json::Array &a, int level) {
    bool first = true;
    const bool flat = !pretty_ || std::all_of(a.begin(), a.end(), scalar);
    out_ += '[';
    for (const Json &e : a) {
      if (!first) out_ += pretty_ && flat ? ", " : ",";
      first = false;
      if (!flat) newline(level + 1);
      value(e, level + 1);
    }
    if (!flat && !a.empty()) newline(level);
    out_ += ']';
  }

  void object(const Json::Object &o, int level) {
    bool first = true;
    out_ += '{';
    for (const auto &[k, v] : o) {
      if (!first) out_ += ',';
      first = false;
      newline(level + 1);
      put_string(out_, k);
      out_ += pretty_ ? ": " : ":";
      value(v, level + 1);
    }
    if (!o.empty()) newline(level);
    out_ += '}';
  }

  std::string &out_;
  const bool pretty_;
};

}  // namespace

std::string dump(const Json &v, bool pretty) {
  std::string out;
  Writer(out, pretty).value(v, 0);
  return out;
}

// --------------------------------------------------------------- the reader

namespace {

class Reader {
 public:
  explicit Reader(std::string_view text) : s_(text) {}

  bool document(Json &out) {
    skip_blanks();
    if (!value(out, 0)) return false;
    skip_blanks();
    if (pos_ != s_.size()) return fail("unexpected text after the value");
    return true;
  }

  const std::string &why() const { return why_; }

 private:
  bool at_end() const { return pos_ >= s_.size(); }
  char peek() const { return at_end() ? '\0' : s_[pos_]; }

  // Records "line L, column C: what" for the byte at `at` (default: here).
  bool fail(std::string_view what, std::optional<std::size_t> at = std::nullopt) {
    const std::size_t p = at.value_or(pos_);
    std::size_t line = 1, column = 1;
    for (std::size_t i = 0; i < p && i < s_.size(); ++i) {
      if (s_[i] == '\n') {
        ++line;
        column = 1;
      } else {
        ++column;
      }
    }
    why_ = "line " + std::to_string(line) + ", column " + std::to_string(column) + ": ";
    if (p >= s_.size()) why_ += "unexpected end of input, ";
    why_ += what;
    return false;
  }

  void skip_blanks() {
    while (!at_end() && (s_[pos_] == ' ' || s_[pos_] == '\t' || s_[pos_] == '\n' || s_[pos_] == '\r'))
      ++pos_;
  }

  bool value(Json &out, int depth) {
    switch (peek()) {
      case '{':
        return object(out, depth + 1);
      case '[':
        return array(out, depth + 1);
      case '"': {
        std::string s;
        if (!string(s)) return false;
        out = Json(std::move(s));
        return true;
      }
      case 't':
        return literal("true", Json(true), out);
      case 'f':
        return literal("false", Json(false), out);
      case 'n':
        return literal("null", Json(), out);
      default:
        if (peek() == '-' || (peek() >= '0' && peek() <= '9')) return number(out);
        return fail("expected a value");
    }
  }

  bool literal(std::string_view word, Json v, Json &out) {
    if (s_.substr(pos_, word.size()) != word) return fail("invalid literal");
    pos_ += word.size();
    out = std::move(v);
    return true;
  }

  bool enter(int depth) {
    if (depth <= kJsonMaxDepth) return true;
    return fail("nesting deeper than " + std::to_string(kJsonMaxDepth) + " levels");
  }

  bool array(Json &out, int depth) {
    if (!enter(depth)) return false;
    ++pos_;  // '['
    Json::Array a;
    skip_blanks();
    if (peek() == ']') {
      ++pos_;
      out = Json(std::move(a));
      return true;
    }
    for (;;) {
      skip_blanks();
      if (!value(a.emplace_back(), depth)) return false;
      skip_blanks();
      if (peek() == ']') break;
      if (peek() != ',') return fail("expected ',' or ']'");
      ++pos_;
    }
    ++pos_;
    out = Json(std::move(a));
    return true;
  }

  bool object(Json &out, int depth) {
    if (!enter(depth)) return false;
    ++pos_;  // '{'
    Json::Object o;
    std::unordered_set<std::string> keys;  // filled only for large objects
    skip_blanks();
    if (peek() == '}') {
      ++pos_;
      out = Json(std::move(o));
      return true;
    }
    for (;;) {
      skip_blanks();
      const std::size_t key_at = pos_;
      if (peek() != '"') return fail("expected a string key");
      std::string key;
      if (!string(key)) return false;
      if (duplicate(o, keys, key)) return fail("duplicate key \"" + key + "\"", key_at);
      skip_blanks();
      if (peek() != ':') return fail("expected ':'");
      ++pos_;
      skip_blanks();
      auto &member = o.emplace_back(std::piecewise_construct,
                                    std::forward_as_tuple(std::move(key)), std::tuple<>());
      if (!value(member.second, depth)) return false;
      skip_blanks();
      if (peek() == '}') break;
      if (peek() != ',') return fail("expected ',' or '}'");
      ++pos_;
    }
    ++pos_;
    out = Json(std::move(o));
    return true;
  }

  // Linear search while the object is small; a set once it is not, so a
  // hostile object of many members costs linear time, not quadratic.
  static bool duplicate(const Json::Object &o, std::unordered_set<std::string> &keys,
                        const std::string &key) {
    constexpr std::size_t kLinear = 16;
    if (o.size() < kLinear) {
      for (const auto &m : o)
        if (m.first == key) return true;
      return false;
    }
    if (keys.empty())
      for (const auto &m : o) keys.insert(m.first);
    return !keys.insert(key).second;
  }

  // Four hex digits at pos_ (after "\u"); advances past them.
  bool hex4(uint32_t &cp) {
    cp = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = peek();
      uint32_t d;
      if (c >= '0' && c <= '9')
        d = static_cast<uint32_t>(c - '0');
      else if (c >= 'a' && c <= 'f')
        d = static_cast<uint32_t>(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F')
        d = static_cast<uint32_t>(c - 'A' + 10);
      else
        return fail("invalid \\u escape");
      cp = cp << 4 | d;
      ++pos_;
    }
    return true;
  }

  static void put_utf8(std::string &out, uint32_t cp) {
    auto byte = [&](uint32_t b) { out += static_cast<char>(b); };
    if (cp < 0x80) {
      byte(cp);
    } else if (cp < 0x800) {
      byte(0xC0 | cp >> 6);
      byte(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      byte(0xE0 | cp >> 12);
      byte(0x80 | (cp >> 6 & 0x3F));
      byte(0x80 | (cp & 0x3F));
    } else {
      byte(0xF0 | cp >> 18);
      byte(0x80 | (cp >> 12 & 0x3F));
      byte(0x80 | (cp >> 6 & 0x3F));
      byte(0x80 | (cp & 0x3F));
    }
  }

  // "\uXXXX", a surrogate pair as two of them; pos_ is at the 'u'.
  bool unicode_escape(std::string &out) {
    const std::size_t at = pos_ - 1;
    ++pos_;
    uint32_t cp;
    if (!hex4(cp)) return false;
    if (cp >= 0xDC00 && cp <= 0xDFFF) return fail("unpaired surrogate in \\u escape", at);
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      if (s_.substr(pos_, 2) != "\\u") return fail("unpaired surrogate in \\u escape", at);
      pos_ += 2;
      uint32_t low;
      if (!hex4(low)) return false;
      if (low < 0xDC00 || low > 0xDFFF) return fail("unpaired surrogate in \\u escape", at);
      cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
    }
    put_utf8(out, cp);
    return true;
  }

  bool string(std::string &out) {
    ++pos_;  // '"'
    for (;;) {
      if (at_end()) return fail("unterminated string");
      const char c = s_[pos_];
      if (c == '"') {
        ++pos_;
        return true;
      }
      if (static_cast<unsigned char>(c) < 0x20) return fail("control character in string");
      if (c != '\\') {
        out += c;
        ++pos_;
        continue;
      }
      ++pos_;
      // The escapes besides \u, as (letter, byte) pairs.
      static constexpr std::pair<char, char> kEscapes[] = {
          {'"', '"'},  {'\\', '\\'}, {'/', '/'},  {'b', '\b'},
          {'f', '\f'}, {'n', '\n'},  {'r', '\r'}, {'t', '\t'}};
      if (at_end()) return fail("unterminated string");
      const char e = s_[pos_];
      if (e == 'u') {
        if (!unicode_escape(out)) return false;
        continue;
      }
      const auto *hit = std::find_if(std::begin(kEscapes), std::end(kEscapes),
                                     [e](const auto &p) { return p.first == e; });
      if (hit == std::end(kEscapes)) return fail("invalid escape", pos_ - 1);
      out += hit->second;
      ++pos_;
    }
  }

  // -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?; an integer unless it has a
  // fraction or an exponent.
  bool number(Json &out) {
    const std::size_t start = pos_;
    auto digits = [&] {
      const std::size_t from = pos_;
      while (peek() >= '0' && peek() <= '9') ++pos_;
      return pos_ > from;
    };
    const bool negative = peek() == '-';
    if (negative) ++pos_;
    if (peek() == '0') {
      ++pos_;
      if (peek() >= '0' && peek() <= '9') return fail("invalid number (leading zero)", start);
    } else if (!digits()) {
      return fail("invalid number");
    }
    bool real = false;
    if (peek() == '.') {
      ++pos_;
      real = true;
      if (!digits()) return fail("invalid number");
    }
    if (peek() == 'e' || peek() == 'E') {
      ++pos_;
      real = true;
      if (peek() == '+' || peek() == '-') ++pos_;
      if (!digits()) return fail("invalid number");
    }
    const char *first = s_.data() + start;
    const char *last = s_.data() + pos_;
    if (real) {
      double d;
      const auto r = std::from_chars(first, last, d);
      if (r.ec != std::errc() || r.ptr != last) return fail("number out of range", start);
      out = Json(d);
    } else if (negative) {
      int64_t i;
      const auto r = std::from_chars(first, last, i);
      if (r.ec != std::errc() || r.ptr != last) return fail("integer out of range", start);
      out = Json(i);
    } else {
      uint64_t u;
      const auto r = std::from_chars(first, last, u);
      if (r.ec != std::errc() || r.ptr != last) return fail("integer out of range", start);
      out = Json(u);
    }
    return true;
  }

  std::string_view s_;
  std::size_t pos_ = 0;
  std::string why_;
};

}  // namespace

bool parse(std::string_view text, Json &out, std::string &why) {
  Reader r(text);
  Json v;
  if (!r.document(v)) {
    out = Json();
    why = r.why();
    return false;
  }
  out = std::move(v);
  return true;
}

}  // namespace tqsim
