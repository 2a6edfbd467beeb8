// _tqfault: a test-only module (Python 3) for the boundary suite.
//
//   fail_after(n)   the n-th allocation from now in the interpreter's MEM and
//                   OBJ domains returns NULL; the ones before and after succeed
//   disarm()        puts the interpreter's allocators back; True when the
//                   failure happened
//   live_blocks()   {label: blocks} of the client library allocated and not
//                   yet freed
//
// The interpreter's own allocators stay underneath: every block, whether
// allocated while armed or not, is freed by the allocator that made it.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstddef>

#include "tq_malloc.h"

namespace {

struct Domain {
  PyMemAllocatorDomain domain;
  PyMemAllocatorEx saved;
};
Domain g_domains[] = {{PYMEM_DOMAIN_MEM, {}}, {PYMEM_DOMAIN_OBJ, {}}};
long long g_countdown = 0;  // allocations up to the one that fails; 0: none armed
bool g_fired = false;
bool g_installed = false;

bool fail_now() {
  if (g_countdown <= 0 || --g_countdown > 0) return false;
  g_fired = true;
  return true;
}

const PyMemAllocatorEx &under(void *ctx) { return static_cast<Domain *>(ctx)->saved; }

void *fault_malloc(void *ctx, size_t n) {
  return fail_now() ? nullptr : under(ctx).malloc(under(ctx).ctx, n);
}
void *fault_calloc(void *ctx, size_t count, size_t n) {
  return fail_now() ? nullptr : under(ctx).calloc(under(ctx).ctx, count, n);
}
void *fault_realloc(void *ctx, void *p, size_t n) {
  return fail_now() ? nullptr : under(ctx).realloc(under(ctx).ctx, p, n);
}
void fault_free(void *ctx, void *p) { under(ctx).free(under(ctx).ctx, p); }

PyObject *fail_after(PyObject *, PyObject *arg) {
  const long long n = PyLong_AsLongLong(arg);
  if (n == -1 && PyErr_Occurred()) return nullptr;
  if (n < 1) {
    PyErr_SetString(PyExc_ValueError, "fail_after(n) wants n >= 1");
    return nullptr;
  }
  if (!g_installed) {
    for (Domain &d : g_domains) {
      PyMem_GetAllocator(d.domain, &d.saved);
      PyMemAllocatorEx mine{&d, fault_malloc, fault_calloc, fault_realloc, fault_free};
      PyMem_SetAllocator(d.domain, &mine);
    }
    g_installed = true;
  }
  g_fired = false;
  g_countdown = n;  // set last: nothing above may count
  Py_RETURN_NONE;
}

PyObject *disarm(PyObject *, PyObject *) {
  g_countdown = 0;
  if (g_installed)
    for (Domain &d : g_domains) PyMem_SetAllocator(d.domain, &d.saved);
  g_installed = false;
  return PyBool_FromLong(g_fired);
}

PyObject *live_blocks(PyObject *, PyObject *) {
  PyObject *out = PyDict_New();
  tq_malloc_stat_t s{};
  for (size_t i = 0; out && tq_malloc_stat_at(i, &s); ++i) {
    if (s.entries == 0) continue;
    PyObject *n = PyLong_FromUnsignedLong(s.entries);
    if (!n || PyDict_SetItemString(out, s.label, n) < 0) Py_CLEAR(out);
    Py_XDECREF(n);
  }
  return out;
}

PyMethodDef g_methods[] = {
    {"fail_after", fail_after, METH_O, "fail_after(n): the n-th allocation from now fails."},
    {"disarm", disarm, METH_NOARGS, "disarm() -> True when the armed failure happened."},
    {"live_blocks", live_blocks, METH_NOARGS,
     "live_blocks() -> {label: blocks} of the client library not yet freed."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef g_module{PyModuleDef_HEAD_INIT, "_tqfault", "Allocation faults for the tests.", -1,
                     g_methods, nullptr, nullptr, nullptr, nullptr};

}  // namespace

PyMODINIT_FUNC PyInit__tqfault(void) { return PyModule_Create(&g_module); }
