// Rule conditions: rows, TQRuleConditionList fields, condition items.
#include "rows.h"

namespace tqpy {

std::vector<tqdb_api_rule_condition_item_t> condition_items(PyObject *items) {
  auto seq = OwnedRef::check(PySequence_Fast(items, "items: expected a sequence"));
  std::vector<tqdb_api_rule_condition_item_t> out;
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(seq.get()); ++i) {
    PyObject *o = PySequence_Fast_GET_ITEM(seq.get(), i);
    OwnedRef type, id;
    if (PyTuple_Check(o) || PyList_Check(o)) {
      // A (conditiontype, objectid) pair.
      if (PySequence_Size(o) != 2)
        raise_text(PyExc_ValueError, "an item pair is (conditiontype, objectid)");
      type = OwnedRef::check(PySequence_GetItem(o, 0));
      id = OwnedRef::check(PySequence_GetItem(o, 1));
    } else {
      type = get_attr(o, "conditiontype");
      id = get_attr(o, "objectid");
    }
    out.push_back({static_cast<uint8_t>(arg_as_int(type.get())),
                   static_cast<uint32_t>(arg_as_int(id.get()))});
  }
  return out;
}

namespace {

// ruleconditions_list_handle(msg, l=None): the decoder's state is rebuilt
// from l each call (the current condition is the head: the last one read),
// so items that open the next reply attach to it.
OwnedRef conditions_list_body(SessionObject *, PyObject *args, PyObject *kwds) {
  OwnedRef l;
  tqdb_api_msg_t *env =
      decoder_args(args, kwds, "ruleconditions_list_handle", ListId::TQRuleConditionList, &l);
  ResultListObject *list = as_result_list(l.get());
  tqdb_api_ruleconditions_state_t state{
      list->list,
      list->list ? static_cast<tqdb_api_rule_condition_t *>(list->list->data) : nullptr};
  // false (an item before any condition) keeps what was read before.
  if (env) (void)tqdb_api_ruleconditions_list_handle(env, &state);
  list->list = state.list;
  list->tail = nullptr;
  return l;
}

using RC = tqdb_api_rule_condition_t;
constexpr Field kFields[] = {
    TQ_FIELD(RC, id, U32, "id"),
    TQ_FIELD(RC, name, Text, "name"),
    TQ_FIELD(RC, op, U8, "operator"),
    TQ_AUDIT_FIELDS(RC),
    TQ_FIELD(RC, items, CondItems, "items"),
};

constexpr auto kId = arg("id", Conv::Int, 0);

const PyMethodDef kRows[] = {
    TQ_REQUEST("ruleconditions_list", &tqdb_api_ruleconditions_list,
               "ruleconditions_list() -> correlation id."),
    TQ_METHOD("TQDBv17_1.Session.ruleconditions_list_handle", "ruleconditions_list_handle",
              SessionObject, conditions_list_body,
              "ruleconditions_list_handle(msg, l=None) -> l (a new TQRuleConditionList when "
              "None) with the reply's conditions and items."),
    TQ_REQUEST("ruleconditions_add", &tqdb_api_ruleconditions_add,
               "ruleconditions_add(name, op) -> correlation id.", arg("name", Conv::Text, 0),
               arg("op", Conv::Int, 1)),
    TQ_DECODE("ruleconditions_add_handle", "ruleconditions_add_handle(msg) -> (new id, timestamp).",
              add_body, &tqdb_api_ruleset_add_handle),
    TQ_REQUEST("ruleconditions_remove", &tqdb_api_ruleconditions_remove,
               "ruleconditions_remove(id) -> correlation id.", kId),
    TQ_DECODE("ruleconditions_remove_handle", "ruleconditions_remove_handle(msg) -> timestamp.",
              timestamp_body, &tqdb_api_ruleconditions_timestamp_handle),
    TQ_REQUEST("ruleconditions_rename", &tqdb_api_ruleconditions_rename,
               "ruleconditions_rename(id, name) -> correlation id.", kId,
               arg("name", Conv::Text, 1)),
    TQ_DECODE("ruleconditions_rename_handle", "ruleconditions_rename_handle(msg) -> timestamp.",
              timestamp_body, &tqdb_api_ruleconditions_timestamp_handle),
    TQ_REQUEST("ruleconditions_set_items", &tqdb_api_ruleconditions_set_items,
               "ruleconditions_set_items(id, items) -> correlation id; items are Item objects "
               "or (conditiontype, objectid) pairs.",
               kId, arg("items", Conv::Conds, 1)),
    TQ_DECODE("ruleconditions_set_items_handle",
              "ruleconditions_set_items_handle(msg) -> timestamp.", timestamp_body,
              &tqdb_api_ruleconditions_timestamp_handle),
};

}  // namespace

const std::span<const PyMethodDef> g_ruleconditions_rows{kRows};
const std::span<const Field> g_rulecondition_fields{kFields};

}  // namespace tqpy
