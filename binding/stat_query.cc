// The columnar statistics query: TQStatQueryState, Session.stat_query and
// Session.stat_query_handle_msg.
//
// The session keeps the state of each open query under its correlation id
// until the stream's end ("Z") has been delivered, so that a script may feed
// replies by their cid alone. Frames are handed to the script's callback
// object (row_desc_cb, row_data_cb, notice_cb, bytes_cb, complete_cb,
// end_cb, each optional) while the C decoder walks the stream; the first
// exception a callback raises is held until the decoder has returned, and
// the frames after it are consumed without calling the script.
#include "rows.h"
#include "tqdb_objects.h"

#include "tqdb_api_query.h"

namespace tqpy {

PyTypeObject g_stat_query_state_type;

namespace {

struct StateObject {
  PyObject_HEAD
  tqdb_api_statreader_query_state_ptr state;  // owned
  uint32_t cid;
  bool done;  // "Z" has been delivered
  bool busy;  // a reply is being fed
};

StateObject *as_state(PyObject *o) { return reinterpret_cast<StateObject *>(o); }

OwnedRef state_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "TQStatQueryState");
  auto obj = OwnedRef::check(type->tp_alloc(type, 0));
  as_state(obj.get())->state.reset(tqdb_api_statreader_query_state_new());
  if (!as_state(obj.get())->state) throw std::bad_alloc();
  return obj;
}

void state_dealloc(PyObject *obj) {
  as_state(obj)->state.reset();
  Py_TYPE(obj)->tp_free(obj);
}

PyObject *state_get_done(PyObject *obj, void *) { return PyBool_FromLong(as_state(obj)->done); }
PyObject *state_get_cid(PyObject *obj, void *) { return compat::int_from_ull(as_state(obj)->cid); }

PyGetSetDef g_state_getset[] = {
    {const_cast<char *>("done"), state_get_done, nullptr,
     const_cast<char *>("True once the stream's end has arrived."), nullptr},
    {const_cast<char *>("cid"), state_get_cid, nullptr,
     const_cast<char *>("The correlation id of the query."), nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

// --- delivering frames to the script ---------------------------------------------------------

// The script's callbacks, looked up once per reply rather than once per
// frame: a stream of many rows calls the same few methods again and again.
enum class Cb { notice, bytes, row_desc, row_data, complete, end, count };
constexpr const char *kCbNames[] = {"notice_cb",   "bytes_cb",    "row_desc_cb",
                                    "row_data_cb", "complete_cb", "end_cb"};
static_assert(std::size(kCbNames) == static_cast<size_t>(Cb::count));

struct Feed {
  PyObject *cb;        // the script's callback object (borrowed)
  StateObject *state;  // the state being fed (borrowed, kept alive by the caller)
  bool failed = false;
  PyObject *type = nullptr, *value = nullptr, *trace = nullptr;  // the held error
  OwnedRef methods[static_cast<size_t>(Cb::count)]{};  // bound methods found so far
  bool looked_up[static_cast<size_t>(Cb::count)]{};

  // The bound method, or null when the object lacks it; throws on any other
  // error of the lookup.
  PyObject *method(Cb which) {
    const auto i = static_cast<size_t>(which);
    if (!looked_up[i]) {
      looked_up[i] = true;
      PyObject *name = attr_name(kCbNames[i]);
      PyObject *m = name ? PyObject_GetAttr(cb, name) : nullptr;
      if (!m) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw_python_error();
        PyErr_Clear();
      }
      methods[i] = OwnedRef::steal(m);
    }
    return methods[i].get();
  }
};

// cb.<name>(*args) unless the object lacks it or a callback failed before.
// Never leaves an error set: the C decoder runs on after it returns.
void deliver(Feed &f, Cb which, OwnedRef (*make_args)(const void *), const void *what) {
  if (f.failed) return;
  try {
    PyObject *method = f.method(which);
    if (!method) return;
    OwnedRef args = make_args(what);
    OwnedRef(OwnedRef::check(PyObject_CallObject(method, args.get())));
  } catch (...) {
    translate_exception();
    f.failed = true;
    PyErr_Fetch(&f.type, &f.value, &f.trace);
  }
}

OwnedRef no_args(const void *) { return OwnedRef::check(PyTuple_New(0)); }
OwnedRef one_arg(OwnedRef v) { return OwnedRef::check(PyTuple_Pack(1, v.get())); }

OwnedRef desc_args(const void *p) {
  const auto *desc = static_cast<const tqdb_api_statreader_query_row_desc_t *>(p);
  auto cols = OwnedRef::check(PyList_New(0));
  for (uint16_t i = 0; i < desc->count; ++i) {
    const auto &c = desc->cols[i];
    OwnedRef name = text_field(c.name, sizeof c.name), type = int_u64(c.type),
             aux = int_u64(c.aux);
    auto t = OwnedRef::check(PyTuple_Pack(3, name.get(), type.get(), aux.get()));
    check_status(PyList_Append(cols.get(), t.get()));
  }
  return one_arg(std::move(cols));
}

// The value of one column of the current row: None when null.
OwnedRef column_value(const tqdb_api_statreader_query_state_t *s, unsigned col) {
  uint8_t null = 1;
  if (!tqdb_api_statreader_query_col_is_null(s, col, &null) || null) return none();
  using Q = tqdb_api_query_coltype;
  switch (static_cast<Q>(s->desc->cols[col].type)) {
    case TQDB_QUERY_COL_BOOL: return boolean(tqdb_api_statreader_query_get_bool(s, col) != 0);
    case TQDB_QUERY_COL_UINT8: return int_u64(tqdb_api_statreader_query_get_uint8(s, col));
    case TQDB_QUERY_COL_INT8: return int_i64(tqdb_api_statreader_query_get_int8(s, col));
    case TQDB_QUERY_COL_UINT16: return int_u64(tqdb_api_statreader_query_get_uint16(s, col));
    case TQDB_QUERY_COL_INT16: return int_i64(tqdb_api_statreader_query_get_int16(s, col));
    case TQDB_QUERY_COL_UINT32: return int_u64(tqdb_api_statreader_query_get_uint32(s, col));
    case TQDB_QUERY_COL_INT32: return int_i64(tqdb_api_statreader_query_get_int32(s, col));
    case TQDB_QUERY_COL_UINT64: return int_u64(tqdb_api_statreader_query_get_uint64(s, col));
    case TQDB_QUERY_COL_INT64: return int_i64(tqdb_api_statreader_query_get_int64(s, col));
    case TQDB_QUERY_COL_FLOAT:
      return OwnedRef::check(PyFloat_FromDouble(tqdb_api_statreader_query_get_float(s, col)));
    case TQDB_QUERY_COL_DOUBLE:
      return OwnedRef::check(PyFloat_FromDouble(tqdb_api_statreader_query_get_double(s, col)));
    case TQDB_QUERY_COL_BYTES: {
      uint32_t n = 0;
      const uint8_t *b = tqdb_api_statreader_query_get_bytes(s, col, &n);
      return OwnedRef::check(
          compat::bytes_new(b ? reinterpret_cast<const char *>(b) : "", b ? n : 0));
    }
    default:  // a type this client does not know carries no value
      return none();
  }
}

OwnedRef row_args(const void *p) {
  const auto *s = static_cast<const tqdb_api_statreader_query_state_t *>(p);
  const unsigned n = s->desc ? s->desc->count : 0;
  auto values = OwnedRef::check(PyList_New(n));
  for (unsigned i = 0; i < n; ++i) PyList_SET_ITEM(values.get(), i, column_value(s, i).release());
  return one_arg(std::move(values));
}

OwnedRef notice_args(const void *p) { return one_arg(text(static_cast<const char *>(p))); }

struct Bytes {
  const uint8_t *p;
  uint32_t n;
};
OwnedRef bytes_args(const void *p) {
  const auto *b = static_cast<const Bytes *>(p);
  return one_arg(OwnedRef::check(
      compat::bytes_new(reinterpret_cast<const char *>(b->p), static_cast<Py_ssize_t>(b->n))));
}

Feed &feed(void *user) { return *static_cast<Feed *>(user); }

constexpr tqdb_api_statreader_query_cb_t kCallbacks{
    .user = nullptr,
    .notice_cb = [](void *u, const char *t) { deliver(feed(u), Cb::notice, notice_args, t); },
    .bytes_cb =
        [](void *u, const uint8_t *b, uint32_t n) {
          const Bytes bytes{b, n};
          deliver(feed(u), Cb::bytes, bytes_args, &bytes);
        },
    .row_desc_cb = [](void *u, const tqdb_api_statreader_query_row_desc_t *d) {
      deliver(feed(u), Cb::row_desc, desc_args, d);
    },
    .row_data_cb = [](void *u, const tqdb_api_statreader_query_state_t *s) {
      deliver(feed(u), Cb::row_data, row_args, s);
    },
    .complete_cb = [](void *u) { deliver(feed(u), Cb::complete, no_args, nullptr); },
    .end_cb =
        [](void *u) {
          feed(u).state->done = true;
          deliver(feed(u), Cb::end, no_args, nullptr);
        },
    .unknown_cb = nullptr,
};

// --- Session methods -----------------------------------------------------------------------

PyObject *queries_of(SessionObject *self) {
  if (!self->queries) self->queries = OwnedRef::check(PyDict_New()).release();
  return self->queries;
}

OwnedRef stat_query(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"query", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "stat_query", names, 1, a);
  const TextArg query(a[0], "query");
  if (!self->handle) return int_u64(0);
  auto empty = OwnedRef::check(PyTuple_New(0));
  OwnedRef obj = state_new(&g_stat_query_state_type, empty.get(), nullptr);
  tqdb_api_statreader_query_state_t *raw = nullptr;
  const uint32_t cid = tqdb_api_statreader_query(&raw, self->handle, self->session_id, query.c_str());
  if (cid == 0) return int_u64(0);
  as_state(obj.get())->state.reset(raw);
  as_state(obj.get())->cid = cid;
  OwnedRef key = int_u64(cid);
  check_status(PyDict_SetItem(queries_of(self), key.get(), obj.get()));
  return key;
}

OwnedRef stat_query_handle_msg(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"state", "msg", "cb", nullptr};
  PyObject *a[3]{};
  parse_args(args, kwds, "stat_query_handle_msg", names, 3, a);
  check_arg_type(a[0], &g_stat_query_state_type, "state", true);
  tqdb_api_msg_t *env = message_arg(a[1]);
  OwnedRef obj;
  if (a[0] != Py_None) {
    obj = OwnedRef::incref(a[0]);
  } else {
    OwnedRef key = int_u64(env ? tqdb_api_msg_get_cid(env) : 0);
    PyObject *kept = self->queries ? PyDict_GetItem(self->queries, key.get()) : nullptr;
    if (!kept) {
      PyErr_SetObject(PyExc_KeyError, key.get());
      throw_python_error();
    }
    obj = OwnedRef::incref(kept);
  }
  StateObject *st = as_state(obj.get());
  if (st->busy)
    raise_text(PyExc_RuntimeError, "stat_query_handle_msg() called again from its callback");
  Feed f{.cb = a[2], .state = st};
  tqdb_api_statreader_query_cb_t cb = kCallbacks;
  cb.user = &f;
  st->busy = true;
  tqdb_api_statreader_query_handle_msg(st->state.get(), &cb, env);
  st->busy = false;
  if (st->done && self->queries) {
    // The session forgets the state it kept for this query.
    OwnedRef key = int_u64(st->cid);
    PyObject *kept = PyDict_GetItem(self->queries, key.get());
    if (kept == obj.get() && PyDict_DelItem(self->queries, key.get()) < 0 && !f.failed)
      throw_python_error();
    PyErr_Clear();
  }
  if (f.failed) {
    PyErr_Restore(f.type, f.value, f.trace);
    throw_python_error();
  }
  return obj;
}

const PyMethodDef kRows[] = {
    TQ_METHOD("TQDBv17_1.Session.stat_query", "stat_query", SessionObject, stat_query,
              "stat_query(query) -> correlation id; the session keeps the query's "
              "TQStatQueryState under it."),
    TQ_METHOD("TQDBv17_1.Session.stat_query_handle_msg", "stat_query_handle_msg", SessionObject,
              stat_query_handle_msg,
              "stat_query_handle_msg(state, msg, cb) -> the state fed (None: the one kept for "
              "msg.get_cid()); cb's row_desc_cb, row_data_cb, notice_cb, bytes_cb, complete_cb "
              "and end_cb get the frames that arrived whole."),
};

}  // namespace

const std::span<const PyMethodDef> g_stat_query_rows{kRows};

void stat_query_state_type_fill() {
  const bool ready = (g_stat_query_state_type.tp_flags & Py_TPFLAGS_READY) != 0;
  type_fill(g_stat_query_state_type,
            TypeDesc{.name = "TQDBv17_1.TQStatQueryState",
                     .doc = "State of a statistics query: the stream read so far.",
                     .basicsize = sizeof(StateObject),
                     .tp_new = new_entry<TQ_SITE("TQDBv17_1.TQStatQueryState.__new__"), state_new>,
                     .tp_dealloc = state_dealloc});
  if (!ready) g_stat_query_state_type.tp_getset = g_state_getset;
}

}  // namespace tqpy
