// Host triggers: rows and the fields of TQHostTriggerList.
#include "rows.h"
#include "tqdb_api_trigger.h"

namespace tqpy {

namespace {

using Trigger = tqdb_api_hosttrigger_t;
using Limits = tqdb_api_hosttrigger_limits_t;

#define TQ_LIMIT_FIELD(m, kind) TQ_FIELD(Trigger, limits.m, kind, #m)
// The dict keys of a host trigger, in this order.
constexpr Field kFields[] = {
    TQ_FIELD(Trigger, id, U32, "id"),
    TQ_FIELD(Trigger, name, Text, "name"),
    TQ_FIELD(Trigger, script, Text, "script"),
    TQ_LIMIT_FIELD(in_bw, U32),
    TQ_LIMIT_FIELD(out_bw, U32),
    TQ_LIMIT_FIELD(in_cps, U32),
    TQ_LIMIT_FIELD(out_cps, U32),
    TQ_LIMIT_FIELD(conns, U32),
    TQ_LIMIT_FIELD(uconns, U32),
    TQ_LIMIT_FIELD(uconn_rate, U32),
    TQ_LIMIT_FIELD(out_ttls, I32),
    TQ_LIMIT_FIELD(qoe_in_int, I32),
    TQ_LIMIT_FIELD(qoe_in_ext, I32),
    TQ_LIMIT_FIELD(qoe_out_int, I32),
    TQ_LIMIT_FIELD(qoe_out_ext, I32),
    TQ_LIMIT_FIELD(netobject, U32),
    TQ_LIMIT_FIELD(trigtype, I32),
};
#undef TQ_LIMIT_FIELD

// The fourteen arguments after the name (add) or the id (update), into the
// limits record: counts and rates unsigned, the TTL and quality figures
// and the type signed.
#define TQ_LIMIT(m, conv) field(#m, Conv::conv, TQ_AT(Limits, m))
#define TQ_LIMITS                                                                        \
  TQ_LIMIT(in_bw, U32), TQ_LIMIT(out_bw, U32), TQ_LIMIT(in_cps, U32),                    \
      TQ_LIMIT(out_cps, U32), TQ_LIMIT(conns, U32), TQ_LIMIT(uconns, U32),               \
      TQ_LIMIT(uconn_rate, U32), TQ_LIMIT(out_ttls, Int), TQ_LIMIT(qoe_in_int, Int),     \
      TQ_LIMIT(qoe_in_ext, Int), TQ_LIMIT(qoe_out_int, Int), TQ_LIMIT(qoe_out_ext, Int), \
      TQ_LIMIT(netobject, U32), TQ_LIMIT(trigtype, Int)

template <Name N, uint32_t (*Fn)(tqdb_api_msg_t *)>
OwnedRef id_body(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, N.s, ListId::ResultList, nullptr);
  return int_u64(env ? Fn(env) : 0);
}

const PyMethodDef kRows[] = {
    TQ_REQUEST("hosttrigger_list", &tqdb_api_hosttrigger_list,
               "hosttrigger_list() -> correlation id."),
    TQ_DECODE("hosttrigger_list_handle",
              "hosttrigger_list_handle(msg, l=None) -> l (a new TQHostTriggerList when None) "
              "with the reply's host triggers.",
              append_list_body, ListId::TQHostTriggerList, &tqdb_api_hosttrigger_list_handle),
    TQ_REQUEST("hosttrigger_add", &tqdb_api_hosttrigger_add,
               "hosttrigger_add(name, script, in_bw, out_bw, in_cps, out_cps, conns, uconns, "
               "uconn_rate, out_ttls, qoe_in_int, qoe_in_ext, qoe_out_int, qoe_out_ext, "
               "netobject, trigtype) -> correlation id. A threshold of 0 is not watched.",
               arg("name", Conv::Text, 0), arg("script", Conv::Text, 1), TQ_LIMITS),
    TQ_DECODE("hosttrigger_add_handle", "hosttrigger_add_handle(msg) -> the new trigger's id "
              "(0: none).",
              id_body, &tqdb_api_hosttrigger_add_handle),
    TQ_REQUEST("hosttrigger_remove", &tqdb_api_hosttrigger_remove,
               "hosttrigger_remove(id) -> correlation id.", arg("id", Conv::U32, 0)),
    TQ_REQUEST("hosttrigger_update", &tqdb_api_hosttrigger_update,
               "hosttrigger_update(id, script, in_bw, ..., trigtype) -> correlation id. "
               "Replaces the script and the thresholds; the name stays.",
               arg("id", Conv::U32, 0), arg("script", Conv::Text, 1), TQ_LIMITS),
};
#undef TQ_LIMIT
#undef TQ_LIMITS

}  // namespace

const std::span<const PyMethodDef> g_hosttrigger_rows{kRows};
const std::span<const Field> g_hosttrigger_fields{kFields};

}  // namespace tqpy
