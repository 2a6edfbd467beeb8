// JSON values for the simulator's saved state (the committed ruleset, and
// the administration backups), with a writer and a strict reader.
//
// Numbers: an integer is kept exactly, anywhere in [-2^63, 2^64 - 1], so
// every u32/u64 id and every i32 survives; a number with a fraction or an
// exponent is a double. The reader refuses an integer outside that range
// rather than wrapping or rounding it.
//
// Strings are byte strings. The writer escapes '"', '\' and the control
// characters below 0x20 (as \u00XX) and passes every other byte through
// unchanged, so UTF-8 survives as it is; the reader takes raw bytes >= 0x80
// without validating them, so even a string holding a stray invalid byte
// reads back identical to what was written.
//
// Objects keep their members in insertion order (the writer emits them in
// that order) and look keys up linearly: they are records of a few fields,
// not maps. The reader refuses duplicate keys.
//
// The reader never recurses deeper than kJsonMaxDepth nested arrays or
// objects, and reports errors as "line L, column C: <what>" (both counted
// from 1, columns in bytes).
#ifndef TQSIM_JSON_H
#define TQSIM_JSON_H

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tqsim {

inline constexpr int kJsonMaxDepth = 64;

class Json {
 public:
  using Array = std::vector<Json>;
  using Member = std::pair<std::string, Json>;
  using Object = std::vector<Member>;

  enum class Kind { null, boolean, integer, real, string, array, object };

  Json() = default;  // null
  Json(std::nullptr_t) {}
  Json(bool b) : v_(b) {}
  template <std::integral T>
    requires(!std::same_as<T, bool> && !std::same_as<T, char>)
  Json(T n) {
    if constexpr (std::is_signed_v<T>) {
      if (n < 0) {
        v_ = static_cast<int64_t>(n);
        return;
      }
    }
    v_ = static_cast<uint64_t>(n);
  }
  Json(double d) : v_(d) {}
  Json(std::string s) : v_(std::move(s)) {}
  Json(std::string_view s) : v_(std::string(s)) {}
  Json(const char *s) : v_(std::string(s)) {}

  static Json array() { return Json(Array{}); }
  static Json object() { return Json(Object{}); }
  Json(Array a) : v_(std::move(a)) {}
  Json(Object o) : v_(std::move(o)) {}

  Kind kind() const;
  bool is_null() const { return kind() == Kind::null; }

  // Typed reads: nullopt / nullptr when the value is of another kind or,
  // for integers, does not fit T. Never aborts.
  std::optional<bool> as_bool() const;
  template <std::integral T>
    requires(!std::same_as<T, bool>)
  std::optional<T> as_int() const {
    if (const auto *u = std::get_if<uint64_t>(&v_)) {
      if (std::in_range<T>(*u)) return static_cast<T>(*u);
    } else if (const auto *i = std::get_if<int64_t>(&v_)) {
      if (std::in_range<T>(*i)) return static_cast<T>(*i);
    }
    return std::nullopt;
  }
  std::optional<uint64_t> as_u64() const { return as_int<uint64_t>(); }
  std::optional<int64_t> as_i64() const { return as_int<int64_t>(); }
  std::optional<uint32_t> as_u32() const { return as_int<uint32_t>(); }
  std::optional<int32_t> as_i32() const { return as_int<int32_t>(); }
  std::optional<double> as_double() const;  // integers too (may round)
  const std::string *as_string() const { return std::get_if<std::string>(&v_); }
  const Array *as_array() const { return std::get_if<Array>(&v_); }
  Array *as_array() { return std::get_if<Array>(&v_); }
  const Object *as_object() const { return std::get_if<Object>(&v_); }
  Object *as_object() { return std::get_if<Object>(&v_); }

  // The member named key; nullptr if absent or this is not an object.
  const Json *find(std::string_view key) const;
  Json *find(std::string_view key);

  // Building. operator[] turns null into an empty object and adds a null
  // member at the end when key is new; push_back turns null into an empty
  // array. Using either on a value of another kind is a bug (TQ-BUG). The
  // reference operator[] returns lasts until the next member is added.
  Json &operator[](std::string_view key);
  void push_back(Json v);

  // Elements of an array or members of an object; 0 for anything else.
  std::size_t size() const;

  friend bool operator==(const Json &a, const Json &b);

 private:
  // A non-negative integer is always held as uint64_t and a negative one as
  // int64_t, so equal numbers compare equal.
  std::variant<std::nullptr_t, bool, int64_t, uint64_t, double, std::string, Array, Object> v_;
};

// The text of v: pretty = two-space indentation, one member or element per
// line (arrays of scalars stay on one line); otherwise no blanks at all.
// No trailing newline. A non-finite double is written as null.
std::string dump(const Json &v, bool pretty = true);

// Parses exactly one JSON value (surrounding whitespace allowed) into out.
// On failure returns false, leaves out null and says why.
[[nodiscard]] bool parse(std::string_view text, Json &out, std::string &why);

}  // namespace tqsim

#endif
