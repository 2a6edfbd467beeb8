// TQMessage and TQDBAPIHandle: one connection to the appliance, driven by
// the script's own event loop, and the messages read from it.
#include "tqdb_objects.h"
#include "vindel_object.h"

#include <new>

#include "tq_commitid.h"

namespace tqpy {

PyTypeObject g_message_type;
PyTypeObject g_handle_type;

namespace {

// --- the corrupt-message callback -----------------------------------------------------------

// Decoders call this (at most once per envelope) when a reply is cut short.
// It runs in the middle of a decoder method, so nothing may escape from it:
// the method's own result or error stays as it is, and a failure here is
// reported as unraisable.
void _tqrc_tqdb_io_on_corrupt_msg(tq_msg_t *, const char *, const char *file, int line, void *) {
  PyObject *type, *value, *tb;
  PyErr_Fetch(&type, &value, &tb);
  try {
    PyObject *out = compat::sys_get("stdout");
    if (!out) raise_text(PyExc_RuntimeError, "lost sys.stdout");
    auto msg = OwnedRef::check(
        compat::text_format("Error parsing message at %s:%d", file ? file : "", line));
    check_status(PyFile_WriteObject(msg.get(), out, Py_PRINT_RAW));
    check_status(PyFile_WriteString("\n", out));
  } catch (...) {
    translate_exception();
    auto where = OwnedRef::steal(compat::text_intern("TQDBv17_1._tqrc_tqdb_io_on_corrupt_msg"));
    PyErr_WriteUnraisable(where ? where.get() : Py_None);
  }
  PyErr_Restore(type, value, tb);
}

// --- TQMessage ----------------------------------------------------------------------------------

MessageObject *as_message(PyObject *o) { return reinterpret_cast<MessageObject *>(o); }

OwnedRef message_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "TQMessage");
  auto obj = OwnedRef::check(type->tp_alloc(type, 0));
  new (&as_message(obj.get())->env) EnvelopePtr();
  return obj;
}

OwnedRef message_wrap(EnvelopePtr env) {
  // On failure env releases the envelope.
  auto obj = OwnedRef::check(g_message_type.tp_alloc(&g_message_type, 0));
  new (&as_message(obj.get())->env) EnvelopePtr(std::move(env));
  return obj;
}

void message_dealloc(PyObject *self) {
  as_message(self)->env.~EnvelopePtr();
  Py_TYPE(self)->tp_free(self);
}

OwnedRef message_get_type(MessageObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "get_type");
  // An empty message reads as MSG_TYPE_CRITICAL, like a missing reply.
  return int_u64(tqdb_api_msg_get_type(self->env.get()));
}

OwnedRef message_get_cid(MessageObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "get_cid");
  return int_u64(tqdb_api_msg_get_cid(self->env.get()));
}

OwnedRef message_get_error(MessageObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "get_error");
  if (!self->env) return text("");
  return text_field(tqdb_api_msg_get_error(self->env.get()), TQDB_API_ERROR_MAX);
}

PyMethodDef g_message_methods[] = {
    TQ_METHOD("TQDBv17_1.TQMessage.get_type", "get_type", MessageObject, message_get_type,
              "The message type (compare with MSG_TYPE_*)."),
    TQ_METHOD("TQDBv17_1.TQMessage.get_cid", "get_cid", MessageObject, message_get_cid,
              "The correlation id of the request this message answers (0 if none)."),
    TQ_METHOD("TQDBv17_1.TQMessage.get_error", "get_error", MessageObject, message_get_error,
              "The error or notice text ('' when the type carries none)."),
    TQ_METHOD_END,
};

// --- TQDBAPIHandle ----------------------------------------------------------------------------

HandleObject *as_handle(PyObject *o) { return reinterpret_cast<HandleObject *>(o); }

OwnedRef handle_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"io", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "TQDBAPIHandle", names, 1, a);
  auto vindel = OwnedRef::check(compat::call_method(a[0], "steal_vindel", nullptr));
  check_arg_type(vindel.get(), g_vindel_type, "io", false);
  auto *v = reinterpret_cast<VindelObject *>(vindel.get());
  if (!v->record.established())
    raise_text(PyExc_ValueError, "the Vindel handshake has not completed");

  HandlePtr h(tqdb_api_handle_new());
  if (!h) throw std::bad_alloc();
  tqdb_api_handle_set_corrupt_cb(h.get(), _tqrc_tqdb_io_on_corrupt_msg, nullptr);
  tqdb_api_handle_set_io(h.get(), v->record.get());

  auto obj = OwnedRef::check(type->tp_alloc(type, 0));
  HandleObject *self = as_handle(obj.get());
  new (&self->handle) HandlePtr(std::move(h));
  self->io = v->record.get();
  self->vindel = vindel.release();
  return obj;
}

// Detaches the connection before letting go of the Vindel that holds it.
void handle_drop_connection(HandleObject *self) {
  if (self->handle) tqdb_api_handle_set_io(self->handle.get(), nullptr);
  self->io = nullptr;
  Py_CLEAR(self->vindel);
}

void handle_dealloc(PyObject *obj) {
  HandleObject *self = as_handle(obj);
  PyObject_GC_UnTrack(obj);
  self->handle.~HandlePtr();
  self->io = nullptr;
  Py_CLEAR(self->vindel);
  Py_TYPE(obj)->tp_free(obj);
}

int handle_traverse(PyObject *obj, visitproc visit, void *arg) {
  Py_VISIT(as_handle(obj)->vindel);
  return 0;
}

int handle_clear(PyObject *obj) {
  handle_drop_connection(as_handle(obj));
  return 0;
}

// The C handle, for calls that read or write the connection.
tqdb_api_handle_t *connected(HandleObject *self) {
  if (!self->handle || !self->io) raise_text(PyExc_IOError, "Disconnected");
  return self->handle.get();
}

OwnedRef handle_want_write(HandleObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "want_write");
  return boolean(self->handle && tqdb_api_handle_want_write(self->handle.get()));
}

OwnedRef handle_write(HandleObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "write");
  if (!tqdb_api_handle_write(connected(self)))
    raise_text(PyExc_IOError, "Couldn't write to server");
  return none();
}

OwnedRef handle_readmsg(HandleObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "readmsg");
  tqdb_api_handle_t *h = connected(self);
  EnvelopePtr env(tqdb_api_handle_readmsg(h));
  if (env) return message_wrap(std::move(env));
  const uint32_t status = tqdb_api_handle_io_status(h);
  if (status == TQDB_API_IO_OK) return none();
  if (status == TQDB_API_IO_CLOSED) raise_text(PyExc_IOError, "Disconnected");
  if (status == TQDB_API_IO_ERROR) raise(PyExc_IOError, "%d", tqdb_api_handle_get_errno(h));
  raise_text(PyExc_IOError, "Unknown");
}

tqdb_api_msg_t *msg_only(PyObject *args, PyObject *kwds, const char *func) {
  static const char *const names[] = {"msg", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, func, names, 1, a);
  return message_arg(a[0]);
}

bool is_zero(const tqdb_api_version_t &v) { return v.major == 0 && v.minor == 0 && v.patch == 0; }

OwnedRef handle_version_handle(HandleObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = msg_only(args, kwds, "version_handle");
  char first[256]{};
  char second[256]{};
  // Anything but a version announcement reads as server version 0.0.0.
  const uint32_t word = env ? tqdb_api_version_handle(env, first, second, sizeof first) : 0;
  const tqdb_api_version_t server = tqdb_api_version_decode(word);
  const tqdb_api_version_t client = tqdb_api_version_decode(TQDB_API_CLIENT_VERSION);

  bool warned = false;
  if (is_zero(client)) {
    check_status(PyErr_WarnEx(PyExc_UserWarning,
                              "PythonAPI built without protocol version checking. Use at own risk",
                              1));
    warned = true;
  } else if (is_zero(server)) {
    check_status(PyErr_WarnEx(PyExc_UserWarning,
                              "Server built without protocol version checking. Use at own risk",
                              1));
    warned = true;
  }
  if (!warned && (server.major != client.major || server.minor != client.minor))
    raise(PyExc_RuntimeError, "Bad version server=%d.%d.%d client=%d.%d.%d",
          static_cast<int>(server.major), static_cast<int>(server.minor),
          static_cast<int>(server.patch), static_cast<int>(client.major),
          static_cast<int>(client.minor), static_cast<int>(client.patch));

  OwnedRef w = int_u64(word), s1 = text_field(first, sizeof first),
           s2 = text_field(second, sizeof second);
  OwnedRef maj = int_u64(server.major), min = int_u64(server.minor), pat = int_u64(server.patch);
  auto triple = OwnedRef::check(PyTuple_Pack(3, maj.get(), min.get(), pat.get()));
  return OwnedRef::check(PyTuple_Pack(4, w.get(), s1.get(), s2.get(), triple.get()));
}

OwnedRef handle_auth(HandleObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"user", "pwd", nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, "auth", names, 2, a);
  const TextArg user(a[0], "user");
  const TextArg pwd(a[1], "pwd");
  return int_i64(tqdb_api_auth(connected(self), user.c_str(), pwd.c_str()) != 0 ? 1 : 0);
}

OwnedRef handle_auth_handle(HandleObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = msg_only(args, kwds, "auth_handle");
  tqdb_api_auth_result out{};
  if (!env || !tqdb_api_auth_handle(env, &out)) return none();
  OwnedRef v0 = int_u64(out.value0), v1 = int_u64(out.value1);
  return OwnedRef::check(PyTuple_Pack(2, v0.get(), v1.get()));
}

OwnedRef handle_session_new(HandleObject *self, PyObject *args, PyObject *kwds) {
  parse_no_args(args, kwds, "session_new");
  return int_u64(tqdb_api_session_new(connected(self)));
}

OwnedRef handle_session_new_handle(HandleObject *self, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = msg_only(args, kwds, "session_new_handle");
  const uint32_t id = env ? tqdb_api_session_new_handle(env) : 0;
  return session_create(reinterpret_cast<PyObject *>(self), id);
}

// The three commit id decoders. The C decoder treats a reply of any type
// but DATA or BCAST_COMMIT as a programming error and aborts; a script that
// hands it an ERROR or LOCK reply gets the method's RuntimeError instead.
OwnedRef commitid(PyObject *args, PyObject *kwds, const char *func,
                  bool (*decode)(tqdb_api_msg_t *, tq_commitid_t *), const char *failure) {
  tqdb_api_msg_t *env = msg_only(args, kwds, func);
  const uint32_t type = tqdb_api_msg_get_type(env);
  if (!env || (type != TQDB_API_MSG_TYPE_DATA && type != TQDB_API_MSG_TYPE_BCAST_COMMIT))
    raise_text(PyExc_RuntimeError, failure);
  tq_commitid_t id{};
  if (!decode(env, &id)) raise_text(PyExc_RuntimeError, failure);
  OwnedRef seqno = int_u64(id.seqno), stamp = int_u64(id.timestamp),
           system = text_field(id.systemid, sizeof id.systemid),
           log = text_field(id.log, sizeof id.log);
  return OwnedRef::check(PyTuple_Pack(4, seqno.get(), stamp.get(), system.get(), log.get()));
}

OwnedRef handle_begin_handle(HandleObject *, PyObject *args, PyObject *kwds) {
  return commitid(args, kwds, "begin_handle", tqdb_api_resource_begin_handle,
                  "Could not parse CommitID in BEGIN reply");
}
OwnedRef handle_commit_handle(HandleObject *, PyObject *args, PyObject *kwds) {
  return commitid(args, kwds, "commit_handle", tqdb_api_resource_commit_handle,
                  "Could not parse CommitID in COMMIT reply");
}
OwnedRef handle_commit_bcast_handle(HandleObject *, PyObject *args, PyObject *kwds) {
  return commitid(args, kwds, "commit_bcast_handle", tqdb_api_resource_commit_bcast_handle,
                  "Could not parse CommitID in COMMIT broadcast");
}

#define TQ_HANDLE_METHOD(pyname, body, doc) \
  TQ_METHOD("TQDBv17_1.TQDBAPIHandle." pyname, pyname, HandleObject, body, doc)

PyMethodDef g_handle_methods[] = {
    TQ_HANDLE_METHOD("want_write", handle_want_write,
                     "True while requests are waiting to be written."),
    TQ_HANDLE_METHOD("write", handle_write,
                     "Writes what the socket accepts; IOError \"Couldn't write to server\"."),
    TQ_HANDLE_METHOD("readmsg", handle_readmsg,
                     "The next complete message as a TQMessage, None when there is none "
                     "yet; IOError when the connection is gone."),
    TQ_HANDLE_METHOD("version_handle", handle_version_handle,
                     "version_handle(msg) -> (word, text1, text2, (major, minor, patch)); "
                     "RuntimeError on a version mismatch."),
    TQ_HANDLE_METHOD("auth", handle_auth, "auth(user, pwd) -> 1 if queued, else 0."),
    TQ_HANDLE_METHOD("auth_handle", handle_auth_handle,
                     "auth_handle(msg) -> (value0, value1), or None if refused."),
    TQ_HANDLE_METHOD("session_new", handle_session_new,
                     "Asks for a new session; returns the correlation id."),
    TQ_HANDLE_METHOD("session_new_handle", handle_session_new_handle,
                     "session_new_handle(msg) -> a new Session on this handle."),
    TQ_HANDLE_METHOD("begin_handle", handle_begin_handle,
                     "begin_handle(msg) -> (seqno, timestamp, systemid, text)."),
    TQ_HANDLE_METHOD("commit_handle", handle_commit_handle,
                     "commit_handle(msg) -> (seqno, timestamp, systemid, text)."),
    TQ_HANDLE_METHOD("commit_bcast_handle", handle_commit_bcast_handle,
                     "commit_bcast_handle(msg) -> (seqno, timestamp, systemid, text)."),
    TQ_METHOD_END,
};

}  // namespace

tqdb_api_msg_t *message_arg(PyObject *msg) {
  check_arg_type(msg, &g_message_type, "msg", false);
  return as_message(msg)->env.get();
}

void parse_no_args(PyObject *args, PyObject *kwds, const char *func) {
  static const char *const names[] = {nullptr};
  parse_args(args, kwds, func, names, 0, {});
}

void message_type_fill() {
  type_fill(g_message_type,
            TypeDesc{.name = "TQDBv17_1.TQMessage",
                     .doc = "One message from the appliance, as returned by readmsg().",
                     .basicsize = sizeof(MessageObject),
                     .tp_new = new_entry<TQ_SITE("TQDBv17_1.TQMessage.__new__"), message_new>,
                     .tp_dealloc = message_dealloc,
                     .methods = g_message_methods});
}

void handle_type_fill() {
  type_fill(g_handle_type,
            TypeDesc{.name = "TQDBv17_1.TQDBAPIHandle",
                     .doc = "TQDBAPIHandle(io): the TQDB connection over an established "
                            "TQvindelv17_1.Vindel (io.steal_vindel()).",
                     .basicsize = sizeof(HandleObject),
                     .gc = true,
                     .tp_new = new_entry<TQ_SITE("TQDBv17_1.TQDBAPIHandle.__new__"), handle_new>,
                     .tp_dealloc = handle_dealloc,
                     .tp_traverse = handle_traverse,
                     .tp_clear = handle_clear,
                     .methods = g_handle_methods});
}

}  // namespace tqpy
