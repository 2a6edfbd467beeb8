// Every family's reply decoders, one table. The first input byte picks a
// row; the rest is cut in two (tqfuzz::split) and decoded as two DATA replies
// of one answer, so that each list decoder also runs its continuation path
// (the second reply decoded into the list the first one built). The list is
// then released with its family's free function.
//
// Rows are only ever appended: a seed's first byte names its row by index.
#include <cstring>
#include <memory>
#include <span>

#include "harness.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tqdb_api_backup.h"
#include "tqdb_api_channel.h"
#include "tqdb_api_config.h"
#include "tqdb_api_connlog.h"
#include "tqdb_api_fileserv.h"
#include "tqdb_api_ruleset.h"
#include "tqdb_api_statreader.h"
#include "tqdb_api_sysdiag.h"
#include "tqdb_api_system_overview.h"
#include "tqdb_api_trigger.h"
#include "tqdb_api_user.h"

namespace {

using Env = tqdb_api_msg_t;
using Replies = std::span<Env *const>;

// A decoded text must end inside its buffer, whatever the reply held.
void check_text(const char *buf, size_t size) {
  if (strnlen(buf, size) == size) __builtin_trap();
}

// The head of the list a node belongs to. A decoder stopped by a deliberate
// abort may have put records in front of the head it was given; walking back
// lets the owner release those too.
template <class T>
T *head_of(T *p) { return p; }
tq_list_t *head_of(tq_list_t *l) {
  while (l != nullptr && l->prev != nullptr) l = l->prev;
  return l;
}

template <class T, void (*Free)(T *)>
struct Freer {
  void operator()(T *p) const { Free(head_of(p)); }
};

template <class T>
T *nothing() { return nullptr; }

// The live-view decoder puts each view in front of the list it is given,
// and its abort leaves them in a list it never returns. Started on a list
// that holds a placeholder view, the answer stays reachable from the
// placeholder (head_of). The placeholder takes the parts that name its id,
// as any view would.
tq_list_t *placeholder_view() {
  auto *v = static_cast<tqdb_api_dynamicliveview_t *>(
      tq_zalloc("tqdb_api_dynamicliveview_t", sizeof(tqdb_api_dynamicliveview_t)));
  v->id = 0xFFFFFFFF;
  return tq_list_new(0, nullptr, v);
}

// "Give the answer so far, keep what comes back": lists, statistics lists
// and graphs all continue this way; nullptr leaves the kept result alone.
template <class T, T *(*Decode)(Env *, T *), void (*Free)(T *), T *(*Start)() = nothing<T>>
void keep(Replies rs) {
  std::unique_ptr<T, Freer<T, Free>> kept(Start());
  for (Env *e : rs)
    if (T *r = Decode(e, kept.get()); r != nullptr && r != kept.get()) {
      (void)kept.release();  // continued into r, or released by the decoder
      kept.reset(r);
    }
}

// Decoders of one reply that make a result of their own.
template <class T, T *(*Decode)(Env *), void (*Free)(T *)>
void each_own(Replies rs) {
  for (Env *e : rs) std::unique_ptr<T, Freer<T, Free>> r(Decode(e));
}

void ruleconditions(Replies rs) {
  tqdb_api_ruleconditions_state_t st{};
  struct Owner {  // the state's list, however the decoding ended
    tqdb_api_ruleconditions_state_t &st;
    ~Owner() { tqdb_api_ruleconditions_list_free(head_of(st.list)); }
  } owner{st};
  for (Env *e : rs) (void)tqdb_api_ruleconditions_list_handle(e, &st);
}

// A download writes into a sink that takes everything; the announced size
// is carried from reply to reply.
template <int (*Decode)(Env *, tqdb_api_transfer_output_t, uint32_t *)>
void download(Replies rs) {
  size_t written = 0;
  const tqdb_api_transfer_output_t out{
      [](void *ctx, const void *, size_t n) {
        *static_cast<size_t *>(ctx) += n;
        return true;
      },
      &written};
  uint32_t insize = 0;
  for (Env *e : rs) (void)Decode(e, out, &insize);
}

struct Row {
  const char *name;
  uint32_t code;                 // wire code of the replies made
  void (*answer)(Replies);       // decodes both replies as one answer
  void (*each)(Env *);           // or: decodes each reply by itself
};

constexpr uint32_t kData = TQDB_REPLY_DATA;

#define LIST(decode, free) Row{#decode, kData, keep<tq_list_t, decode, free>, nullptr}
#define FLAT(decode) LIST(decode, tq_list_free_with_data)
#define EACH(name, code, ...) Row{name, code, nullptr, [](Env *e) { __VA_ARGS__; }}

constexpr Row kRows[] = {
    // ruleset families
    LIST(tqdb_api_object_list_handle, tqdb_api_object_list_free),
    FLAT(_tqdb_api_ruleset_attr_list_handle),
    LIST(tqdb_api_shapingobject_list_handle, tqdb_api_shapingobject_list_free),
    LIST(tqdb_api_statisticsobject_list_handle, tqdb_api_statisticsobject_list_free),
    LIST(tqdb_api_ipfixobject_list_handle, tqdb_api_ipfixobject_list_free),
    LIST(tqdb_api_fwrule_list_handle, tqdb_api_fwrule_list_free),
    LIST(tqdb_api_shapingrule_list_handle, tqdb_api_shapingrule_list_free),
    LIST(tqdb_api_statisticsrule_list_handle, tqdb_api_statisticsrule_list_free),
    Row{"tqdb_api_ruleconditions_list_handle", kData, ruleconditions, nullptr},
    Row{"tqdb_api_dynamicliveview_list_handle", kData,
        keep<tq_list_t, tqdb_api_dynamicliveview_list_handle, tqdb_api_dynamicliveview_list_free,
             placeholder_view>, nullptr},
    EACH("tqdb_api_ruleset_timestamp_handle", kData, char b[TQDB_API_TIMESTAMP_SIZE];
         (void)tqdb_api_ruleset_timestamp_handle(e, b); check_text(b, sizeof b)),
    EACH("tqdb_api_ruleset_add_handle", kData, char b[TQDB_API_TIMESTAMP_SIZE]; uint32_t id;
         (void)tqdb_api_ruleset_add_handle(e, &id, b); check_text(b, sizeof b)),
    EACH("tqdb_api_ruleset_text_handle", kData, char b[TQDB_API_COMMENTS_SIZE];
         if (tqdb_api_ruleset_text_handle(e, b, sizeof b)) check_text(b, sizeof b)),
    EACH("tqdb_api_object_copy_handle", kData, tqdb_api_object_copy_res_t r{};
         (void)tqdb_api_object_copy_handle(e, &r); tq_list_free_with_data(r.entries)),
    // statistics reader
    Row{"tqdb_api_statreader_list_handle", kData,
        keep<tqdb_api_statreader_list_t, tqdb_api_statreader_list_handle,
             tqdb_api_statreader_list_free>, nullptr},
    Row{"tqdb_api_statreader_graph_handle", kData,
        keep<tqdb_api_statreader_graph_t, tqdb_api_statreader_graph_handle,
             tqdb_api_statreader_graph_free>, nullptr},
    Row{"tqdb_api_statreader_subscriber_count_graph_handle", kData,
        keep<tqdb_api_statreader_graph_t, tqdb_api_statreader_subscriber_count_graph_handle,
             tqdb_api_statreader_graph_free>, nullptr},
    FLAT(tqdb_api_statreader_transfer_get_handle),
    FLAT(tqdb_api_statreader_list_duration_handle),
    FLAT(tqdb_api_statreader_subscriber_count_list_handle),
    FLAT(tqdb_api_statreader_subitem_count_handle),
    FLAT(tqdb_api_statreader_subitem_count_list_handle),
    FLAT(tqdb_api_statreader_names_list_handle),
    FLAT(tqdb_api_statreader_writer_status_handle),
    FLAT(tqdb_api_statreader_peak_list_handle),
    FLAT(tqdb_api_statreader_activity_handle),
    FLAT(tqdb_api_statreader_date_list_handle),
    EACH("tqdb_api_statreader_subscriber_count_handle", kData,
         (void)tqdb_api_statreader_subscriber_count_handle(e)),
    EACH("tqdb_api_statreader_get_flags_handle", kData, (void)tqdb_api_statreader_get_flags_handle(e)),
    Row{"tqdb_api_statistics_list_fields_handle", kData,
        each_own<tqdb_api_statistics_fields_t, tqdb_api_statistics_list_fields_handle,
                 tqdb_api_statistics_fields_free>, nullptr},
    FLAT(tqdb_api_statistics_list_valuetypes_handle),
    // system diagnostics
    FLAT(tqdb_api_sysdiag_level_list_handle),
    FLAT(tqdb_api_sysdiag_malloc_usage_list_handle),
    FLAT(tqdb_api_sysdiag_malloc_usage_get_handle),
    FLAT(tqdb_api_sysdiag_zone_list_handle),
    FLAT(tqdb_api_sysdiag_zone_get_handle),
    FLAT(tqdb_api_sysdiag_zone_alerted_zones_handle),
    FLAT(tqdb_api_sysdiag_zone_value_get_handle),
    FLAT(tqdb_api_sysdiag_log_list_handle),
    FLAT(tqdb_api_sysdiag_zone_get_enum_values_handle),
    EACH("tqdb_api_sysdiag_zone_version_handle", kData, uint32_t v;
         (void)tqdb_api_sysdiag_zone_version_handle(e, &v)),
    EACH("tqdb_api_sysdiag_zone_system_name_get_handle", kData, char b[64];
         if (tqdb_api_sysdiag_zone_system_name_get_handle(e, b, sizeof b)) check_text(b, sizeof b)),
    // users
    LIST(tqdb_api_user_list_handle, tqdb_api_user_list_free),
    LIST(tqdb_api_user_pubkey_list_handle, tqdb_api_user_list_free),
    EACH("tqdb_api_user_add_handle", kData, (void)tqdb_api_user_add_handle(e)),
    EACH("tqdb_api_user_auth_handle", kData, (void)tqdb_api_user_auth_handle(e)),
    // file service and backups
    LIST(tqdb_api_fileserv_types_handle, tqdb_api_fileserv_list_free),
    LIST(tqdb_api_fileserv_list_handle, tqdb_api_fileserv_list_free),
    Row{"tqdb_api_fileserv_download_handle", kData, download<tqdb_api_fileserv_download_handle>,
        nullptr},
    EACH("tqdb_api_fileserv_area_usage_handle", kData, uint64_t u, a;
         (void)tqdb_api_fileserv_area_usage_handle(e, &u, &a)),
    LIST(tqdb_api_backup_list_handle, tqdb_api_backup_list_free),
    Row{"tqdb_api_backup_download_handle", kData, download<tqdb_api_backup_download_handle>,
        nullptr},
    EACH("tqdb_api_backup_dump_handle", kData, char b[128];
         if (tqdb_api_backup_dump_handle(e, b, sizeof b) != nullptr) check_text(b, sizeof b)),
    // channels, labels, monitor interfaces
    FLAT(tqdb_api_channel_list_handle),
    FLAT(tqdb_api_channel_link_states_handle),
    LIST(tqdb_api_channel_label_list_handle, tqdb_api_channel_label_list_free),
    FLAT(tqdb_api_monitoriface_list_handle),
    EACH("tqdb_api_channel_stats_handle", kData, uint64_t out[TQDB_API_CHANNEL_STATS_FIELDS];
         (void)tqdb_api_channel_stats_handle(e, out)),
    EACH("tqdb_api_channel_label_add_handle", kData, (void)tqdb_api_channel_label_add_handle(e)),
    // configuration, services, features, log facilities
    LIST(tqdb_api_config_list_handle, tqdb_api_config_list_free),
    LIST(tqdb_api_config_category_list_handle, tqdb_api_config_list_free),
    LIST(tqdb_api_config_flags_list_handle, tqdb_api_config_list_free),
    LIST(tqdb_api_log_facility_list_handle, tqdb_api_config_list_free),
    LIST(tqdb_api_services_list_handle, tqdb_api_config_list_free),
    LIST(tqdb_api_services_prop_list_handle, tqdb_api_config_list_free),
    EACH("tqdb_api_system_time_handle", kData, (void)tqdb_api_system_time_handle(e)),
    EACH("tqdb_api_features_get_handle", kData, (void)tqdb_api_features_get_handle(e)),
    EACH("tqdb_api_restarting_handle", TQDB_REPLY_RESTARTING, char b[TQDB_API_NOTICE_REASON_SIZE];
         if (tqdb_api_restarting_handle(e, b, sizeof b)) check_text(b, sizeof b)),
    EACH("tqdb_api_reloading_handle", TQDB_REPLY_RELOADING, char b[TQDB_API_NOTICE_REASON_SIZE];
         if (tqdb_api_reloading_handle(e, b, sizeof b)) check_text(b, sizeof b)),
    // system overview
    FLAT(tqdb_api_system_overview_template_list_handle),
    LIST(tqdb_api_system_overview_list_handle, tqdb_api_system_overview_list_free),
    FLAT(tqdb_api_system_overview_system_graph_handle),
    FLAT(tqdb_api_system_overview_sysinfo_list_systems_handle),
    Row{"tqdb_api_system_overview_sysinfo_get_system_handle", kData,
        each_own<tq_list_t, tqdb_api_system_overview_sysinfo_get_system_handle,
                 tq_list_free_with_data>, nullptr},
    // triggers
    LIST(tqdb_api_hosttrigger_list_handle, tqdb_api_trigger_list_free),
    LIST(tqdb_api_connprot_trigger_list_handle, tqdb_api_trigger_list_free),
    EACH("tqdb_api_hosttrigger_add_handle", kData, (void)tqdb_api_hosttrigger_add_handle(e)),
    EACH("tqdb_api_connprot_trigger_add_handle", kData,
         (void)tqdb_api_connprot_trigger_add_handle(e)),
    // connection log lists (the search answer has a target of its own)
    LIST(tqdb_api_connlog_servicelist_handle, tqdb_api_connlog_list_free),
    LIST(tqdb_api_connlog_daylist_handle, tqdb_api_connlog_list_free),
    EACH("tqdb_api_connlog_count_handle", kData, (void)tqdb_api_connlog_count_handle(e)),
};
#undef LIST
#undef FLAT
#undef EACH

// A DATA reply gets a zero header in front of its body; a notice has none.
tqfuzz::EnvPtr reply(uint32_t code, tqfuzz::Span body) {
  return code == kData ? tqfuzz::make_data_env(body) : tqfuzz::make_env(body, code);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tqfuzz::install_bug_hook();
  if (size == 0) return 0;
  const Row &row = kRows[data[0] % std::size(kRows)];
  const auto [first, second] = tqfuzz::split(tqfuzz::Span(data, size).subspan(1));
  tqfuzz::EnvPtr a = reply(row.code, first), b = reply(row.code, second);
  Env *envs[] = {a.get(), b.get()};
  // An envelope the parser refused is no reply; the other one still counts.
  Env *got[2];
  size_t n = 0;
  for (Env *e : envs)
    if (e != nullptr) got[n++] = e;
  tqfuzz::run_guarded([&] {
    if (row.answer != nullptr) {
      row.answer(Replies(got, n));
    } else {
      for (size_t i = 0; i < n; ++i) row.each(got[i]);
    }
  });
  return 0;
}
