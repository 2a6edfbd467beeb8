// The columnar query stream fed in random slices. The first input byte
// seeds the slicing: its low two bits choose the largest slice (7, 64, 512 or
// 4096 bytes, so that frame headers, columns and whole frames are all cut),
// bit 2 leaves every callback out (frames are then only skipped); the rest
// of the input is the stream, handed to one state reply after reply. Every
// row delivered is read back column by column through the typed getter of
// the column's type, as the binding does.
#include <array>
#include <cstring>

#include "harness.h"
#include "tqdb_api_query.h"

namespace {

using State = tqdb_api_statreader_query_state_t;

// One getter per column type, indexed by the type.
using Getter = void (*)(const State *, unsigned);
#define GETTER(name) [](const State *s, unsigned c) { (void)tqdb_api_statreader_query_get_##name(s, c); }
constexpr std::array<Getter, TQDB_QUERY_COL_NUM_TYPES> kGetters{
    GETTER(bool),   GETTER(uint8),  GETTER(int8),  GETTER(uint16), GETTER(int16),  GETTER(uint32),
    GETTER(int32),  GETTER(uint64), GETTER(int64), GETTER(float),  GETTER(double),
    [](const State *s, unsigned c) {
      uint32_t n = 0;
      const uint8_t *b = tqdb_api_statreader_query_get_bytes(s, c, &n);
      volatile uint8_t sink = 0;
      for (uint32_t i = 0; i < n; ++i) sink = sink ^ b[i];  // every byte must be there
    },
};
#undef GETTER

void on_row(void *, const State *s) {
  for (unsigned c = 0; c < s->desc->count; ++c) {
    uint8_t null = 0;
    if (tqdb_api_statreader_query_col_is_null(s, c, &null) != 1) __builtin_trap();
    if (const uint16_t type = s->desc->cols[c].type; type < kGetters.size()) kGetters[type](s, c);
  }
}

constexpr tqdb_api_statreader_query_cb_t kCallbacks{
    nullptr,
    [](void *, const char *text) { (void)std::strlen(text); },
    [](void *, const uint8_t *b, uint32_t n) {
      volatile uint8_t sink = 0;
      for (uint32_t i = 0; i < n; ++i) sink = sink ^ b[i];
    },
    [](void *, const tqdb_api_statreader_query_row_desc_t *d) {
      for (uint16_t i = 0; i < d->count; ++i) (void)d->cols[i].type;
    },
    on_row,
    [](void *) {},
    [](void *) {},
    [](void *, uint8_t, uint32_t) {},
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqfuzz::install_bug_hook();
  tqfuzz::Reader in(tqfuzz::Span(data, size));
  const uint8_t seed = in.u8();
  constexpr std::array<uint32_t, 4> kLargest{7, 64, 512, 4096};
  const uint32_t largest = kLargest[seed & 3];
  const tqdb_api_statreader_query_cb_t *cb = (seed & 4) != 0 ? nullptr : &kCallbacks;
  tqdb_api_statreader_query_state_ptr state(tqdb_api_statreader_query_state_new());
  uint32_t x = seed | 0x9E3779B9u;  // xorshift: slice sizes, 0 included
  tqfuzz::run_guarded([&] {
    do {
      x ^= x << 13, x ^= x >> 17, x ^= x << 5;
      const tqfuzz::EnvPtr env = tqfuzz::make_data_env(in.take(x % (largest + 1)));
      if (env == nullptr) __builtin_trap();
      if (!tqdb_api_statreader_query_handle_msg(state.get(), cb, env.get())) __builtin_trap();
    } while (!in.empty());
  });
  return 0;
}
