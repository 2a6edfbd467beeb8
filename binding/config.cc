// Configuration values, categories, flags and log facilities: rows and the
// fields of their list classes.
#include "rows.h"
#include "tqdb_api_config.h"

namespace tqpy {

namespace {

using Value = tqdb_api_configvalue_t;
using Category = tqdb_api_config_category_t;
using Flag = tqdb_api_config_flag_t;
using Facility = tqdb_api_log_level_t;

constexpr Field kValueFields[] = {
    TQ_FIELD(Value, key, Text, "key"),
    TQ_FIELD(Value, value, Text, "value"),
    TQ_FIELD(Value, default_value, Text, "default"),
    TQ_FIELD(Value, category, Text, "category"),
    TQ_FIELD(Value, description, Text, "description"),
    TQ_FIELD(Value, type, U32, "type"),
    TQ_FIELD(Value, flags, U32, "flags"),
};
constexpr Field kCategoryFields[] = {
    TQ_FIELD(Category, id, U32, "id"),
    TQ_FIELD(Category, name, Text, "name"),
    TQ_FIELD(Category, description, Text, "description"),
};
constexpr Field kFlagFields[] = {
    TQ_FIELD(Flag, flag, U32, "flag"),
    TQ_FIELD(Flag, name, Text, "name"),
    TQ_FIELD(Flag, description, Text, "description"),
};
constexpr Field kFacilityFields[] = {
    TQ_FIELD(Facility, name, Text, "name"),
    TQ_FIELD(Facility, level, U32, "level"),
    TQ_FIELD(Facility, index, U32, "index"),
};

const PyMethodDef kRows[] = {
    TQ_REQUEST("config_list", &tqdb_api_config_list, "config_list() -> correlation id."),
    TQ_DECODE("config_list_handle",
              "config_list_handle(msg, l=None) -> l (a new TQConfigList when None) with the "
              "reply's configuration values.",
              append_list_body, ListId::TQConfigList, &tqdb_api_config_list_handle),
    TQ_REQUEST("config_set", &tqdb_api_config_set,
               "config_set(teh_key, teh_value) -> correlation id; the value as text, whatever "
               "the key's CONFIG_TYPE_*.",
               arg("teh_key", Conv::Text, 0), arg("teh_value", Conv::Text, 1)),
    TQ_REQUEST("config_category_list", &tqdb_api_config_category_list,
               "config_category_list() -> correlation id."),
    TQ_DECODE("config_category_list_handle",
              "config_category_list_handle(msg, l=None) -> l (a new TQConfigCategoryList when "
              "None) with the reply's categories.",
              append_list_body, ListId::TQConfigCategoryList,
              &tqdb_api_config_category_list_handle),
    TQ_REQUEST("config_flags_list", &tqdb_api_config_flags_list,
               "config_flags_list() -> correlation id."),
    TQ_DECODE("config_flags_list_handle",
              "config_flags_list_handle(msg, l=None) -> l (a new TQConfigFlagList when None) "
              "with the reply's flags.",
              append_list_body, ListId::TQConfigFlagList, &tqdb_api_config_flags_list_handle),
    TQ_REQUEST("log_facility_list", &tqdb_api_log_facility_list,
               "log_facility_list() -> correlation id."),
    TQ_DECODE("log_facility_list_handle",
              "log_facility_list_handle(msg, l=None) -> l (a new TQLogFacilityList when None) "
              "with the reply's facilities and their levels.",
              append_list_body, ListId::TQLogFacilityList, &tqdb_api_log_facility_list_handle),
    TQ_REQUEST("log_facility_set_level", &tqdb_api_log_facility_set_level,
               "log_facility_set_level(facility, level) -> correlation id; facility by name.",
               arg("facility", Conv::Text, 0), arg("level", Conv::U32, 1)),
};

}  // namespace

const std::span<const PyMethodDef> g_config_rows{kRows};
const std::span<const Field> g_config_fields{kValueFields};
const std::span<const Field> g_config_category_fields{kCategoryFields};
const std::span<const Field> g_config_flag_fields{kFlagFields};
const std::span<const Field> g_log_facility_fields{kFacilityFields};

}  // namespace tqpy
