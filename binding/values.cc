// Item, Distribution and Filter: small value classes, each a row of one
// table (its name and field names) served by one set of slots. Made with
// keyword (or positional) arguments; readable attributes; == and != by
// class and fields; repr "Item(conditiontype=0, objectid=5)".
#include "rows.h"

#include <array>
#include <cstring>
#include <string>

namespace tqpy {

namespace {

constexpr size_t kMaxFields = 3;

struct ValueClass {
  ValueId id;
  const char *name;  // "TQDBv17_1.Item"
  const char *doc;
  std::array<const char *, kMaxFields + 1> fields;  // ends with nullptr
  size_t count;
  PyTypeObject type{};
};

struct ValueObject {
  PyObject_HEAD
  const ValueClass *cls;
  PyObject *v[kMaxFields];  // strong
};

// In ValueId order.
std::array<ValueClass, 3> g_values = {
    ValueClass{ValueId::Item, "TQDBv17_1.Item",
               "Item(conditiontype, objectid): one item of a rule condition.",
               {"conditiontype", "objectid", nullptr, nullptr}, 2},
    ValueClass{ValueId::Distribution, "TQDBv17_1.Distribution",
               "Distribution(distribution, argument): what a live view breaks traffic down by.",
               {"distribution", "argument", nullptr, nullptr}, 2},
    ValueClass{ValueId::Filter, "TQDBv17_1.Filter",
               "Filter(key, operator, values): which traffic a live view shows.",
               {"key", "operator", "values", nullptr}, 3},
};

ValueObject *as_value(PyObject *o) { return reinterpret_cast<ValueObject *>(o); }

const ValueClass &class_of(PyTypeObject *type) {
  for (PyTypeObject *t = type; t; t = t->tp_base)
    for (const ValueClass &c : g_values)
      if (&c.type == t) return c;
  raise_text(PyExc_TypeError, "not a value class");
}

OwnedRef value_new(PyTypeObject *type, PyObject *args, PyObject *kwds) {
  const ValueClass &cls = class_of(type);
  PyObject *a[kMaxFields]{};
  parse_args(args, kwds, std::strrchr(cls.name, '.') + 1, cls.fields.data(),
             static_cast<int>(cls.count), std::span(a).first(cls.count));
  auto obj = OwnedRef::check(type->tp_alloc(type, 0));
  as_value(obj.get())->cls = &cls;
  for (size_t i = 0; i < cls.count; ++i)
    as_value(obj.get())->v[i] = OwnedRef::incref(a[i]).release();
  return obj;
}

int value_clear(PyObject *self) {
  for (PyObject *&v : as_value(self)->v) Py_CLEAR(v);
  return 0;
}

void value_dealloc(PyObject *self) {
  PyObject_GC_UnTrack(self);
  value_clear(self);
  Py_TYPE(self)->tp_free(self);
}

int value_traverse(PyObject *self, visitproc visit, void *arg) {
  for (PyObject *v : as_value(self)->v) Py_VISIT(v);
  return 0;
}

PyObject *value_getattro(PyObject *self, PyObject *name) {
  try {
    const ValueObject *o = as_value(self);
    const TextArg n(name, "name");
    for (size_t i = 0; o->cls && i < o->cls->count; ++i)
      if (n.view() == o->cls->fields[i] && o->v[i]) return OwnedRef::incref(o->v[i]).release();
  } catch (...) {
    translate_exception();
    return nullptr;
  }
  return PyObject_GenericGetAttr(self, name);
}

PyObject *value_richcompare(PyObject *a, PyObject *b, int op) {
  if ((op != Py_EQ && op != Py_NE) || Py_TYPE(a) != Py_TYPE(b)) {
    Py_INCREF(Py_NotImplemented);
    return Py_NotImplemented;
  }
  bool equal = true;
  for (size_t i = 0; equal && i < as_value(a)->cls->count; ++i) {
    const int r = PyObject_RichCompareBool(as_value(a)->v[i], as_value(b)->v[i], Py_EQ);
    if (r < 0) return nullptr;
    equal = r == 1;
  }
  return boolean(equal == (op == Py_EQ)).release();
}

OwnedRef value_repr_body(PyObject *self) {
  const ValueObject *o = as_value(self);
  std::string s = std::strrchr(o->cls->name, '.') + 1;
  s += '(';
  for (size_t i = 0; i < o->cls->count; ++i) {
    if (i) s += ", ";
    s += o->cls->fields[i];
    s += '=';
    auto r = OwnedRef::check(PyObject_Repr(o->v[i]));
    s += TextArg(r.get(), "repr").view();
  }
  s += ')';
  return text(s);
}

PyObject *value_repr(PyObject *self) {
  try {
    return value_repr_body(self).release();
  } catch (...) {
    translate_exception();
  }
  return nullptr;
}

}  // namespace

OwnedRef make_value(ValueId id, OwnedRef a, OwnedRef b, OwnedRef c) {
  ValueClass &cls = g_values[static_cast<size_t>(id)];
  auto obj = OwnedRef::check(cls.type.tp_alloc(&cls.type, 0));
  ValueObject *o = as_value(obj.get());
  o->cls = &cls;
  OwnedRef *given[] = {&a, &b, &c};
  for (size_t i = 0; i < cls.count; ++i) o->v[i] = given[i]->release();
  return obj;
}

void value_types_fill() {
  for (ValueClass &c : g_values) {
    if (c.type.tp_flags & Py_TPFLAGS_READY) continue;
    type_fill(c.type, TypeDesc{.name = c.name,
                               .doc = c.doc,
                               .basicsize = sizeof(ValueObject),
                               .gc = true,
                               .subclassable = true,
                               .tp_new = new_entry<TQ_SITE("TQDBv17_1.Value.__new__"), value_new>,
                               .tp_dealloc = value_dealloc,
                               .tp_traverse = value_traverse,
                               .tp_clear = value_clear});
    c.type.tp_getattro = value_getattro;
    c.type.tp_richcompare = value_richcompare;
    c.type.tp_repr = value_repr;
    c.type.tp_hash = PyObject_HashNotImplemented;
  }
}

void value_types_ready(PyObject *module) {
  for (ValueClass &c : g_values) {
    type_ready(c.type);
    module_add(module, std::strrchr(c.name, '.') + 1,
               OwnedRef::incref(reinterpret_cast<PyObject *>(&c.type)));
  }
}

}  // namespace tqpy
