// Channels: rows of the Session methods and the fields of TQChannelList.
#include "rows.h"
#include "tqdb_api_channel.h"

namespace tqpy {

namespace {

using Channel = tqdb_api_channel_t;

constexpr Field kChannelFields[] = {
    TQ_FIELD(Channel, id, U32, "id"),
    TQ_FIELD(Channel, active, U8, "active"),
    TQ_FIELD(Channel, label, Text, "label"),
    TQ_FIELD(Channel, location, Text, "location"),
    TQ_FIELD(Channel, internal, Text, "internal"),
    TQ_FIELD(Channel, internal_media, U8, "internal_media"),
    TQ_FIELD(Channel, external, Text, "external"),
    TQ_FIELD(Channel, external_media, U8, "external_media"),
    TQ_FIELD(Channel, type, U32, "type"),
    TQ_FIELD(Channel, caps, U32, "caps"),
    TQ_FIELD(Channel, role, U8, "role"),
    TQ_FIELD(Channel, direction, U8, "direction"),
};

// A key the channel dict must have.
PyObject *channel_key(PyObject *d, const char *key) {
  PyObject *v = dict_item(d, key);
  if (!v) raise(PyExc_ValueError, "channel: missing key '%s'", key);
  return v;
}

// The channel is a dict as channel_list gives it: its id and active state
// are what the request sends of it.
OwnedRef channel_update(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"channel", "label",  "internal_media", "external_media",
                                      "role",    "direction", nullptr};
  PyObject *a[6]{};
  parse_args(args, kwds, "channel_update", names, 6, a);
  if (!PyDict_Check(a[0])) raise_text(PyExc_TypeError, "channel: expected a channel dict");
  Channel ch{};
  ch.id = arg_u32(channel_key(a[0], "id"));
  ch.active = static_cast<uint8_t>(arg_as_int(channel_key(a[0], "active")));
  const TextArg label(a[1], "label");
  const auto byte = [](PyObject *o) { return static_cast<uint8_t>(arg_as_int(o)); };
  const uint8_t internal_media = byte(a[2]), external_media = byte(a[3]), role = byte(a[4]),
                direction = byte(a[5]);
  if (!self->handle) return int_u64(0);
  return int_u64(tqdb_api_channel_update(self->handle, self->session_id, &ch, label.c_str(),
                                         internal_media, external_media, role, direction));
}

const PyMethodDef kRows[] = {
    TQ_REQUEST("channel_list", &tqdb_api_channel_list, "channel_list() -> correlation id."),
    TQ_DECODE("channel_list_handle",
              "channel_list_handle(msg, l=None) -> l (a new TQChannelList when None) with the "
              "reply's channels.",
              append_list_body, ListId::TQChannelList, &tqdb_api_channel_list_handle),
    PyMethodDef{"channel_update", TQ_SESSION_ENTRY("channel_update", &channel_update),
                METH_VARARGS | METH_KEYWORDS,
                "channel_update(channel, label, internal_media, external_media, role, direction) "
                "-> correlation id; channel is a channel dict (its id and active are sent)."},
    TQ_REQUEST("channel_set_active", &tqdb_api_channel_set_active,
               "channel_set_active(id, active) -> correlation id.", arg("id", Conv::U32, 0),
               arg("active", Conv::Int, 1)),
};

}  // namespace

const std::span<const PyMethodDef> g_channel_rows{kRows};
const std::span<const Field> g_channel_fields{kChannelFields};

}  // namespace tqpy
