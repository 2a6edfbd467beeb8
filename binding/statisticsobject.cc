// Statistics and IPFIX objects: rows and the fields of TQStatisticsObjList
// and TQIpfixObjList.
#include "rows.h"

namespace tqpy {

namespace {

using SO = tqdb_api_statisticsobject_t;
using IO = tqdb_api_ipfixobject_t;

constexpr Field kStatisticsObjectFields[] = {
    TQ_FIELD(SO, id, U32, "id"),
    TQ_FIELD(SO, name, Text, "name"),
    TQ_FIELD(SO, split, U32, "split"),
    TQ_FIELD(SO, split_argument, U32, "split_argument"),
    TQ_FIELD(SO, fields, U32, "fields"),
    TQ_FIELD(SO, interval, U32, "interval"),
    TQ_AUDIT_FIELDS(SO),
};

constexpr Field kIpfixObjectFields[] = {
    TQ_FIELD(IO, id, U32, "id"),
    TQ_FIELD(IO, name, Text, "name"),
    TQ_FIELD(IO, collector, Text, "collector"),
    TQ_FIELD(IO, port, U16, "port"),
    TQ_FIELD(IO, protocol, U8, "protocol"),
    TQ_FIELD(IO, interval, U32, "interval"),
    TQ_AUDIT_FIELDS(IO),
};

constexpr auto kId = arg("id", Conv::Int, 0);

const PyMethodDef kRows[] = {
    TQ_REQUEST("statistics_object_list", &tqdb_api_statisticsobject_list,
               "statistics_object_list() -> correlation id."),
    TQ_DECODE("statistics_object_list_handle",
              "statistics_object_list_handle(msg, l=None) -> l (a new TQStatisticsObjList when "
              "None) with the reply's objects.",
              append_list_body, ListId::TQStatisticsObjList, &tqdb_api_statisticsobject_list_handle),
    TQ_REQUEST("statistics_object_add", &tqdb_api_statisticsobject_add,
               "statistics_object_add(name, split=0, split_argument=0, fields=0, interval=60) "
               "-> correlation id.",
               field("name", Conv::Text, TQ_AT(SO, name)),
               field("split", Conv::Int, TQ_AT(SO, split)).opt(),
               field("split_argument", Conv::Int, TQ_AT(SO, split_argument)).opt(),
               field("fields", Conv::U32, TQ_AT(SO, fields)).opt(),
               field("interval", Conv::Int, TQ_AT(SO, interval)).opt(60)),
    TQ_DECODE("statistics_object_add_handle",
              "statistics_object_add_handle(msg) -> (new id, timestamp).", add_body,
              &tqdb_api_ruleset_add_handle),
    TQ_REQUEST("statistics_object_modify", &tqdb_api_statisticsobject_modify,
               "statistics_object_modify(id, name, split, split_argument, fields, interval) -> "
               "correlation id.",
               field("id", Conv::Int, TQ_AT(SO, id)), field("name", Conv::Text, TQ_AT(SO, name)),
               field("split", Conv::Int, TQ_AT(SO, split)),
               field("split_argument", Conv::Int, TQ_AT(SO, split_argument)),
               field("fields", Conv::U32, TQ_AT(SO, fields)),
               field("interval", Conv::Int, TQ_AT(SO, interval))),
    TQ_DECODE("statistics_object_modify_handle",
              "statistics_object_modify_handle(msg) -> timestamp.", timestamp_body,
              &tqdb_api_ruleset_timestamp_handle),
    TQ_REQUEST("statistics_object_rename", &tqdb_api_statisticsobject_rename,
               "statistics_object_rename(id, name) -> correlation id.", kId,
               arg("name", Conv::Text, 1)),
    TQ_DECODE("statistics_object_rename_handle",
              "statistics_object_rename_handle(msg) -> timestamp.", timestamp_body,
              &tqdb_api_ruleset_timestamp_handle),
    TQ_REQUEST("statistics_object_remove", &tqdb_api_statisticsobject_remove,
               "statistics_object_remove(id) -> correlation id.", kId),
    TQ_DECODE("statistics_object_remove_handle",
              "statistics_object_remove_handle(msg) -> timestamp.", timestamp_body,
              &tqdb_api_ruleset_timestamp_handle),

    TQ_REQUEST("ipfix_object_list", &tqdb_api_ipfixobject_list,
               "ipfix_object_list() -> correlation id."),
    TQ_DECODE("ipfix_object_list_handle",
              "ipfix_object_list_handle(msg, l=None) -> l (a new TQIpfixObjList when None) with "
              "the reply's objects.",
              append_list_body, ListId::TQIpfixObjList, &tqdb_api_ipfixobject_list_handle),
    TQ_REQUEST("ipfix_object_add", &tqdb_api_ipfixobject_add,
               "ipfix_object_add(name, collector, port=4739, protocol=17, interval=60) -> "
               "correlation id.",
               field("name", Conv::Text, TQ_AT(IO, name)),
               field("collector", Conv::Text, TQ_AT(IO, collector)),
               field("port", Conv::Int, TQ_AT(IO, port)).opt(4739),
               field("protocol", Conv::Int, TQ_AT(IO, protocol)).opt(17),
               field("interval", Conv::Int, TQ_AT(IO, interval)).opt(60)),
    TQ_DECODE("ipfix_object_add_handle", "ipfix_object_add_handle(msg) -> (new id, timestamp).",
              add_body, &tqdb_api_ruleset_add_handle),
    TQ_REQUEST("ipfix_object_rename", &tqdb_api_ipfixobject_rename,
               "ipfix_object_rename(id, name) -> correlation id.", kId,
               arg("name", Conv::Text, 1)),
    TQ_DECODE("ipfix_object_rename_handle", "ipfix_object_rename_handle(msg) -> timestamp.",
              timestamp_body, &tqdb_api_ruleset_timestamp_handle),
    TQ_REQUEST("ipfix_object_remove", &tqdb_api_ipfixobject_remove,
               "ipfix_object_remove(id) -> correlation id.", kId),
    TQ_DECODE("ipfix_object_remove_handle", "ipfix_object_remove_handle(msg) -> timestamp.",
              timestamp_body, &tqdb_api_ruleset_timestamp_handle),
};

}  // namespace

const std::span<const PyMethodDef> g_statisticsobject_rows{kRows};
const std::span<const Field> g_statisticsobject_fields{kStatisticsObjectFields};
const std::span<const Field> g_ipfixobject_fields{kIpfixObjectFields};

}  // namespace tqpy
