// Firewall, shaping and statistics rules and rule attributes: rows and the
// fields of TQFwList, TQShapingList and TQStatisticsList.
#include "rows.h"

namespace tqpy {

namespace {

using Fw = tqdb_api_fwrule_t;
using Sh = tqdb_api_shapingrule_t;
using St = tqdb_api_statisticsrule_t;

constexpr Field kFwFields[] = {
    TQ_FIELD(Fw, id, U32, "id"),
    TQ_FIELD(Fw, name, Text, "name"),
    TQ_FIELD(Fw, rulecondition, U32, "rulecondition"),
    TQ_FIELD(Fw, action, U32, "action"),
    TQ_FIELD(Fw, quick, Flag, "quick"),
    TQ_FIELD(Fw, log_level, U8, "log_level"),
    TQ_FIELD(Fw, rewriteobject, U32, "rewriteobject"),
    TQ_FIELD(Fw, enrichobject, U32, "enrichobject"),
    TQ_FIELD(Fw, monitor_iface, U32, "monitor_iface"),
    TQ_FIELD(Fw, monitor_label, Text, "monitor_label"),
    TQ_FIELD(Fw, divert_label, Text, "divert_label"),
    TQ_FIELD(Fw, position, U32, "position"),
    TQ_FIELD(Fw, orderby, U32, "orderby"),
    TQ_FIELD(Fw, inject_data, Text, "inject_data"),
    TQ_FIELD(Fw, trigger, Text, "trigger"),
    TQ_FIELD(Fw, active, Flag, "active"),
    TQ_AUDIT_FIELDS(Fw),
};

constexpr Field kShapingFields[] = {
    TQ_FIELD(Sh, id, U32, "id"),
    TQ_FIELD(Sh, name, Text, "name"),
    TQ_FIELD(Sh, rulecondition, U32, "rulecondition"),
    TQ_FIELD(Sh, priority, U8, "priority"),
    TQ_FIELD(Sh, precedence, U8, "precedence"),
    TQ_FIELD(Sh, fair_factor, U8, "fair_factor"),
    TQ_FIELD(Sh, active, Flag, "active"),
    TQ_AUDIT_FIELDS(Sh),
    TQ_FIELD(Sh, objects, IntList, "objects"),
};

constexpr Field kStatisticsFields[] = {
    TQ_FIELD(St, id, U32, "id"),
    TQ_FIELD(St, name, Text, "name"),
    TQ_FIELD(St, rulecondition, U32, "rulecondition"),
    TQ_FLAG_BIT(St, flags, TQDB_STATISTICSRULE_ACTIVE, "active"),
    TQ_AUDIT_FIELDS(St),
    TQ_FIELD(St, statisticsobjects, IntList, "statisticsobjects"),
    TQ_FIELD(St, ipfixobjects, IntList, "ipfixobjects"),
    TQ_FLAG_BIT(St, flags, TQDB_STATISTICSRULE_CONNLOG, "connlog"),
    TQ_FLAG_BIT(St, flags, TQDB_STATISTICSRULE_INSIGHTS_TRAFFIC, "insights_traffic"),
};

constexpr auto kI = arg("i", Conv::Int, 0);
constexpr auto kRule = arg("rule", Conv::Int, 0);

// The firewall fields after the action, as add and update take them.
#define TQ_FW_FIELDS                                                                          \
  field("quick", Conv::Int, TQ_AT(Fw, quick)), field("log", Conv::Int, TQ_AT(Fw, log_level)), \
      field("rewriteobject", Conv::Int, TQ_AT(Fw, rewriteobject)).opt(),                      \
      field("enrichobject", Conv::Int, TQ_AT(Fw, enrichobject)).opt(),                        \
      field("monitor_iface", Conv::Int, TQ_AT(Fw, monitor_iface)).opt(),                      \
      field("monitor_label", Conv::Text, TQ_AT(Fw, monitor_label)).opt(),                     \
      field("divert_label", Conv::Text, TQ_AT(Fw, divert_label)).opt(),                       \
      field("inject_data", Conv::Text, TQ_AT(Fw, inject_data)).opt(),                         \
      field("trigger", Conv::Text, TQ_AT(Fw, trigger)).opt(),                                 \
      field("rulecondition", Conv::Int, TQ_AT(Fw, rulecondition)).opt()

#define TQ_SHAPING_RULE_FIELDS                                          \
  field("priority", Conv::Int, TQ_AT(Sh, priority)),                     \
      field("precedence", Conv::Int, TQ_AT(Sh, precedence)),             \
      field("fair_factor", Conv::Int, TQ_AT(Sh, fair_factor)),           \
      field("rulecondition", Conv::Int, TQ_AT(Sh, rulecondition)).opt()

// The requests every rule family has, with their decoders.
#define TQ_RULE_COMMON(family)                                                                 \
  TQ_REQUEST(#family "_list", &tqdb_api_##family##_list, #family "_list() -> correlation id."), \
      TQ_DECODE(#family "_add_handle", #family "_add_handle(msg) -> (new id, timestamp).",      \
                add_body, &tqdb_api_ruleset_add_handle),                                       \
      TQ_DECODE(#family "_update_handle", #family "_update_handle(msg) -> timestamp.",          \
                timestamp_body, &tqdb_api_ruleset_timestamp_handle),                           \
      TQ_REQUEST(#family "_remove", &tqdb_api_##family##_remove,                               \
                 #family "_remove(i) -> correlation id.", kI),                                 \
      TQ_REQUEST(#family "_rename", &tqdb_api_##family##_rename,                               \
                 #family "_rename(i, newname) -> correlation id.", kI,                         \
                 arg("newname", Conv::Text, 1)),                                               \
      TQ_DECODE(#family "_rename_handle", #family "_rename_handle(msg) -> timestamp.",          \
                timestamp_body, &tqdb_api_ruleset_timestamp_handle),                           \
      TQ_REQUEST(#family "_set_active", &tqdb_api_##family##_set_active,                       \
                 #family "_set_active(i, active) -> correlation id.", kI,                      \
                 arg("active", Conv::Int, 1)),                                                 \
      TQ_DECODE(#family "_set_active_handle", #family "_set_active_handle(msg) -> timestamp.",  \
                timestamp_body, &tqdb_api_ruleset_timestamp_handle)

const PyMethodDef kRows[] = {
    TQ_RULE_COMMON(fwrule),
    TQ_DECODE("fwrule_list_handle",
              "fwrule_list_handle(msg, l=None) -> l (a new TQFwList when None) with the "
              "reply's rules.",
              list_body, ListId::TQFwList, &tqdb_api_fwrule_list_handle),
    TQ_REQUEST("fwrule_add", &tqdb_api_fwrule_add,
               "fwrule_add(name, action, quick, log, rewriteobject=0, enrichobject=0, "
               "monitor_iface=0, monitor_label='', divert_label='', inject_data='', trigger='', "
               "rulecondition=0) -> correlation id.",
               field("name", Conv::Text, TQ_AT(Fw, name)),
               field("action", Conv::Int, TQ_AT(Fw, action)), TQ_FW_FIELDS),
    TQ_REQUEST("fwrule_update", &tqdb_api_fwrule_update,
               "fwrule_update(i, action, quick, log, rewriteobject, enrichobject, monitor_iface, "
               "monitor_label, divert_label, inject_data, trigger, rulecondition) -> "
               "correlation id.",
               field("i", Conv::Int, TQ_AT(Fw, id)),
               field("action", Conv::Int, TQ_AT(Fw, action)), TQ_FW_FIELDS),
    TQ_REQUEST("fwrule_position_swap", &tqdb_api_fwrule_position_swap,
               "fwrule_position_swap(rule1, rule2) -> correlation id.",
               arg("rule1", Conv::Int, 0), arg("rule2", Conv::Int, 1)),
    TQ_DECODE("fwrule_position_swap_handle", "fwrule_position_swap_handle(msg) -> timestamp.",
              timestamp_body, &tqdb_api_ruleset_timestamp_handle),

    TQ_RULE_COMMON(shapingrule),
    TQ_DECODE("shapingrule_list_handle",
              "shapingrule_list_handle(msg, l=None) -> l (a new TQShapingList when None) with "
              "the reply's rules.",
              list_body, ListId::TQShapingList, &tqdb_api_shapingrule_list_handle),
    TQ_REQUEST("shapingrule_add", &tqdb_api_shapingrule_add,
               "shapingrule_add(name, priority, precedence, fair_factor, rulecondition=0) -> "
               "correlation id.",
               field("name", Conv::Text, TQ_AT(Sh, name)), TQ_SHAPING_RULE_FIELDS),
    TQ_REQUEST("shapingrule_update", &tqdb_api_shapingrule_update,
               "shapingrule_update(i, priority, precedence, fair_factor, rulecondition=0) -> "
               "correlation id.",
               field("i", Conv::Int, TQ_AT(Sh, id)), TQ_SHAPING_RULE_FIELDS),
    TQ_REQUEST("shapingrule_set_objects", &tqdb_api_shapingrule_set_objects,
               "shapingrule_set_objects(rule, objects) -> correlation id.", kRule,
               arg("objects", Conv::IntSeq, 1)),
    TQ_DECODE("shapingrule_set_objects_handle",
              "shapingrule_set_objects_handle(msg) -> timestamp.", timestamp_body,
              &tqdb_api_ruleset_timestamp_handle),

    TQ_RULE_COMMON(statisticsrule),
    TQ_DECODE("statisticsrule_list_handle",
              "statisticsrule_list_handle(msg, l=None) -> l (a new TQStatisticsList when None) "
              "with the reply's rules.",
              list_body, ListId::TQStatisticsList, &tqdb_api_statisticsrule_list_handle),
    TQ_REQUEST("statisticsrule_add", &tqdb_api_statisticsrule_add,
               "statisticsrule_add(name, connlog, insights_traffic, rulecondition=0) -> "
               "correlation id.",
               arg("name", Conv::Text, 0), arg("connlog", Conv::Int, 2),
               arg("insights_traffic", Conv::Int, 3), arg("rulecondition", Conv::Int, 1).opt()),
    TQ_REQUEST("statisticsrule_update", &tqdb_api_statisticsrule_update,
               "statisticsrule_update(i, connlog, insights_traffic, rulecondition=0) -> "
               "correlation id.",
               kI, arg("connlog", Conv::Int, 2), arg("insights_traffic", Conv::Int, 3),
               arg("rulecondition", Conv::Int, 1).opt()),
    TQ_REQUEST("statisticsrule_set_objects", &tqdb_api_statisticsrule_set_objects,
               "statisticsrule_set_objects(rule, statisticsobjects, ipfixobjects) -> "
               "correlation id.",
               kRule, arg("statisticsobjects", Conv::IntSeq, 1),
               arg("ipfixobjects", Conv::IntSeq, 2)),
    TQ_DECODE("statisticsrule_set_objects_handle",
              "statisticsrule_set_objects_handle(msg) -> timestamp.", timestamp_body,
              &tqdb_api_ruleset_timestamp_handle),

    TQ_REQUEST("rule_attr_set", &tqdb_api_rule_attr_set,
               "rule_attr_set(ruletype, id, key, value) -> correlation id.",
               arg("ruletype", Conv::Int, 0), arg("id", Conv::Int, 1), arg("key", Conv::Text, 2),
               arg("value", Conv::Text, 3)),
    TQ_REQUEST("rule_attr_remove", &tqdb_api_rule_attr_remove,
               "rule_attr_remove(ruletype, id, key) -> correlation id.",
               arg("ruletype", Conv::Int, 0), arg("id", Conv::Int, 1), arg("key", Conv::Text, 2)),
    TQ_REQUEST("rule_attr_list", &tqdb_api_rule_attr_list,
               "rule_attr_list(ruletype, id) -> correlation id.", arg("ruletype", Conv::Int, 0),
               arg("id", Conv::Int, 1)),
    TQ_DECODE("rule_attr_list_handle", "rule_attr_list_handle(msg) -> [(key, value), ...].",
              attrs_body, &_tqdb_api_ruleset_attr_list_handle),
};

}  // namespace

const std::span<const PyMethodDef> g_rule_rows{kRows};
const std::span<const Field> g_fwrule_fields{kFwFields};
const std::span<const Field> g_shapingrule_fields{kShapingFields};
const std::span<const Field> g_statisticsrule_fields{kStatisticsFields};

}  // namespace tqpy
