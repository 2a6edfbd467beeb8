// Owned and borrowed Python references as types, and the C++ side of
// Python errors.
//
//   OwnedRef::steal(p)   takes over a new reference (what most API calls return)
//   OwnedRef::incref(p)  makes a new reference to an object we only borrow
//   ref.release()        hands the reference back to C (e.g. a return value)
//   BorrowedRef          names an object someone else keeps alive
//
// Neither converts implicitly to PyObject *: every place that passes a
// reference on says whether it lends (get) or gives (release) it.
//
// Errors: code below the entry points throws PythonError once a Python
// exception is set; the entry points (see py_entry.h) catch it and return
// nullptr or -1. No C++ exception ever reaches the interpreter.
#ifndef TQ_BINDING_PY_REF_H
#define TQ_BINDING_PY_REF_H

#include "py_compat.h"

#include <utility>

namespace tqpy {

// A Python exception is set; unwind to the entry point.
struct PythonError {};

[[noreturn]] inline void throw_python_error() { throw PythonError{}; }

class BorrowedRef {
 public:
  BorrowedRef() = default;
  static BorrowedRef of(PyObject *p) { return BorrowedRef(p); }
  PyObject *get() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }

 private:
  explicit BorrowedRef(PyObject *p) : p_(p) {}
  PyObject *p_ = nullptr;
};

class OwnedRef {
 public:
  OwnedRef() = default;
  // Takes over a new reference; nullptr gives an empty OwnedRef.
  static OwnedRef steal(PyObject *p) { return OwnedRef(p); }
  // Takes over a new reference that must not be null: nullptr means the
  // call that produced it failed with an exception set.
  static OwnedRef check(PyObject *p) {
    if (!p) throw_python_error();
    return OwnedRef(p);
  }
  static OwnedRef incref(PyObject *p) {
    Py_XINCREF(p);
    return OwnedRef(p);
  }
  static OwnedRef incref(BorrowedRef b) { return incref(b.get()); }

  OwnedRef(const OwnedRef &) = delete;
  OwnedRef &operator=(const OwnedRef &) = delete;
  OwnedRef(OwnedRef &&o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  OwnedRef &operator=(OwnedRef &&o) noexcept {
    if (this != &o) {
      PyObject *old = std::exchange(p_, std::exchange(o.p_, nullptr));
      Py_XDECREF(old);
    }
    return *this;
  }
  ~OwnedRef() { Py_XDECREF(p_); }

  PyObject *get() const { return p_; }
  BorrowedRef borrow() const { return BorrowedRef::of(p_); }
  [[nodiscard]] PyObject *release() { return std::exchange(p_, nullptr); }
  void reset() {
    PyObject *old = std::exchange(p_, nullptr);
    Py_XDECREF(old);
  }
  explicit operator bool() const { return p_ != nullptr; }

 private:
  explicit OwnedRef(PyObject *p) : p_(p) {}
  PyObject *p_ = nullptr;
};

// Sets a Python exception and unwinds.
template <class... A>
[[noreturn]] void raise(PyObject *type, const char *fmt, A... args) {
  PyErr_Format(type, fmt, args...);
  throw_python_error();
}
[[noreturn]] inline void raise_text(PyObject *type, const char *text) {
  PyErr_SetString(type, text);
  throw_python_error();
}

// Checks the status of a call that returns 0 / -1.
inline void check_status(int rc) {
  if (rc < 0) throw_python_error();
}

// Sets attribute `name` of module m; the reference is given away only on
// success.
inline void module_add(PyObject *m, const char *name, OwnedRef value) {
  if (!value) throw_python_error();
  if (PyModule_AddObject(m, name, value.get()) < 0) throw_python_error();
  (void)value.release();
}

}  // namespace tqpy

#endif
