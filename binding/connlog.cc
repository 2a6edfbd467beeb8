// The connection log: rows of connlog_search and connlog_servicelist, and
// TQConnlogList, whose C list is one node: the result record that every
// reply of a search answer continues.
#include "rows.h"

#include <cstring>
#include <unordered_map>

#include "tqdb_api_connlog.h"

namespace tqpy {

namespace {

using Entry = tqdb_api_connlog_recv_entry_t;
using Result = tqdb_api_connlog_result_t;
using Filter = tqdb_api_connlog_filter_t;
using FilterWire = tqdb_api_connlog_filter_wire;

// An entry's fields that need no string table and no address family.
constexpr Field kEntryFields[] = {
    TQ_FIELD(Entry, start, U32, "start"),
    TQ_FIELD(Entry, end, U32, "end"),
    TQ_FIELD(Entry, protocol, U8, "protocol"),
    TQ_FIELD(Entry, clientport, U16, "clientport"),
    TQ_FIELD(Entry, serverport, U16, "serverport"),
    TQ_FIELD(Entry, bytes_in, U64, "bytes_in"),
    TQ_FIELD(Entry, bytes_out, U64, "bytes_out"),
    TQ_FIELD(Entry, netobject, U32, "netobject"),
    TQ_FIELD(Entry, natclient, IPv4, "natclient"),
    TQ_FIELD(Entry, natclientport, U16, "natclientport"),
    TQ_FIELD(Entry, natserver, IPv4, "natserver"),
    TQ_FIELD(Entry, natserverport, U16, "natserverport"),
    TQ_FIELD(Entry, vnos, IntList, "vnos"),
};

using Meta = tqdb_api_connlog_meta_t;
constexpr Field kMetaFields[] = {
    TQ_FIELD(Meta, total, U32, "total"),
    TQ_FIELD(Meta, returned, U32, "returned"),
    TQ_FIELD(Meta, searched_from, U64, "searched_from"),
    TQ_FIELD(Meta, searched_to, U64, "searched_to"),
    TQ_FIELD(Meta, complete, Flag, "complete"),
    TQ_FIELD(Meta, elapsed_ms, U32, "elapsed_ms"),
};

constexpr size_t kFilterArgs = std::size(TQDB_API_CONNLOG_FILTER_FIELDS);

// connlog_search(**filter): every filter field by position or keyword, all
// optional (0 / ""), walked by the filter's own table.
template <Name N>
OwnedRef search_body(SessionObject *self, PyObject *args, PyObject *kwds) {
  std::array<PyObject *, kFilterArgs> given{};
  const Py_ssize_t n = PyTuple_GET_SIZE(args);
  if (static_cast<size_t>(n) > kFilterArgs)
    raise(PyExc_TypeError, "%s() takes at most %d arguments (%d given)", N.s,
          static_cast<int>(kFilterArgs), static_cast<int>(n));
  for (Py_ssize_t i = 0; i < n; ++i) given[static_cast<size_t>(i)] = PyTuple_GET_ITEM(args, i);
  Py_ssize_t pos = 0;
  PyObject *key, *value;
  while (kwds && PyDict_Next(kwds, &pos, &key, &value)) {
    const TextArg name(key, "keyword");
    size_t i = 0;
    while (i < kFilterArgs && name.view() != TQDB_API_CONNLOG_FILTER_FIELDS[i].key) ++i;
    if (i == kFilterArgs)
      raise(PyExc_TypeError, "'%.200s' is an invalid keyword argument for %s()", name.c_str(),
            N.s);
    if (given[i])
      raise(PyExc_TypeError, "argument for %s() given by name ('%s') and position (%d)", N.s,
            TQDB_API_CONNLOG_FILTER_FIELDS[i].key, static_cast<int>(i + 1));
    given[i] = value;
  }
  Filter f{};
  auto *base = reinterpret_cast<std::byte *>(&f);
  for (size_t i = 0; i < kFilterArgs; ++i) {
    const tqdb_api_connlog_filter_field_t &row = TQDB_API_CONNLOG_FILTER_FIELDS[i];
    if (!given[i] || given[i] == Py_None) continue;
    std::byte *p = base + row.offset;
    switch (row.wire) {
      case FilterWire::U64: {
        const uint64_t v = arg_u64(given[i]);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case FilterWire::U32: {
        const uint32_t v = arg_u32(given[i]);
        std::memcpy(p, &v, sizeof v);
        break;
      }
      case FilterWire::Text: {
        const TextArg t(given[i], row.key);
        if (t.view().size() >= row.size)
          raise(PyExc_ValueError, "%s: at most %d characters", row.key,
                static_cast<int>(row.size - 1));
        std::memcpy(p, t.c_str(), t.view().size());
        break;
      }
    }
  }
  if (!self->handle) return int_u64(0);
  return int_u64(tqdb_api_connlog_search(self->handle, self->session_id, &f));
}

// l (a new TQConnlogList when None) continued by one reply of the answer.
template <Name N>
OwnedRef search_handle_body(SessionObject *, PyObject *args, PyObject *kwds) {
  OwnedRef l;
  tqdb_api_msg_t *env = decoder_args(args, kwds, N.s, ListId::TQConnlogList, &l);
  ResultListObject *obj = as_result_list(l.get());
  if (!env) return l;
  if (!obj->list) {
    Result *r = tqdb_api_connlog_result_new();
    obj->list = tq_list_new(0, nullptr, r);
    if (!obj->list) {
      tqdb_api_connlog_result_free(r);
      throw std::bad_alloc();
    }
  }
  (void)tqdb_api_connlog_search_handle(env, static_cast<Result *>(obj->list->data));
  return l;
}

void set(const OwnedRef &d, const char *key, const OwnedRef &v) {
  check_status(PyDict_SetItemString(d.get(), key, v.get()));
}

OwnedRef address(const uint32_t (&words)[4], bool v6) {
  return text(v6 ? ipv6_text(words) : ipv4_text(words[0]));
}

OwnedRef texts_of(const tq_list_t *list) {
  auto out = OwnedRef::check(PyList_New(0));
  for (const tq_list_t *n = list; n; n = n->next) {
    OwnedRef t = text_field(static_cast<const char *>(n->data), TQDB_API_CONNLOG_TEXT_MAX + 1);
    check_status(PyList_Append(out.get(), t.get()));
  }
  return out;
}

const PyMethodDef kRows[] = {
    PyMethodDef{"connlog_search",
                TQ_SESSION_ENTRY("connlog_search", &search_body<Name("connlog_search")>),
                METH_VARARGS | METH_KEYWORDS,
                "connlog_search(starttime=0, endtime=0, server='', serverport=0, client='', "
              "clientport=0, service='', serverhostname='', protocol=0, netobject=0, "
              "natclient='', natclientport=0, natserver='', natserverport=0, max_hits=0, "
                "offset=0) -> correlation id."},
    PyMethodDef{"connlog_search_handle",
                TQ_SESSION_ENTRY("connlog_search_handle",
                                 &search_handle_body<Name("connlog_search_handle")>),
                METH_VARARGS | METH_KEYWORDS,
                "connlog_search_handle(msg, l=None) -> l (a new TQConnlogList when None) "
                "continued by the reply."},
    TQ_REQUEST("connlog_servicelist", &tqdb_api_connlog_servicelist,
               "connlog_servicelist(day) -> correlation id; day 'YYYY-MM-DD'.",
               arg("day", Conv::Text, 0)),
    TQ_DECODE("connlog_servicelist_handle",
              "connlog_servicelist_handle(msg, l=None) -> l (a new TQStringList when None) "
              "with the reply's services appended.",
              append_list_body, ListId::TQStringList, &tqdb_api_connlog_servicelist_handle),
};

}  // namespace

const std::span<const PyMethodDef> g_connlog_rows{kRows};
const std::span<const Field> g_connlog_fields{kEntryFields};

// {"entries": [...], "total", "returned", "searched_from", "searched_to",
// "complete", "elapsed_ms", "matches": [...], "warnings": [...], "error"}.
OwnedRef convert_connlog(const ListClass &, const tq_list_t *list) {
  const auto *r = list ? static_cast<const Result *>(list->data) : nullptr;
  Result empty{};
  std::memcpy(empty.error, "No error", sizeof "No error");
  if (!r) r = &empty;
  // Each text of the table becomes one str, shared by the entries naming it.
  std::unordered_map<uint32_t, OwnedRef> strings;
  for (const tq_list_t *n = r->strings; n; n = n->next)
    if (!strings.contains(n->tag))  // the newest first: the last sent of an id wins
      strings.emplace(n->tag, text_field(static_cast<const char *>(n->data),
                                         TQDB_API_CONNLOG_TEXT_MAX + 1));
  const OwnedRef none_text = text("");
  const auto string_of = [&](uint32_t id) -> const OwnedRef & {
    auto it = strings.find(id);
    return it == strings.end() ? none_text : it->second;
  };
  auto entries = OwnedRef::check(PyList_New(0));
  for (const tq_list_t *n = r->entries; n; n = n->next) {
    const auto *e = static_cast<const Entry *>(n->data);
    OwnedRef d = record_to_dict(kEntryFields, e);
    const bool v6 = e->family == TQDB_API_CONNLOG_IPV6;
    set(d, "client", address(e->client, v6));
    set(d, "server", address(e->server, v6));
    set(d, "service", string_of(e->service));
    set(d, "serverhostname", string_of(e->serverhostname));
    check_status(PyList_Append(entries.get(), d.get()));
  }
  OwnedRef d = record_to_dict(kMetaFields, &r->meta);
  set(d, "entries", entries);
  auto matches = OwnedRef::check(PyList_New(0));
  for (uint32_t i = 0; i < r->meta.n_matches; ++i) {
    OwnedRef m = int_u64(r->meta.matches[i]);
    check_status(PyList_Append(matches.get(), m.get()));
  }
  set(d, "matches", matches);
  set(d, "warnings", texts_of(r->meta.warnings));
  set(d, "error", text_field(r->error, sizeof r->error));
  return d;
}

void release_connlog(tq_list_t *list) {
  for (tq_list_t *n = list; n; n = n->next)
    tqdb_api_connlog_result_free(static_cast<Result *>(n->data));
  tq_list_free(list);
}

}  // namespace tqpy
