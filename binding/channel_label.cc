// Channel labels: rows of the Session methods and the fields of
// TQChannelLabelList.
#include <arpa/inet.h>

#include <string>
#include <vector>

#include "rows.h"
#include "tqdb_api_channel.h"

namespace tqpy {

namespace {

using Label = tqdb_api_channel_label_t;
using Entry = tqdb_api_channel_label_channel_t;

constexpr Field kEntryFields[] = {
    TQ_FIELD(Entry, channel, U32, "channel"),
    TQ_FIELD(Entry, vlan, U16, "vlan"),
    TQ_FIELD(Entry, flags, U32, "flags"),
    TQ_FIELD(Entry, int_address, IPv4, "int_address"),
    TQ_FIELD(Entry, int_gateway, IPv4, "int_gateway"),
    TQ_FIELD(Entry, int_heartbeat, IPv4, "int_heartbeat"),
    TQ_FIELD(Entry, ext_address, IPv4, "ext_address"),
    TQ_FIELD(Entry, ext_gateway, IPv4, "ext_gateway"),
    TQ_FIELD(Entry, ext_heartbeat, IPv4, "ext_heartbeat"),
};
constexpr Field kLabelFields[] = {
    TQ_FIELD(Label, id, U32, "id"),
    TQ_FIELD(Label, name, Text, "name"),
    TQ_FIELD(Label, flags, U32, "flags"),
    TQ_RECORDS_FIELD(Label, channels, n, Entry, kEntryFields, "channels"),
};

// An address of an entry, "a.b.c.d", as a u32 in host order.
uint32_t address(PyObject *v, const std::string &where) {
  const TextArg t(v, where.c_str());
  in_addr a{};
  if (inet_pton(AF_INET, t.c_str(), &a) != 1)
    raise(PyExc_ValueError, "%s: expected an address a.b.c.d, got '%.100s'", where.c_str(),
          t.c_str());
  return ntohl(a.s_addr);
}

// One entry of the pythonlist: "channel" required, the rest 0 when left out.
Entry entry_from_dict(PyObject *d, size_t i) {
  const std::string where = "pythonlist[" + std::to_string(i) + "]";
  if (!PyDict_Check(d)) raise(PyExc_TypeError, "%s: expected a dict", where.c_str());
  Entry e{};
  PyObject *channel = dict_item(d, "channel");
  if (!channel) raise(PyExc_ValueError, "%s: missing key 'channel'", where.c_str());
  e.channel = arg_u32(channel);
  if (PyObject *v = dict_item(d, "vlan")) {
    const int vlan = arg_as_int(v);
    if (vlan < 0 || vlan > 0xFFFF)
      raise(PyExc_ValueError, "%s: vlan %d is not 0 to 65535", where.c_str(), vlan);
    e.vlan = static_cast<uint16_t>(vlan);
  }
  if (PyObject *v = dict_item(d, "flags")) e.flags = arg_u32(v);
  // The six addresses by their keys, in the record's order.
  static constexpr std::pair<const char *, uint32_t Entry::*> kAddresses[] = {
      {"int_address", &Entry::int_address}, {"int_gateway", &Entry::int_gateway},
      {"int_heartbeat", &Entry::int_heartbeat}, {"ext_address", &Entry::ext_address},
      {"ext_gateway", &Entry::ext_gateway}, {"ext_heartbeat", &Entry::ext_heartbeat}};
  for (const auto &[key, member] : kAddresses)
    if (PyObject *v = dict_item(d, key)) e.*member = address(v, where + "." + key);
  return e;
}

OwnedRef channels_set(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"id", "pythonlist", nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, "channel_label_channels_set", names, 2, a);
  const uint32_t id = arg_u32(a[0]);
  auto seq = OwnedRef::check(
      PySequence_Fast(a[1], "pythonlist: expected a sequence of label channel dicts"));
  std::vector<Entry> entries;
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(seq.get()); ++i)
    entries.push_back(entry_from_dict(PySequence_Fast_GET_ITEM(seq.get(), i), static_cast<size_t>(i)));
  if (!self->handle) return int_u64(0);
  return int_u64(
      tqdb_api_channel_label_channels_set(self->handle, self->session_id, id, entries));
}

OwnedRef label_add_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env =
      decoder_args(args, kwds, "channel_label_add_handle", ListId::ResultList, nullptr);
  const uint32_t id = env ? tqdb_api_channel_label_add_handle(env) : 0;
  return id != 0 ? int_u64(id) : none();
}

// Frees the labels that l holds; l stays usable, empty.
OwnedRef list_destroy(SessionObject *, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"l", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "channel_label_list_destroy", names, 1, a);
  check_arg_type(a[0], &list_class(ListId::TQChannelLabelList).type, "l", false);
  ResultListObject *l = as_result_list(a[0]);
  tq_list_t *gone = l->list;
  l->list = nullptr;
  l->tail = nullptr;
  l->cls->release(gone);
  return none();
}

#define TQ_BODY(pyname, body, doc) \
  PyMethodDef { pyname, TQ_SESSION_ENTRY(pyname, &body), METH_VARARGS | METH_KEYWORDS, doc }

constexpr auto kId = arg("id", Conv::U32, 0);

const PyMethodDef kRows[] = {
    TQ_REQUEST("channel_label_list", &tqdb_api_channel_label_list,
               "channel_label_list(role) -> correlation id; role CHANNEL_ROLE_DIVERT or "
               "CHANNEL_ROLE_MONITOR.",
               arg("role", Conv::Int, 0)),
    TQ_REQUEST("channel_divert_label_list", &tqdb_api_channel_divert_label_list,
               "channel_divert_label_list() -> correlation id; decode with "
               "channel_label_list_handle."),
    TQ_REQUEST("channel_monitor_label_list", &tqdb_api_channel_monitor_label_list,
               "channel_monitor_label_list() -> correlation id; decode with "
               "channel_label_list_handle."),
    TQ_DECODE("channel_label_list_handle",
              "channel_label_list_handle(msg, l=None) -> l (a new TQChannelLabelList when None) "
              "with the reply's labels.",
              append_list_body, ListId::TQChannelLabelList, &tqdb_api_channel_label_list_handle),
    TQ_BODY("channel_label_list_destroy", list_destroy,
            "channel_label_list_destroy(l) -> None; frees the labels of l, which stays empty."),
    TQ_REQUEST("channel_label_add", &tqdb_api_channel_label_add,
               "channel_label_add(role, name, flags) -> correlation id.",
               arg("role", Conv::Int, 0), arg("name", Conv::Text, 1),
               arg("flags", Conv::U32, 2)),
    TQ_BODY("channel_label_add_handle", label_add_handle,
            "channel_label_add_handle(msg) -> the new label's id, or None."),
    TQ_REQUEST("channel_label_rename", &tqdb_api_channel_label_rename,
               "channel_label_rename(id, name, flags) -> correlation id.", kId,
               arg("name", Conv::Text, 1), arg("flags", Conv::U32, 2)),
    TQ_BODY("channel_label_channels_set", channels_set,
            "channel_label_channels_set(id, pythonlist) -> correlation id; pythonlist holds "
            "{\"channel\", \"vlan\", \"flags\", \"int_address\", ...} dicts, addresses "
            "\"a.b.c.d\"."),
    TQ_REQUEST("channel_label_remove", &tqdb_api_channel_label_remove,
               "channel_label_remove(id) -> correlation id.", kId),
};

#undef TQ_BODY

}  // namespace

const std::span<const PyMethodDef> g_channel_label_rows{kRows};
const std::span<const Field> g_channel_label_fields{kLabelFields};

}  // namespace tqpy
