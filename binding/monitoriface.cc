// Monitor interfaces: rows of the Session methods and the fields of
// TQMonitorIfaceList.
#include "rows.h"
#include "tqdb_api_channel.h"

namespace tqpy {

namespace {

using Iface = tqdb_api_monitoriface_t;

constexpr Field kIfaceFields[] = {
    TQ_FIELD(Iface, id, U32, "id"),
    TQ_FIELD(Iface, description, Text, "description"),
    TQ_FIELD(Iface, iface, Text, "iface"),
    TQ_FIELD(Iface, media, U8, "media"),
};

// Both names have always sent the same request.
const PyMethodDef kRows[] = {
    TQ_REQUEST("monitorinterface_list", &tqdb_api_monitoriface_list,
               "monitorinterface_list() -> correlation id; decode with monitoriface_list_handle."),
    TQ_REQUEST("monitoriface_list", &tqdb_api_monitoriface_list,
               "monitoriface_list() -> correlation id."),
    TQ_DECODE("monitoriface_list_handle",
              "monitoriface_list_handle(msg, l=None) -> l (a new TQMonitorIfaceList when None) "
              "with the reply's monitor interfaces.",
              append_list_body, ListId::TQMonitorIfaceList, &tqdb_api_monitoriface_list_handle),
};

}  // namespace

const std::span<const PyMethodDef> g_monitoriface_rows{kRows};
const std::span<const Field> g_monitoriface_fields{kIfaceFields};

}  // namespace tqpy
