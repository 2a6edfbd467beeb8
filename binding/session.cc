// Session: one database session on a TQDBAPIHandle. Every request method
// queues its request and returns the correlation id (0 when it could not be
// queued); the matching x_handle method decodes the reply.
#include "result_list.h"
#include "rows.h"
#include "tqdb_objects.h"

#include <cstring>
#include <string>

namespace tqpy {

PyTypeObject g_session_type;

namespace {

SessionObject *as_session(PyObject *o) { return reinterpret_cast<SessionObject *>(o); }

OwnedRef session_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "Session");
  // A Session made by a script belongs to no handle: its requests return 0.
  return OwnedRef::check(type->tp_alloc(type, 0));
}

void session_dealloc(PyObject *obj) {
  PyObject_GC_UnTrack(obj);
  as_session(obj)->handle = nullptr;
  Py_CLEAR(as_session(obj)->owner);
  Py_CLEAR(as_session(obj)->queries);
  Py_TYPE(obj)->tp_free(obj);
}

int session_traverse(PyObject *obj, visitproc visit, void *arg) {
  Py_VISIT(as_session(obj)->owner);
  Py_VISIT(as_session(obj)->queries);
  return 0;
}

int session_clear(PyObject *obj) {
  as_session(obj)->handle = nullptr;
  Py_CLEAR(as_session(obj)->owner);
  Py_CLEAR(as_session(obj)->queries);
  return 0;
}

// --- the request walker ------------------------------------------------------------------

// Arguments by position or keyword, as the interpreter's own functions take
// them, for rows of up to kMaxArgs arguments.
void parse_row_args(PyObject *args, PyObject *kwds, const char *func,
                    std::span<const ArgSpec> specs, std::span<PyObject *> out) {
  const Py_ssize_t n = PyTuple_GET_SIZE(args);
  if (static_cast<size_t>(n) > specs.size())
    raise(PyExc_TypeError, "%s() takes at most %d argument%s (%d given)", func,
          static_cast<int>(specs.size()), specs.size() == 1 ? "" : "s", static_cast<int>(n));
  for (Py_ssize_t i = 0; i < n; ++i) out[static_cast<size_t>(i)] = PyTuple_GET_ITEM(args, i);
  Py_ssize_t pos = 0;
  PyObject *key, *value;
  while (kwds && PyDict_Next(kwds, &pos, &key, &value)) {
    const TextArg name(key, "keyword");
    size_t i = 0;
    while (i < specs.size() && name.view() != specs[i].name.s) ++i;
    if (i == specs.size())
      raise(PyExc_TypeError, "'%.200s' is an invalid keyword argument for %s()", name.c_str(),
            func);
    if (out[i])
      raise(PyExc_TypeError, "argument for %s() given by name ('%s') and position (%d)", func,
            specs[i].name.s, static_cast<int>(i + 1));
    out[i] = value;
  }
  for (size_t i = 0; i < specs.size(); ++i)
    if (!out[i] && !specs[i].optional)
      raise(PyExc_TypeError, "%s() missing required argument '%s' (pos %d)", func,
            specs[i].name.s, static_cast<int>(i + 1));
}

// An integer into the parameter or the record field of its row.
void put_int(const ArgSpec &spec, long long v, CallState &st) {
  if (spec.param >= 0) {
    st.params[static_cast<size_t>(spec.param)].i = v;
    return;
  }
  std::byte *p = st.record + spec.offset;
  const auto store = [p](auto x) { std::memcpy(p, &x, sizeof x); };
  switch (spec.size) {
    case 1: return store(static_cast<uint8_t>(v));
    case 2: return store(static_cast<uint16_t>(v));
    case 4: return store(static_cast<uint32_t>(v));
    default: raise_text(PyExc_SystemError, "bad integer field in a request row");
  }
}

void convert_arg(const ArgSpec &spec, PyObject *value, CallState &st) {
  CallState::Param *param = spec.param >= 0 ? &st.params[static_cast<size_t>(spec.param)] : nullptr;
  std::byte *dest = st.record + spec.offset;
  if (!value) {
    // Left out: an Int takes its default, everything else stays zero / "".
    if (spec.conv == Conv::Int || spec.conv == Conv::U32 || spec.conv == Conv::U64)
      put_int(spec, spec.def, st);
    return;
  }
  switch (spec.conv) {
    case Conv::Int:
      return put_int(spec, arg_as_int(value), st);
    case Conv::U32:
      return put_int(spec, arg_u32(value), st);
    case Conv::U64:
      return put_int(spec, static_cast<long long>(arg_u64(value)), st);
    case Conv::Truth: {
      const int truth = PyObject_IsTrue(value);
      check_status(truth);
      return put_int(spec, truth, st);
    }
    case Conv::Text: {
      if (param) {
        param->text.emplace(value, spec.name.s);
        return;
      }
      const TextArg t(value, spec.name.s);
      std::memcpy(dest, t.c_str(), std::min<size_t>(t.view().size(), spec.size - 1u));
      return;
    }
    case Conv::IntSeq: {
      std::vector<uint32_t> ints = int_sequence(value, spec.name.s);
      if (param) {
        param->ints = std::move(ints);
      } else {
        tq_list_t *l = st.keep(int_list(ints));
        std::memcpy(dest, &l, sizeof l);
      }
      return;
    }
    case Conv::Item:  // after the others: it needs the object type
    case Conv::Ignored:
      return;
    case Conv::Limits:
      return shaping_limits_into(value, st.record, st);
    case Conv::Wfq:
      return wfq_into(value, dest);
    case Conv::Conds:
      st.conds = condition_items(value);
      return;
    case Conv::Filters:
      if (param) param->list = st.keep(filter_list(value));
      return;
    case Conv::Dists:
      if (param) param->list = st.keep(distribution_list(value));
      return;
  }
}

// --- decoders --------------------------------------------------------------------------------

}  // namespace

OwnedRef send_request(SessionObject *self, PyObject *args, PyObject *kwds, const char *func,
                      std::span<const ArgSpec> specs, Invoke call) {
  std::array<PyObject *, kMaxArgs> given{};
  parse_row_args(args, kwds, func, specs, std::span(given).first(specs.size()));
  CallState st;
  for (size_t i = 0; i < specs.size(); ++i) convert_arg(specs[i], given[i], st);
  for (size_t i = 0; i < specs.size(); ++i)
    if (specs[i].conv == Conv::Item)
      st.item = item_from_dict(arg_as_int(given[specs[i].ref]), given[i]);
  if (!self->handle) return int_u64(0);
  return int_u64(call(self->handle, self->session_id, st));
}

tqdb_api_msg_t *decoder_args(PyObject *args, PyObject *kwds, const char *func, ListId id,
                             OwnedRef *l) {
  static const char *const names[] = {"msg", "l", nullptr};
  PyObject *a[2]{};
  if (l) {
    parse_args(args, kwds, func, names, 1, a);
  } else {
    static const char *const msg_only[] = {"msg", nullptr};
    parse_args(args, kwds, func, msg_only, 1, std::span(a).first(1));
  }
  tqdb_api_msg_t *env = message_arg(a[0]);
  if (l) *l = list_arg(a[1], id);
  return env;
}

OwnedRef decode_timestamp(PyObject *args, PyObject *kwds, const char *func, TimestampFn fn) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, func, ListId::ResultList, nullptr);
  char buf[TQDB_API_TIMESTAMP_SIZE]{};
  if (!env || !fn(env, buf)) return none();
  return text_field(buf, sizeof buf);
}

OwnedRef decode_add(PyObject *args, PyObject *kwds, const char *func, AddFn fn) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, func, ListId::ResultList, nullptr);
  char buf[TQDB_API_TIMESTAMP_SIZE]{};
  uint32_t id = 0;
  const bool ok = env && fn(env, &id, buf);
  OwnedRef first = int_u64(ok ? id : 0), stamp = ok ? text_field(buf, sizeof buf) : none();
  return OwnedRef::check(PyTuple_Pack(2, first.get(), stamp.get()));
}

OwnedRef decode_list(PyObject *args, PyObject *kwds, const char *func, ListId id, ListFn fn,
                     bool appends) {
  OwnedRef l;
  tqdb_api_msg_t *env = decoder_args(args, kwds, func, id, &l);
  ResultListObject *list = as_result_list(l.get());
  if (!env) return l;
  if (!appends) {
    // nullptr keeps the list as it was.
    if (tq_list_t *r = fn(env, list->list)) {
      list->list = r;
      list->tail = nullptr;
    }
    return l;
  }
  // An appending decoder walks what it is given to its end: from the tail
  // that is one step, and the new tail is found walking the new nodes only.
  if (list->list != nullptr && list->tail == nullptr) list->tail = tq_list_last(list->list);
  if (tq_list_t *r = fn(env, list->tail)) {
    if (list->list == nullptr) list->list = r;
    list->tail = tq_list_last(list->tail != nullptr ? list->tail : r);
  }
  return l;
}

OwnedRef decode_attrs(PyObject *args, PyObject *kwds, const char *func, ListFn fn) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, func, ListId::ResultList, nullptr);
  const OwnedList pairs(env ? fn(env, nullptr) : nullptr, ListDeleter{release_with_records});
  auto out = OwnedRef::check(PyList_New(0));
  for (const tq_list_t *n = pairs.get(); n; n = n->next) {
    const auto *a = static_cast<const tqdb_api_ruleset_attr_t *>(n->data);
    if (!a) continue;
    OwnedRef key = text_field(a->key, sizeof a->key), value = text_field(a->value, sizeof a->value);
    auto t = OwnedRef::check(PyTuple_Pack(2, key.get(), value.get()));
    check_status(PyList_Append(out.get(), t.get()));
  }
  return out;
}

uint32_t arg_u32(PyObject *o) {
  const long long v = compat::int_as_ll(o);
  if (v == -1 && PyErr_Occurred()) throw_python_error();
  if (v < INT32_MIN || v > UINT32_MAX)
    raise_text(PyExc_OverflowError, "Python int too large to convert to a 32-bit word");
  return static_cast<uint32_t>(v);
}

std::vector<uint32_t> int_sequence(PyObject *seq, const char *argname) {
  const std::string what = std::string(argname) + ": expected a sequence of int";
  auto fast = OwnedRef::check(PySequence_Fast(seq, what.c_str()));
  std::vector<uint32_t> out;
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(fast.get()); ++i)
    out.push_back(arg_u32(PySequence_Fast_GET_ITEM(fast.get(), i)));
  return out;
}

void prepend(OwnedList &l, void *data) {
  tq_list_t *node = tq_list_new(0, l.get(), data);
  if (!node) throw std::bad_alloc();
  (void)l.release();
  l.reset(node);
}

OwnedList int_list(std::span<const uint32_t> values) {
  OwnedList l(nullptr, ListDeleter{release_nodes});
  for (size_t i = values.size(); i-- > 0;)
    prepend(l, reinterpret_cast<void *>(static_cast<uintptr_t>(values[i])));
  return l;
}

namespace {

// --- the core rows ------------------------------------------------------------------------

const PyMethodDef kCoreRows[] = {
    TQ_REQUEST("ping", &tqdb_api_ping, "ping(string) -> correlation id.",
               arg("string", Conv::Text, 0)),
    TQ_DECODE("ping_handle",
              "ping_handle(msg) -> the echoed text (63 characters at most), or None.", text_body,
              &tqdb_api_ping_handle, 64),
    TQ_REQUEST("diag", &tqdb_api_session_diag, "diag() -> correlation id."),
    TQ_DECODE("diag_handle",
              "diag_handle(msg, l=None) -> l (a new TQStringList when None) with the reply's "
              "strings appended.",
              append_list_body, ListId::TQStringList, &tqdb_api_session_diag_handle),
    TQ_REQUEST("resource_begin", &tqdb_api_resource_begin,
               "resource_begin(resource) -> correlation id; locks a RESOURCE_*.",
               arg("resource", Conv::Int, 0)),
    TQ_REQUEST("resource_commit", &tqdb_api_resource_commit,
               "resource_commit(msg) -> correlation id; commits with message msg.",
               arg("msg", Conv::Text, 0)),
    TQ_REQUEST("resource_rollback", &tqdb_api_resource_rollback,
               "resource_rollback() -> correlation id."),
    TQ_REQUEST("resource_resource_list", &tqdb_api_resource_list,
               "resource_resource_list() -> correlation id (0 without a session id)."),
    TQ_DECODE("resource_resource_list_handle",
              "resource_resource_list_handle(msg, l=None) -> l (a new TQResList when None) with "
              "the reply's resource records appended.",
              append_list_body, ListId::TQResList, &tqdb_api_resource_list_handle),
    TQ_REQUEST("resource_resource_steal", &tqdb_api_resource_steal,
               "resource_resource_steal(resid) -> correlation id.", arg("resid", Conv::Int, 0)),
};

// Session's method table: the rows of every family, put together once.
std::vector<PyMethodDef> &session_methods() {
  static std::vector<PyMethodDef> methods;
  if (methods.empty()) {
    const std::span<const PyMethodDef> families[] = {
        kCoreRows,          g_object_rows,          g_shapingobject_rows,   g_rule_rows,
        g_ruleconditions_rows, g_dynamicliveview_rows, g_statisticsobject_rows,
        g_statreader_rows,  g_stat_query_rows,   g_sysdiag_rows,         g_user_rows,
        g_fileserv_rows,    g_backup_rows,          g_channel_rows,         g_channel_label_rows,
        g_monitoriface_rows, g_config_rows,         g_services_rows,        g_features_rows,
        g_connlog_rows,     g_system_overview_rows, g_hosttrigger_rows,     g_connprot_trigger_rows,
    };
    for (const auto &rows : families) methods.insert(methods.end(), rows.begin(), rows.end());
    methods.push_back(TQ_METHOD_END);
  }
  return methods;
}

}  // namespace

OwnedRef session_create(PyObject *owner, uint32_t session_id) {
  auto obj = OwnedRef::check(g_session_type.tp_alloc(&g_session_type, 0));
  SessionObject *s = as_session(obj.get());
  s->session_id = session_id;
  s->handle = reinterpret_cast<HandleObject *>(owner)->handle.get();
  s->owner = OwnedRef::incref(owner).release();
  return obj;
}

void session_type_fill() {
  type_fill(g_session_type,
            TypeDesc{.name = "TQDBv17_1.Session",
                     .doc = "A database session, made by TQDBAPIHandle.session_new_handle().",
                     .basicsize = sizeof(SessionObject),
                     .gc = true,
                     .tp_new = new_entry<TQ_SITE("TQDBv17_1.Session.__new__"), session_new>,
                     .tp_dealloc = session_dealloc,
                     .tp_traverse = session_traverse,
                     .tp_clear = session_clear,
                     .methods = session_methods().data()});
}

}  // namespace tqpy
