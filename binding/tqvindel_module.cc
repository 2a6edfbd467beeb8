// TQvindelv17_1: the Vindel transport for scripts.
//
// A Vindel object wraps a connected socket.socket (kept referenced and made
// non-blocking) and runs the handshake of its role, one non-blocking step at
// a time:
//
//   v = Vindel(sock)                       # initiator, fresh 1024-bit key pair
//   while not v.established():
//       r, w = poll for v.want_read() / v.want_write() on v.fileno()
//       if v.handshake(r, w) < 0: fail
//
// or all at once with connect(host, port, timeout). TQDBv17_1.TQDBAPIHandle
// takes the established object over through steal_vindel() and keeps it
// alive; the object owns its socket record and, through its key object, the
// keys the record points into.
#include "py_entry.h"
#include "vindel_object.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "tqdb_api.h"

namespace tqpy {
namespace {

// Public exponents of 17 bits: as cheap to use as the usual 65537, and
// a size the key generator handles like any other.
constexpr int kKeyBits = VINDEL_KEYLEN;
constexpr int kExponentBits = 17;
constexpr long kDefaultPort = 17100;
constexpr int kPollSliceMs = 100;

// --- VindelKey ------------------------------------------------------------------------------

struct KeyDeleter {
  void operator()(rsa_key_t *k) const { rsa_key_free(k); }
};
using KeyPtr = std::unique_ptr<rsa_key_t, KeyDeleter>;

struct KeyObject {
  PyObject_HEAD
  KeyPtr pub;
  KeyPtr priv;
};

PyTypeObject g_key_type;
PyTypeObject g_vindel_type;

void key_dealloc(PyObject *self) {
  auto *k = reinterpret_cast<KeyObject *>(self);
  k->pub.~KeyPtr();
  k->priv.~KeyPtr();
  Py_TYPE(self)->tp_free(self);
}

OwnedRef new_key() {
  KeyPtr pub(rsa_key_new());
  KeyPtr priv(rsa_key_new());
  if (!pub || !priv) throw std::bad_alloc();
  bool ok = false;
  Py_BEGIN_ALLOW_THREADS
  ok = rsa_keygen(pub.get(), priv.get(), kKeyBits, kExponentBits);
  Py_END_ALLOW_THREADS
  if (!ok) raise_text(PyExc_IOError, "Could not generate an RSA key pair: no random source");

  auto obj = OwnedRef::check(g_key_type.tp_alloc(&g_key_type, 0));
  auto *k = reinterpret_cast<KeyObject *>(obj.get());
  new (&k->pub) KeyPtr(std::move(pub));
  new (&k->priv) KeyPtr(std::move(priv));
  return obj;
}

OwnedRef generate_key(PyObject *args, PyObject *kwds) {
  static const char *const names[] = {nullptr};
  parse_args(args, kwds, "generate_key", names, 0, {});
  return new_key();
}

// --- Vindel ---------------------------------------------------------------------------------

VindelObject *as_vindel(PyObject *o) { return reinterpret_cast<VindelObject *>(o); }

int socket_fileno(PyObject *sock) {
  auto fd = OwnedRef::check(compat::call_method(sock, "fileno", nullptr));
  long long v = compat::int_as_ll(fd.get());
  if (v == -1 && PyErr_Occurred()) throw_python_error();
  if (v < 0 || v > INT_MAX) raise_text(PyExc_ValueError, "the socket is closed");
  return static_cast<int>(v);
}

OwnedRef vindel_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"sock", "responder", "key", nullptr};
  PyObject *a[3]{};
  parse_args(args, kwds, "Vindel", names, 1, a);
  PyObject *sock = a[0];
  const bool responder = a[1] && PyObject_IsTrue(a[1]) == 1;
  if (PyErr_Occurred()) throw_python_error();
  PyObject *key = (a[2] && a[2] != Py_None) ? a[2] : nullptr;
  if (key) {
    if (responder) raise_text(PyExc_ValueError, "a responder takes no key pair");
    check_arg_type(key, &g_key_type, "key", false);
  }

  const int fd = socket_fileno(sock);
  // Frames are written in pieces; with Nagle's algorithm on, the last piece
  // of each message would wait for the peer's delayed acknowledgement. A
  // socket that is not TCP (a socket pair) has no such option: ignored.
  const int one = 1;
  (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  auto blocking_args = OwnedRef::check(Py_BuildValue("(O)", Py_False));
  (void)OwnedRef::check(compat::call_method(sock, "setblocking", blocking_args.get()));
  OwnedRef keyref = key ? OwnedRef::incref(key) : (responder ? OwnedRef() : new_key());

  auto obj = OwnedRef::check(type->tp_alloc(type, 0));
  auto *v = as_vindel(obj.get());
  new (&v->record) VindelRecord();
  v->socket = OwnedRef::incref(sock).release();
  v->responder = responder;
  if (responder) {
    v->record.init_responder(fd);
  } else {
    auto *k = reinterpret_cast<KeyObject *>(keyref.get());
    v->record.init_initiator(fd, k->pub.get(), k->priv.get());
    v->key = keyref.release();
  }
  return obj;
}

void vindel_dealloc(PyObject *self) {
  auto *v = as_vindel(self);
  PyObject_GC_UnTrack(self);
  // The record points into the keys: release it first.
  v->record.~VindelRecord();
  Py_CLEAR(v->key);
  Py_CLEAR(v->socket);
  Py_TYPE(self)->tp_free(self);
}

int vindel_traverse(PyObject *self, visitproc visit, void *arg) {
  Py_VISIT(as_vindel(self)->socket);
  return 0;
}

// Only the socket can close a cycle (a socket subclass holding its Vindel);
// the key holds no Python objects and must outlive the record.
int vindel_clear(PyObject *self) {
  Py_CLEAR(as_vindel(self)->socket);
  return 0;
}

vindel_sock_t *record_of(VindelObject *self) {
  vindel_sock_t *s = self->record.get();
  if (!s) raise_text(PyExc_ValueError, "Vindel object without a connection");
  return s;
}

void parse_none(PyObject *args, PyObject *kwds, const char *func) {
  static const char *const names[] = {nullptr};
  parse_args(args, kwds, func, names, 0, {});
}

OwnedRef vindel_fileno(VindelObject *self, PyObject *args, PyObject *kwds) {
  parse_none(args, kwds, "fileno");
  return int_u64(record_of(self)->fd);
}

OwnedRef vindel_want_read(VindelObject *self, PyObject *args, PyObject *kwds) {
  parse_none(args, kwds, "want_read");
  return boolean(vindel_want_read(record_of(self)));
}

OwnedRef vindel_want_write(VindelObject *self, PyObject *args, PyObject *kwds) {
  parse_none(args, kwds, "want_write");
  return boolean(vindel_want_write(record_of(self)));
}

OwnedRef vindel_established(VindelObject *self, PyObject *args, PyObject *kwds) {
  parse_none(args, kwds, "established");
  return boolean(self->record.established());
}

int handshake_step(VindelObject *self, bool can_read, bool can_write) {
  vindel_sock_t *s = record_of(self);
  return self->responder ? vindel_handshake_responder(can_read, can_write, s)
                         : vindel_handshake(can_read, can_write, s);
}

bool truth(PyObject *o) {
  const int t = PyObject_IsTrue(o);
  if (t < 0) throw_python_error();
  return t == 1;
}

OwnedRef vindel_handshake_method(VindelObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"can_read", "can_write", nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, "handshake", names, 2, a);
  return int_i64(handshake_step(self, truth(a[0]), truth(a[1])));
}

OwnedRef vindel_steal_vindel(VindelObject *self, PyObject *args, PyObject *kwds) {
  parse_none(args, kwds, "steal_vindel");
  return OwnedRef::incref(reinterpret_cast<PyObject *>(self));
}

vindel_sock_t *established_record(VindelObject *self) {
  if (!self->record.established())
    raise_text(PyExc_ValueError, "the Vindel handshake has not completed");
  return self->record.get();
}

[[noreturn]] void raise_socket_error() {
  errno = errno ? errno : EIO;
  PyErr_SetFromErrno(PyExc_IOError);
  throw_python_error();
}

// Encrypted stream I/O on an established connection, for scripts that talk
// to the peer without a TQDBAPIHandle (test responders, tools).
OwnedRef vindel_write_method(VindelObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"data", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "write", names, 1, a);
  if (!compat::is_bytes(a[0])) raise_text(PyExc_TypeError, "write() takes a byte string");
  vindel_sock_t *s = established_record(self);
  // vindel_write encrypts in place: never on the caller's immutable bytes.
  std::vector<char> buf(compat::bytes_data(a[0]),
                        compat::bytes_data(a[0]) + compat::bytes_size(a[0]));
  if (buf.empty()) return int_i64(0);
  errno = 0;
  const ssize_t r = vindel_write(buf.data(), buf.size(), s);
  if (r >= 0) return int_i64(r);
  if (vindel_sock_error() == VINDEL_WOULDBLOCK) return int_i64(0);
  raise_socket_error();
}

OwnedRef vindel_read_method(VindelObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"n", nullptr};
  PyObject *a[1]{};
  parse_args(args, kwds, "read", names, 1, a);
  const int n = arg_as_int(a[0]);
  if (n <= 0) raise_text(PyExc_ValueError, "read() wants a positive size");
  vindel_sock_t *s = established_record(self);
  std::vector<char> buf(static_cast<size_t>(n));
  errno = 0;
  const ssize_t r = vindel_read(buf.data(), buf.size(), s);
  if (r >= 0) return OwnedRef::check(compat::bytes_new(buf.data(), r));
  if (vindel_sock_error() == VINDEL_WOULDBLOCK) return none();
  raise_socket_error();
}

constexpr const char *kVindelDoc =
    "Vindel(sock, responder=False, key=None)\n\n"
    "The encrypted transport over a connected socket (made non-blocking).\n"
    "An initiator without key makes its own 1024-bit key pair.";

PyMethodDef g_vindel_methods[] = {
    TQ_METHOD("TQvindelv17_1.Vindel.fileno", "fileno", VindelObject, vindel_fileno,
              "The socket's file descriptor."),
    TQ_METHOD("TQvindelv17_1.Vindel.want_read", "want_read", VindelObject, vindel_want_read,
              "True while the handshake waits for the socket to be readable."),
    TQ_METHOD("TQvindelv17_1.Vindel.want_write", "want_write", VindelObject, vindel_want_write,
              "True while the handshake waits for the socket to be writable."),
    TQ_METHOD("TQvindelv17_1.Vindel.handshake", "handshake", VindelObject,
              vindel_handshake_method,
              "handshake(can_read, can_write) -> 0 (call again), 1 (established), -1 (failed)"),
    TQ_METHOD("TQvindelv17_1.Vindel.established", "established", VindelObject,
              vindel_established, "True once the handshake has completed."),
    TQ_METHOD("TQvindelv17_1.Vindel.steal_vindel", "steal_vindel", VindelObject,
              vindel_steal_vindel, "The connection for TQDBv17_1.TQDBAPIHandle (itself)."),
    TQ_METHOD("TQvindelv17_1.Vindel.write", "write", VindelObject, vindel_write_method,
              "write(data) -> bytes sent (0 when the socket would block); encrypted."),
    TQ_METHOD("TQvindelv17_1.Vindel.read", "read", VindelObject, vindel_read_method,
              "read(n) -> decrypted bytes, b'' when the peer closed, None when nothing is "
              "there yet."),
    TQ_METHOD_END,
};

// --- connect --------------------------------------------------------------------------------

double monotonic_seconds() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// Waits up to ms for what the handshake wants; the interpreter's lock is
// released meanwhile.
void wait_ready(int fd, bool want_read, bool want_write, int ms, bool *can_read,
                bool *can_write) {
  pollfd p{fd, static_cast<short>((want_read ? POLLIN : 0) | (want_write ? POLLOUT : 0)), 0};
  int r = 0;
  Py_BEGIN_ALLOW_THREADS
  r = poll(&p, 1, ms);
  Py_END_ALLOW_THREADS
  if (r < 0 && errno != EINTR) raise_socket_error();
  const bool hangup = r > 0 && (p.revents & (POLLHUP | POLLERR)) != 0;
  *can_read = r > 0 && ((p.revents & POLLIN) != 0 || hangup);
  *can_write = r > 0 && (p.revents & POLLOUT) != 0;
}

OwnedRef connect(PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"host", "port", "timeout", "key", nullptr};
  PyObject *a[4]{};
  parse_args(args, kwds, "connect", names, 1, a);
  const TextArg host(a[0], "host");
  const long port = a[1] ? arg_as_int(a[1]) : kDefaultPort;
  double timeout = 10.0;
  if (a[2]) {
    timeout = PyFloat_AsDouble(a[2]);
    if (timeout == -1.0 && PyErr_Occurred()) throw_python_error();
    if (timeout <= 0) raise_text(PyExc_ValueError, "timeout must be positive");
  }
  const double deadline = monotonic_seconds() + timeout;

  auto socket_module = OwnedRef::check(PyImport_ImportModule("socket"));
  auto address = OwnedRef::check(Py_BuildValue("(Ol)", a[0], port));
  auto cargs = OwnedRef::check(Py_BuildValue("(Od)", address.get(), timeout));
  auto sock =
      OwnedRef::steal(compat::call_method(socket_module.get(), "create_connection", cargs.get()));
  if (!sock) {
    if (!PyErr_ExceptionMatches(PyExc_EnvironmentError)) throw_python_error();
    PyObject *type, *value, *tb;
    PyErr_Fetch(&type, &value, &tb);
    PyErr_NormalizeException(&type, &value, &tb);
    OwnedRef t = OwnedRef::steal(type), v = OwnedRef::steal(value), b = OwnedRef::steal(tb);
    auto why = OwnedRef::check(PyObject_Str(v ? v.get() : t.get()));
    auto why_bytes = OwnedRef::check(compat::bytes_of_text(why.get(), "reason"));
    raise(PyExc_IOError, "Could not connect to %s:%ld: %s", host.c_str(), port,
          compat::bytes_data(why_bytes.get()));
  }

  auto vargs = OwnedRef::check(Py_BuildValue("(O)", sock.get()));
  auto vkw = OwnedRef::check(PyDict_New());
  if (a[3] && a[3] != Py_None) check_status(PyDict_SetItemString(vkw.get(), "key", a[3]));
  auto vobj = OwnedRef::check(
      PyObject_Call(reinterpret_cast<PyObject *>(&g_vindel_type), vargs.get(), vkw.get()));
  auto *v = as_vindel(vobj.get());
  const int fd = static_cast<int>(record_of(v)->fd);

  for (;;) {
    const double left = deadline - monotonic_seconds();
    if (left <= 0)
      raise(PyExc_IOError, "Vindel handshake with %s:%ld timed out", host.c_str(), port);
    const int ms = std::min(kPollSliceMs, static_cast<int>(left * 1000) + 1);
    bool can_read = false, can_write = false;
    wait_ready(fd, vindel_want_read(record_of(v)), vindel_want_write(record_of(v)), ms,
               &can_read, &can_write);
    check_status(PyErr_CheckSignals());
    if (!can_read && !can_write) continue;
    const int step = handshake_step(v, can_read, can_write);
    if (step == 1) return vobj;
    if (step < 0) raise(PyExc_IOError, "Vindel handshake with %s:%ld failed", host.c_str(), port);
  }
}

PyMethodDef g_functions[] = {
    TQ_FUNCTION("TQvindelv17_1.generate_key", "generate_key", generate_key,
                "A new 1024-bit RSA key pair for Vindel(sock, key=...)."),
    TQ_FUNCTION("TQvindelv17_1.connect", "connect", connect,
                "connect(host, port=DEFAULT_PORT, timeout=10.0, key=None) -> an established "
                "Vindel; IOError when the connection or the handshake fails or times out."),
    TQ_METHOD_END,
};

compat::ModuleDef g_module_def;

OwnedRef module_body() {
  auto m = OwnedRef::check(compat::module_new(g_module_def, kVindelModule,
                                              "The Vindel encrypted transport.", g_functions));
  type_fill(g_key_type, TypeDesc{.name = "TQvindelv17_1.VindelKey",
                                  .doc = "An RSA key pair made by generate_key().",
                                  .basicsize = sizeof(KeyObject),
                                  .tp_dealloc = key_dealloc});
  type_fill(g_vindel_type, TypeDesc{.name = "TQvindelv17_1.Vindel",
                                     .doc = kVindelDoc,
                                     .basicsize = sizeof(VindelObject),
                                     .gc = true,
                                     .tp_new = new_entry<TQ_SITE("TQvindelv17_1.Vindel.__new__"),
                                                         vindel_new>,
                                     .tp_dealloc = vindel_dealloc,
                                     .tp_traverse = vindel_traverse,
                                     .tp_clear = vindel_clear,
                                     .methods = g_vindel_methods});
  type_ready(g_key_type);
  type_ready(g_vindel_type);
  module_add(m.get(), "VindelKey", OwnedRef::incref(reinterpret_cast<PyObject *>(&g_key_type)));
  module_add(m.get(), kVindelType, OwnedRef::incref(reinterpret_cast<PyObject *>(&g_vindel_type)));
  module_add(m.get(), "DEFAULT_PORT", int_i64(kDefaultPort));
  return m;
}

}  // namespace
}  // namespace tqpy

TQ_PY_MODINIT(TQvindelv17_1) {
  PyObject *m = tqpy::module_entry(tqpy::module_body);
  TQ_PY_MODINIT_RETURN(m);
}
