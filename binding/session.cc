// Session: one database session on a TQDBAPIHandle. Every request method
// queues its request and returns the correlation id (0 when it could not be
// queued); the matching x_handle method decodes the reply.
#include "result_list.h"
#include "tqdb_objects.h"

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
  Py_TYPE(obj)->tp_free(obj);
}

int session_traverse(PyObject *obj, visitproc visit, void *arg) {
  Py_VISIT(as_session(obj)->owner);
  return 0;
}

int session_clear(PyObject *obj) {
  as_session(obj)->handle = nullptr;
  Py_CLEAR(as_session(obj)->owner);
  return 0;
}

// Request methods share one shape: arguments by position or keyword, then a
// call of the C request with the session's handle and id.
template <size_t N>
struct Args {
  PyObject *v[N]{};
  Args(PyObject *args, PyObject *kwds, const char *func, const char *const (&names)[N + 1],
       int required) {
    parse_args(args, kwds, func, names, required, v);
  }
  PyObject *operator[](size_t i) const { return v[i]; }
};

OwnedRef cid(uint32_t c) { return int_u64(c); }

OwnedRef session_ping(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"string", nullptr};
  Args<1> a(args, kwds, "ping", names, 1);
  const TextArg s(a[0], "string");
  if (!self->handle) return cid(0);
  return cid(tqdb_api_ping(self->handle, self->session_id, s.c_str()));
}

OwnedRef session_ping_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"msg", nullptr};
  Args<1> a(args, kwds, "ping_handle", names, 1);
  tqdb_api_msg_t *env = message_arg(a[0]);
  char buf[64]{};
  if (!env || !tqdb_api_ping_handle(env, buf, sizeof buf)) return none();
  return text_field(buf, sizeof buf);
}

OwnedRef session_diag(SessionObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "diag");
  if (!self->handle) return cid(0);
  return cid(tqdb_api_session_diag(self->handle, self->session_id));
}

// x_handle(msg, l=None) of the list decoders: appends to l's C list.
OwnedRef decode_into_list(PyObject *args, PyObject *kwds, const char *func, ListId id,
                          tq_list_t *(*decode)(tqdb_api_msg_t *, tq_list_t *)) {
  static const char *const names[] = {"msg", "l", nullptr};
  Args<2> a(args, kwds, func, names, 1);
  tqdb_api_msg_t *env = message_arg(a[0]);
  OwnedRef l = list_arg(a[1], id);
  ResultListObject *list = as_result_list(l.get());
  if (env) list->list = decode(env, list->list);
  return l;
}

OwnedRef session_diag_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  return decode_into_list(args, kwds, "diag_handle", ListId::TQStringList,
                          tqdb_api_session_diag_handle);
}

OwnedRef session_resource_begin(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"resource", nullptr};
  Args<1> a(args, kwds, "resource_begin", names, 1);
  const int resource = arg_as_int(a[0]);
  if (!self->handle) return cid(0);
  return cid(tqdb_api_resource_begin(self->handle, self->session_id,
                                     static_cast<uint32_t>(resource), 0));
}

OwnedRef session_resource_commit(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"msg", nullptr};
  Args<1> a(args, kwds, "resource_commit", names, 1);
  const TextArg message(a[0], "msg");
  if (!self->handle) return cid(0);
  return cid(tqdb_api_resource_commit(self->handle, self->session_id, message.c_str()));
}

OwnedRef session_resource_rollback(SessionObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "resource_rollback");
  if (!self->handle) return cid(0);
  return cid(tqdb_api_resource_rollback(self->handle, self->session_id));
}

OwnedRef session_resource_resource_list(SessionObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "resource_resource_list");
  if (!self->handle) return cid(0);
  return cid(tqdb_api_resource_list(self->handle, self->session_id));
}

OwnedRef session_resource_resource_list_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  return decode_into_list(args, kwds, "resource_resource_list_handle", ListId::TQResList,
                          tqdb_api_resource_list_handle);
}

OwnedRef session_resource_resource_steal(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"resid", nullptr};
  Args<1> a(args, kwds, "resource_resource_steal", names, 1);
  const int resid = arg_as_int(a[0]);
  if (!self->handle) return cid(0);
  return cid(tqdb_api_resource_steal(self->handle, self->session_id,
                                     static_cast<uint32_t>(resid)));
}

#define TQ_SESSION_METHOD(pyname, body, doc) \
  TQ_METHOD("TQDBv17_1.Session." pyname, pyname, SessionObject, body, doc)

PyMethodDef g_session_methods[] = {
    TQ_SESSION_METHOD("ping", session_ping, "ping(string) -> correlation id."),
    TQ_SESSION_METHOD("ping_handle", session_ping_handle,
                      "ping_handle(msg) -> the echoed text (63 characters at most), or None."),
    TQ_SESSION_METHOD("diag", session_diag, "diag() -> correlation id."),
    TQ_SESSION_METHOD("diag_handle", session_diag_handle,
                      "diag_handle(msg, l=None) -> l (a new TQStringList when None) with the "
                      "reply's strings appended."),
    TQ_SESSION_METHOD("resource_begin", session_resource_begin,
                      "resource_begin(resource) -> correlation id; locks a RESOURCE_*."),
    TQ_SESSION_METHOD("resource_commit", session_resource_commit,
                      "resource_commit(msg) -> correlation id; commits with message msg."),
    TQ_SESSION_METHOD("resource_rollback", session_resource_rollback,
                      "resource_rollback() -> correlation id."),
    TQ_SESSION_METHOD("resource_resource_list", session_resource_resource_list,
                      "resource_resource_list() -> correlation id (0 without a session id)."),
    TQ_SESSION_METHOD("resource_resource_list_handle", session_resource_resource_list_handle,
                      "resource_resource_list_handle(msg, l=None) -> l (a new TQResList when "
                      "None) with the reply's resource records appended."),
    TQ_SESSION_METHOD("resource_resource_steal", session_resource_resource_steal,
                      "resource_resource_steal(resid) -> correlation id."),
    TQ_METHOD_END,
};

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
                     .methods = g_session_methods});
}

}  // namespace tqpy
