// Connection-protection triggers: rows and the fields of
// TQConnprotTriggerList.
#include "rows.h"
#include "tqdb_api_trigger.h"

namespace tqpy {

namespace {

using Trigger = tqdb_api_connprot_trigger_t;

constexpr Field kFields[] = {
    TQ_FIELD(Trigger, id, U32, "id"),
    TQ_FIELD(Trigger, name, Text, "name"),
    TQ_FIELD(Trigger, script, Text, "script"),
};

template <Name N, uint32_t (*Fn)(tqdb_api_msg_t *)>
OwnedRef id_body(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, N.s, ListId::ResultList, nullptr);
  return int_u64(env ? Fn(env) : 0);
}

constexpr auto kId = arg("id", Conv::U32, 0);

const PyMethodDef kRows[] = {
    TQ_REQUEST("connprot_trigger_list", &tqdb_api_connprot_trigger_list,
               "connprot_trigger_list() -> correlation id."),
    TQ_DECODE("connprot_trigger_list_handle",
              "connprot_trigger_list_handle(msg, l=None) -> l (a new TQConnprotTriggerList "
              "when None) with the reply's triggers.",
              append_list_body, ListId::TQConnprotTriggerList,
              &tqdb_api_connprot_trigger_list_handle),
    TQ_REQUEST("connprot_trigger_add", &tqdb_api_connprot_trigger_add,
               "connprot_trigger_add(name, script) -> correlation id.",
               arg("name", Conv::Text, 0), arg("script", Conv::Text, 1)),
    TQ_DECODE("connprot_trigger_add_handle",
              "connprot_trigger_add_handle(msg) -> the new trigger's id (0: none).", id_body,
              &tqdb_api_connprot_trigger_add_handle),
    TQ_REQUEST("connprot_trigger_remove", &tqdb_api_connprot_trigger_remove,
               "connprot_trigger_remove(id) -> correlation id.", kId),
    TQ_REQUEST("connprot_trigger_rename", &tqdb_api_connprot_trigger_rename,
               "connprot_trigger_rename(id, newname) -> correlation id.", kId,
               arg("newname", Conv::Text, 1)),
    TQ_REQUEST("connprot_trigger_update", &tqdb_api_connprot_trigger_update,
               "connprot_trigger_update(id, script) -> correlation id.", kId,
               arg("script", Conv::Text, 1)),
};

}  // namespace

const std::span<const PyMethodDef> g_connprot_trigger_rows{kRows};
const std::span<const Field> g_connprot_trigger_fields{kFields};

}  // namespace tqpy
