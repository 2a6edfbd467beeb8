#include "py_entry.h"

#include <array>
#include <cstring>
#include <string>
#include <unordered_map>

namespace tqpy {

void parse_args(PyObject *args, PyObject *kwds, const char *func, const char *const *names,
                int required, std::span<PyObject *> out) {
  constexpr size_t kMax = 8;
  size_t n = 0;
  while (names[n]) ++n;
  if (n > kMax || n != out.size() || required < 0 || static_cast<size_t>(required) > n)
    raise_text(PyExc_SystemError, "bad argument table");

  std::string format(static_cast<size_t>(required), 'O');
  if (n > static_cast<size_t>(required)) {
    format += '|';
    format.append(n - static_cast<size_t>(required), 'O');
  }
  format += ':';
  format += func;

  std::array<PyObject *, kMax> slot{};
  // The unused trailing pointers are ignored: the format names n objects.
  if (!PyArg_ParseTupleAndKeywords(args, kwds, format.c_str(), const_cast<char **>(names),
                                   &slot[0], &slot[1], &slot[2], &slot[3], &slot[4], &slot[5],
                                   &slot[6], &slot[7]))
    throw_python_error();
  std::copy_n(slot.begin(), n, out.begin());
}

PyObject *dict_item(PyObject *d, const char *key) {
  auto k = OwnedRef::check(compat::text_from_bytes(key, static_cast<Py_ssize_t>(std::strlen(key))));
  PyObject *v = compat::dict_get(d, k.get());
  if (!v && PyErr_Occurred()) throw_python_error();
  return v;
}

PyObject *attr_name(const char *name) {
  static std::unordered_map<std::string, PyObject *> names;
  try {
    const auto it = names.find(name);
    if (it != names.end()) return it->second;
    PyObject *s = compat::text_intern(name);
    if (s) names.emplace(name, s);
    return s;
  } catch (const std::bad_alloc &) {
    return PyErr_NoMemory();
  }
}

OwnedRef get_attr(PyObject *o, const char *name) {
  PyObject *key = attr_name(name);
  return OwnedRef::check(key ? PyObject_GetAttr(o, key) : nullptr);
}

bool has_attr(PyObject *o, const char *name) {
  PyObject *key = attr_name(name);
  if (!key) throw_python_error();
  PyObject *v = PyObject_GetAttr(o, key);
  if (v) {
    Py_DECREF(v);
    return true;
  }
  if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw_python_error();
  PyErr_Clear();
  return false;
}

void check_arg_type(PyObject *o, PyTypeObject *type, const char *argname, bool none_ok) {
  if (none_ok && o == Py_None) return;
  if (PyObject_TypeCheck(o, type)) return;
  raise(PyExc_TypeError, "Argument '%.200s' has incorrect type (expected %.200s, got %.200s)",
        argname, type->tp_name, Py_TYPE(o)->tp_name);
}

int arg_as_int(PyObject *o) {
  long long v = compat::int_as_ll(o);
  if (v == -1 && PyErr_Occurred()) throw_python_error();
  if (v < INT_MIN || v > INT_MAX)
    raise_text(PyExc_OverflowError, "Python int too large to convert to C int");
  return static_cast<int>(v);
}

TextArg::TextArg(PyObject *o, const char *argname)
    : bytes_(OwnedRef::check(compat::bytes_of_text(o, argname))) {
  const auto v = view();
  if (v.find('\0') != std::string_view::npos)
    raise(PyExc_ValueError, "argument '%.200s' contains a NUL character", argname);
}

OwnedRef text_field(const char *s, size_t max) { return text({s, strnlen(s, max)}); }

void type_fill(PyTypeObject &type, const TypeDesc &desc) {
  if (!(type.tp_flags & Py_TPFLAGS_READY)) {
    type = PyTypeObject{};
    compat::set_refcnt(reinterpret_cast<PyObject *>(&type), 1);
    type.tp_name = desc.name;
    type.tp_doc = desc.doc;
    type.tp_basicsize = desc.basicsize;
    type.tp_base = desc.base;
    type.tp_flags = Py_TPFLAGS_DEFAULT;
    if (desc.gc) type.tp_flags |= Py_TPFLAGS_HAVE_GC;
    if (desc.subclassable) type.tp_flags |= Py_TPFLAGS_BASETYPE;
    type.tp_new = desc.tp_new;
    type.tp_dealloc = desc.tp_dealloc;
    type.tp_traverse = desc.tp_traverse;
    type.tp_clear = desc.tp_clear;
    type.tp_methods = desc.methods;
  }
}

void type_ready(PyTypeObject &type) { check_status(PyType_Ready(&type)); }

}  // namespace tqpy
