// The connection-log search answer over two replies: the input is cut in two
// (tqfuzz::split) and both halves go, as DATA replies, into one result, the
// string table carried from the first to the second. Each entry's texts are
// then looked up as the binding does.
#include <cstring>
#include <memory>

#include "harness.h"
#include "tq_list.h"
#include "tqdb_api_connlog.h"

namespace {
struct ResultFree {
  void operator()(tqdb_api_connlog_result_t *r) const { tqdb_api_connlog_result_free(r); }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqfuzz::install_bug_hook();
  const tqfuzz::Halves halves = tqfuzz::split(tqfuzz::Span(data, size));
  std::unique_ptr<tqdb_api_connlog_result_t, ResultFree> r(tqdb_api_connlog_result_new());
  tqfuzz::run_guarded([&] {
    for (const tqfuzz::Span half : {halves.first, halves.second}) {
      const tqfuzz::EnvPtr env = tqfuzz::make_data_env(half);
      (void)tqdb_api_connlog_search_handle(env.get(), r.get());
      if (strnlen(r->error, sizeof r->error) == sizeof r->error) __builtin_trap();
    }
    for (const tq_list_t *n = r->entries; n != nullptr; n = n->next) {
      const auto *e = static_cast<const tqdb_api_connlog_recv_entry_t *>(n->data);
      (void)std::strlen(tqdb_api_connlog_string(r.get(), e->service));
      (void)std::strlen(tqdb_api_connlog_string(r.get(), e->serverhostname));
      (void)tq_list_length(e->vnos);
    }
    if (r->has_meta)
      for (uint32_t i = 0; i < r->meta.n_matches; ++i) (void)r->meta.matches[i];
  });
  return 0;
}
