// Everything that differs between the Python 2.7 and Python 3.8+ C APIs, in
// one place. The rest of the binding includes this header instead of
// <Python.h> and is written once for both.
//
//   - module creation and the exported init symbol (initX vs PyInit_X):
//     TQ_PY_MODINIT(name) wraps one init body for both;
//   - text: scripts get `str` on both; on Python 3 it is decoded from UTF-8
//     with 'surrogateescape', so any byte string read from the appliance can
//     be sent back unchanged;
//   - integers: int/long on Python 2, int on Python 3;
//   - the traceback entry that names a failed method.
//
// Py_UNICODE is never used.
#ifndef TQ_BINDING_PY_COMPAT_H
#define TQ_BINDING_PY_COMPAT_H

#define PY_SSIZE_T_CLEAN
// Python 2.7's headers still use the `register` storage class, which C++17
// removed.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wregister"
#pragma GCC diagnostic ignored "-Wpedantic"
#include <Python.h>
#include <frameobject.h>
#pragma GCC diagnostic pop

#include <climits>
#include <cstdarg>
#include <cstdint>

#if PY_MAJOR_VERSION >= 3
#define TQ_PY3 1
#else
#define TQ_PY3 0
#endif

#if TQ_PY3 && PY_VERSION_HEX >= 0x030D0000
// Still exported by the interpreter, but its declaration moved into the
// internal headers.
extern "C" PyAPI_FUNC(void) _PyTraceback_Add(const char *, const char *, int);
#endif

namespace tqpy::compat {

// --- modules -------------------------------------------------------------------
#if TQ_PY3
#define TQ_PY_MODINIT(name) PyMODINIT_FUNC PyInit_##name(void)
#define TQ_PY_MODINIT_RETURN(owned) return (owned)
#else
#define TQ_PY_MODINIT(name) PyMODINIT_FUNC init##name(void)
// Python 2 keeps the module in sys.modules; the init function returns nothing.
#define TQ_PY_MODINIT_RETURN(owned) \
  do {                              \
    Py_XDECREF(owned);              \
    return;                         \
  } while (0)
#endif

// Storage for a module's definition, which Python 3 references for the
// module's whole life: one static per module.
struct ModuleDef {
#if TQ_PY3
  PyModuleDef def;
#endif
};

// A new reference to a new module (Python 2's Py_InitModule lends one).
inline PyObject *module_new(ModuleDef &storage, const char *name, const char *doc,
                            PyMethodDef *methods) {
#if TQ_PY3
  storage.def = PyModuleDef{PyModuleDef_HEAD_INIT, name, doc, -1, methods,
                            nullptr, nullptr, nullptr, nullptr};
  return PyModule_Create(&storage.def);
#else
  (void)storage;
  PyObject *m = Py_InitModule3(name, methods, doc);
  Py_XINCREF(m);
  return m;
#endif
}

// --- text ----------------------------------------------------------------------------
inline PyObject *text_from_bytes(const char *s, Py_ssize_t n) {
#if TQ_PY3
  return PyUnicode_DecodeUTF8(s, n, "surrogateescape");
#else
  return PyString_FromStringAndSize(s, n);
#endif
}

inline PyObject *text_intern(const char *s) {
#if TQ_PY3
  return PyUnicode_InternFromString(s);
#else
  return PyString_InternFromString(s);
#endif
}

inline PyObject *text_format(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
#if TQ_PY3
  PyObject *r = PyUnicode_FromFormatV(fmt, ap);
#else
  PyObject *r = PyString_FromFormatV(fmt, ap);
#endif
  va_end(ap);
  return r;
}

// The byte string to send for an argument: a new reference to a bytes
// object, or nullptr with TypeError set (names the argument).
inline PyObject *bytes_of_text(PyObject *o, const char *argname) {
#if TQ_PY3
  if (PyBytes_Check(o)) {
    Py_INCREF(o);
    return o;
  }
  if (PyUnicode_Check(o)) return PyUnicode_AsEncodedString(o, "utf-8", "surrogateescape");
  PyErr_Format(PyExc_TypeError, "argument '%s' must be str or bytes, not %.200s", argname,
               Py_TYPE(o)->tp_name);
  return nullptr;
#else
  if (PyString_Check(o)) {
    Py_INCREF(o);
    return o;
  }
  if (PyUnicode_Check(o)) return PyUnicode_AsUTF8String(o);
  PyErr_Format(PyExc_TypeError, "argument '%s' must be str or unicode, not %.200s", argname,
               Py_TYPE(o)->tp_name);
  return nullptr;
#endif
}

inline char *bytes_data(PyObject *bytes) {
#if TQ_PY3
  return PyBytes_AS_STRING(bytes);
#else
  return PyString_AS_STRING(bytes);
#endif
}
inline Py_ssize_t bytes_size(PyObject *bytes) {
#if TQ_PY3
  return PyBytes_GET_SIZE(bytes);
#else
  return PyString_GET_SIZE(bytes);
#endif
}
// Raw bytes (not text): bytes on Python 3, str on Python 2.
inline PyObject *bytes_new(const char *s, Py_ssize_t n) {
#if TQ_PY3
  return PyBytes_FromStringAndSize(s, n);
#else
  return PyString_FromStringAndSize(s, n);
#endif
}
inline bool is_bytes(PyObject *o) {
#if TQ_PY3
  return PyBytes_Check(o);
#else
  return PyString_Check(o);
#endif
}

// --- integers --------------------------------------------------------------------------
inline PyObject *int_from_ll(long long v) {
#if TQ_PY3
  return PyLong_FromLongLong(v);
#else
  if (v >= LONG_MIN && v <= LONG_MAX) return PyInt_FromLong(static_cast<long>(v));
  return PyLong_FromLongLong(v);
#endif
}

// Unsigned values: a plain int where it fits, long beyond (Python 2).
inline PyObject *int_from_ull(unsigned long long v) {
#if TQ_PY3
  return PyLong_FromUnsignedLongLong(v);
#else
  if (v <= static_cast<unsigned long long>(LONG_MAX)) return PyInt_FromLong(static_cast<long>(v));
  return PyLong_FromUnsignedLongLong(v);
#endif
}

// The integer value of an object that supports __index__ (floats are refused);
// -1 with an error set on failure.
inline long long int_as_ll(PyObject *o) {
  PyObject *idx = PyNumber_Index(o);
  if (!idx) return -1;
  long long v = PyLong_AsLongLong(idx);  // Python 2: accepts int and long
  Py_DECREF(idx);
  return v;
}

// --- dicts ------------------------------------------------------------------------------
// d[key] (borrowed), nullptr when absent; on Python 3 nullptr with an error
// set when the lookup itself failed. (Python 2 cannot tell the two apart.)
inline PyObject *dict_get(PyObject *d, PyObject *key) {
#if TQ_PY3
  return PyDict_GetItemWithError(d, key);
#else
  return PyDict_GetItem(d, key);
#endif
}
// An empty dict with room for n keys, so that filling it never resizes it.
inline PyObject *dict_presized(Py_ssize_t n) { return _PyDict_NewPresized(n); }

// --- calls -------------------------------------------------------------------------------
// o.name(*args) with args a tuple or nullptr (no arguments); a new reference
// or nullptr with an error set. (Python 2 declares the names non-const.)
inline PyObject *call_method(PyObject *o, const char *name, PyObject *args) {
  PyObject *f = PyObject_GetAttrString(o, name);
  if (!f) return nullptr;
  PyObject *empty = args ? nullptr : PyTuple_New(0);
  PyObject *r = (args || empty) ? PyObject_Call(f, args ? args : empty, nullptr) : nullptr;
  Py_XDECREF(empty);
  Py_DECREF(f);
  return r;
}

// A borrowed reference to sys.<name>, nullptr when it is missing.
inline PyObject *sys_get(const char *name) { return PySys_GetObject(const_cast<char *>(name)); }

inline void set_refcnt(PyObject *o, Py_ssize_t n) {
#if PY_VERSION_HEX >= 0x03090000
  Py_SET_REFCNT(o, n);
#else
  Py_REFCNT(o) = n;
#endif
}

// --- tracebacks ------------------------------------------------------------------------
// Adds a frame "function" at file:line to the traceback of the pending error.
inline void traceback_add(const char *function, const char *file, int line) {
#if TQ_PY3
  _PyTraceback_Add(function, file, line);
#else
  PyObject *type, *value, *tb;
  PyErr_Fetch(&type, &value, &tb);
  PyCodeObject *code = PyCode_NewEmpty(file, function, line);
  PyObject *globals = PyDict_New();
  PyFrameObject *frame = nullptr;
  if (code && globals) frame = PyFrame_New(PyThreadState_Get(), code, globals, nullptr);
  if (frame) frame->f_lineno = line;
  // A failure here must not hide the error being reported.
  PyErr_Clear();
  PyErr_Restore(type, value, tb);
  if (frame) PyTraceBack_Here(frame);
  Py_XDECREF(reinterpret_cast<PyObject *>(frame));
  Py_XDECREF(globals);
  Py_XDECREF(reinterpret_cast<PyObject *>(code));
#endif
}

}  // namespace tqpy::compat

#endif
