// Entry points from the interpreter into the binding, and the argument
// conversions they share.
//
// Every function the interpreter calls is an instantiation of one of the
// wrappers below around a body that returns OwnedRef (or int) and throws on
// error. The wrapper catches every C++ exception, turns it into a Python
// error where none is set yet, adds the traceback entry that names the
// method ("TQDBv17_1.Session.ping") and returns nullptr / -1.
//
// Bodies are not noexcept: they call into the interpreter, which may run
// arbitrary code.
#ifndef TQ_BINDING_PY_ENTRY_H
#define TQ_BINDING_PY_ENTRY_H

#include "py_ref.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <new>
#include <span>
#include <string_view>

namespace tqpy {

// Where an error is reported from: the qualified method name and the place
// in our sources, as a compile-time value so each wrapper carries its own.
struct Site {
  char name[80]{};
  char file[48]{};
  int line = 0;
  template <size_t N, size_t M>
  consteval Site(const char (&n)[N], const char (&f)[M], int l) : line(l) {
    static_assert(N <= sizeof(name) && M <= sizeof(file), "site text too long");
    std::copy_n(n, N, name);
    std::copy_n(f, M, file);
  }
};
#define TQ_SITE(qualname) ::tqpy::Site(qualname, __FILE__, __LINE__)

// Converts the exception in flight into a Python error (unless one is set).
inline void translate_exception() {
  try {
    throw;
  } catch (const PythonError &) {
    if (!PyErr_Occurred())
      PyErr_SetString(PyExc_SystemError, "error return without exception set");
  } catch (const std::bad_alloc &) {
    PyErr_NoMemory();
  } catch (const std::exception &e) {
    PyErr_SetString(PyExc_SystemError, e.what());
  } catch (...) {
    PyErr_SetString(PyExc_SystemError, "unknown C++ exception");
  }
}

inline void report(const Site &site) {
  compat::traceback_add(site.name, site.file, site.line);
}

template <class Self>
using MethodBody = OwnedRef (*)(Self *self, PyObject *args, PyObject *kwds);

// METH_VARARGS | METH_KEYWORDS methods.
template <Site S, class Self, MethodBody<Self> Body>
PyObject *method_entry(PyObject *self, PyObject *args, PyObject *kwds) {
  try {
    return Body(reinterpret_cast<Self *>(self), args, kwds).release();
  } catch (...) {
    translate_exception();
  }
  report(S);
  return nullptr;
}

// Module-level functions: self is the module.
using FunctionBody = OwnedRef (*)(PyObject *args, PyObject *kwds);
template <Site S, FunctionBody Body>
PyObject *function_entry(PyObject *, PyObject *args, PyObject *kwds) {
  try {
    return Body(args, kwds).release();
  } catch (...) {
    translate_exception();
  }
  report(S);
  return nullptr;
}

// A module's init: its body builds the module or throws; the interpreter
// gets the new reference or NULL with the error set.
inline PyObject *module_entry(OwnedRef (*body)()) {
  try {
    return body().release();
  } catch (...) {
    translate_exception();
  }
  return nullptr;
}

using NewBody = OwnedRef (*)(PyTypeObject *type, PyObject *args, PyObject *kwds);
template <Site S, NewBody Body>
PyObject *new_entry(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  try {
    return Body(type, args, kwds).release();
  } catch (...) {
    translate_exception();
  }
  report(S);
  return nullptr;
}

// PyCFunction for the method tables; the detour through void(*)() is the
// accepted way to store a three-argument function there.
template <class F>
PyCFunction as_cfunction(F f) {
  return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(f));
}

#define TQ_METHOD(qualname, pyname, Self, body, doc)                                 \
  PyMethodDef {                                                                      \
    pyname, ::tqpy::as_cfunction(&::tqpy::method_entry<TQ_SITE(qualname), Self, body>), \
        METH_VARARGS | METH_KEYWORDS, doc                                            \
  }
#define TQ_FUNCTION(qualname, pyname, body, doc)                                  \
  PyMethodDef {                                                                   \
    pyname, ::tqpy::as_cfunction(&::tqpy::function_entry<TQ_SITE(qualname), body>), \
        METH_VARARGS | METH_KEYWORDS, doc                                         \
  }
#define TQ_METHOD_END \
  PyMethodDef { nullptr, nullptr, 0, nullptr }

// --- argument parsing --------------------------------------------------------------------
// Parses arguments by position or keyword into borrowed objects. `names` ends
// with nullptr; the first `required` are mandatory; out holds one slot per
// name and keeps nullptr for optional arguments not given.
void parse_args(PyObject *args, PyObject *kwds, const char *func, const char *const *names,
                int required, std::span<PyObject *> out);

// "Argument '%s' has incorrect type (expected %s, got %s)" unless o is an
// instance of type (None passes only with none_ok).
void check_arg_type(PyObject *o, PyTypeObject *type, const char *argname, bool none_ok);

// A C int, as the request functions take their integers.
int arg_as_int(PyObject *o);

// d[key] (borrowed), nullptr when d has no such key. Any other failure (no
// memory for the key, a key that cannot be hashed) propagates instead of
// reading as a missing key.
PyObject *dict_item(PyObject *d, const char *key);
// The interned str of an attribute name the binding looks up, kept for the
// process: lookups by it hit the interpreter's attribute cache instead of
// filling the cache with a new str on every call. nullptr with the error
// set when it cannot be made (never throws: C callbacks use it).
PyObject *attr_name(const char *name);
// o.name; throws when it fails.
OwnedRef get_attr(PyObject *o, const char *name);
// Whether o has attribute name; failures other than AttributeError propagate.
bool has_attr(PyObject *o, const char *name);

// The bytes of a text argument as a C string: str (encoded UTF-8) or bytes
// on Python 3, str or unicode on Python 2. Embedded NULs are refused, since
// the request would silently carry only the part before them.
class TextArg {
 public:
  TextArg(PyObject *o, const char *argname);
  const char *c_str() const { return compat::bytes_data(bytes_.get()); }
  std::string_view view() const {
    return {compat::bytes_data(bytes_.get()),
            static_cast<size_t>(compat::bytes_size(bytes_.get()))};
  }

 private:
  OwnedRef bytes_;
};

// --- results -------------------------------------------------------------------------------
// `str` of a NUL-terminated field of at most max bytes.
OwnedRef text_field(const char *s, size_t max);
inline OwnedRef text(std::string_view s) {
  return OwnedRef::check(compat::text_from_bytes(s.data(), static_cast<Py_ssize_t>(s.size())));
}
inline OwnedRef int_u64(unsigned long long v) { return OwnedRef::check(compat::int_from_ull(v)); }
inline OwnedRef int_i64(long long v) { return OwnedRef::check(compat::int_from_ll(v)); }
inline OwnedRef boolean(bool v) { return OwnedRef::incref(v ? Py_True : Py_False); }
inline OwnedRef none() { return OwnedRef::incref(Py_None); }

// --- type objects ----------------------------------------------------------------------------
// Static type objects are filled in code rather than by aggregate
// initialisation, because their layout differs between Python versions.
struct TypeDesc {
  const char *name;  // "TQDBv17_1.TQMessage"
  const char *doc;
  Py_ssize_t basicsize;
  PyTypeObject *base = nullptr;
  bool gc = false;
  bool subclassable = false;
  newfunc tp_new = nullptr;
  destructor tp_dealloc = nullptr;
  traverseproc tp_traverse = nullptr;
  inquiry tp_clear = nullptr;
  PyMethodDef *methods = nullptr;
};
// Fills type from desc, unless it is ready already (a second import).
// Filling comes before readying: readying a class readies its base too, so
// every class of a module is filled before the first is made ready.
void type_fill(PyTypeObject &type, const TypeDesc &desc);
// PyType_Ready; throws on failure.
void type_ready(PyTypeObject &type);

}  // namespace tqpy

#endif
