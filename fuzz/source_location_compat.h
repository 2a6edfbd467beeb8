// std::source_location for clang 14 on libstdc++: the library's header only
// defines it when the compiler has __builtin_source_location (clang 15 and
// later). Forced into every translation unit of the fuzz build; with a
// compiler that has the builtin it does nothing. The older builtins give the
// same answers: in a default argument they name the outermost caller.
#ifndef TQ_FUZZ_SOURCE_LOCATION_COMPAT_H
#define TQ_FUZZ_SOURCE_LOCATION_COMPAT_H

#if defined(__cplusplus) && __cplusplus > 201703L && defined(__clang__) && \
    !__has_builtin(__builtin_source_location)
#include <cstdint>
#include <source_location>  // empty here; included so that it stays empty

namespace std {
struct source_location {
  static constexpr source_location current(const char *file = __builtin_FILE(),
                                           const char *func = __builtin_FUNCTION(),
                                           uint_least32_t line = __builtin_LINE(),
                                           uint_least32_t column = __builtin_COLUMN()) noexcept {
    source_location s;
    s.file_ = file, s.func_ = func, s.line_ = line, s.column_ = column;
    return s;
  }
  constexpr source_location() noexcept = default;
  constexpr const char *file_name() const noexcept { return file_; }
  constexpr const char *function_name() const noexcept { return func_; }
  constexpr uint_least32_t line() const noexcept { return line_; }
  constexpr uint_least32_t column() const noexcept { return column_; }

 private:
  const char *file_ = "";
  const char *func_ = "";
  uint_least32_t line_ = 0;
  uint_least32_t column_ = 0;
};
}  // namespace std
#endif

#endif
