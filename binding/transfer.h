// TQFileServe and TQBackup: one upload in progress each, and the Session
// methods that drive uploads and downloads for both families.
//
// An upload object owns its C upload record and the record's input: a path
// is opened by the object and closed when it dies; a file object is kept
// referenced and read through its read(n). The object refers to no session
// or handle, so it may outlive them and be freed in any order.
// A family is one row (UploadFamily): its class, its C functions.
#ifndef TQ_BINDING_TRANSFER_H
#define TQ_BINDING_TRANSFER_H

#include "rows.h"

#include <structmember.h>

#include <cstdio>
#include <cstring>

#include "tqdb_api_backup.h"
#include "tqdb_api_fileserv.h"

namespace tqpy {

extern PyTypeObject g_file_serve_type;
extern PyTypeObject g_backup_type;
void file_serve_type_fill();
void backup_type_fill();

// Where an upload's content comes from.
struct UploadSource {
  FILE *file = nullptr;       // opened from a path; closed with the object
  PyObject *reader = nullptr;  // a file object (strong)
};

template <class Rec>
struct UploadObject {
  PyObject_HEAD
  Rec rec;
  uint32_t cid;  // of the start request; 0 when it was not queued
  UploadSource source;
};

// One family's upload and download as C functions.
template <class Rec>
struct UploadFamily {
  PyTypeObject *type;
  const char *qualname;  // "TQDBv17_1.TQFileServe"
  const char *doc;
  uint32_t (*start)(tqdb_api_handle_t *, uint32_t, Rec *);
  int (*reply)(tqdb_api_msg_t *, Rec *);
  uint32_t (*next)(tqdb_api_handle_t *, uint32_t, Rec *);
};

using DownloadFn = int (*)(tqdb_api_msg_t *, tqdb_api_transfer_output_t, uint32_t *);

// Shared by both families (fileserv.cc).
// Opens a path or takes a file object with read(); the C input reads it.
tqdb_api_transfer_input_t source_open(UploadSource &src, PyObject *input_file);
void source_close(UploadSource &src);
// x_download_handle(msg, ifile, insize) -> (result, insize).
OwnedRef download_handle(PyObject *args, PyObject *kwds, const char *func, DownloadFn fn);
// The read-only attributes, at the offsets of the record's fields.
PyMemberDef *upload_members(size_t cid, size_t name, size_t type, size_t state, size_t failed,
                            size_t transfer_id, PyMemberDef (&storage)[7]);

template <class Rec>
UploadObject<Rec> *as_upload(PyObject *o) {
  return reinterpret_cast<UploadObject<Rec> *>(o);
}

template <class Rec, const UploadFamily<Rec> &F>
struct Uploads {
  using Obj = UploadObject<Rec>;

  static OwnedRef create(PyTypeObject *type) {
    auto obj = OwnedRef::check(type->tp_alloc(type, 0));
    as_upload<Rec>(obj.get())->source = UploadSource{};
    return obj;
  }
  // TQFileServe() made by a script: an upload with no input, never started.
  static OwnedRef construct(PyTypeObject *type, PyObject *args, PyObject *kwds) {
    parse_no_args(args, kwds, type->tp_name);
    return create(type);
  }
  static void dealloc(PyObject *o) {
    PyObject_GC_UnTrack(o);
    source_close(as_upload<Rec>(o)->source);
    Py_TYPE(o)->tp_free(o);
  }
  static int traverse(PyObject *o, visitproc visit, void *arg) {
    Py_VISIT(as_upload<Rec>(o)->source.reader);
    return 0;
  }
  static int clear(PyObject *o) {
    // The record's input no longer reads anything: a later read fails the upload.
    as_upload<Rec>(o)->rec.input = {};
    source_close(as_upload<Rec>(o)->source);
    return 0;
  }

  // Session.x_upload(..., input_file): the object, its start request queued.
  static OwnedRef start(SessionObject *self, PyObject *type_arg, PyObject *name_arg,
                        PyObject *input_file) {
    OwnedRef obj = create(F.type);
    Obj *u = as_upload<Rec>(obj.get());
    if (type_arg) u->rec.target_type = static_cast<uint32_t>(arg_as_int(type_arg));
    const TextArg name(name_arg, "target_name");
    if (name.view().size() >= sizeof u->rec.target_name)
      raise(PyExc_ValueError, "target_name is longer than %d bytes",
            static_cast<int>(sizeof u->rec.target_name - 1));
    std::memcpy(u->rec.target_name, name.c_str(), name.view().size() + 1);
    u->rec.input = source_open(u->source, input_file);
    u->cid = F.start(self->handle, self->session_id, &u->rec);
    return obj;
  }

  static Rec &record_arg(PyObject *o, const char *argname) {
    check_arg_type(o, F.type, argname, false);
    return as_upload<Rec>(o)->rec;
  }

  // Session.x_upload_continue(fil) -> correlation id.
  static OwnedRef next(SessionObject *self, PyObject *args, PyObject *kwds, const char *func,
                       const char *argname) {
    const char *const names[] = {argname, nullptr};
    PyObject *a[1]{};
    parse_args(args, kwds, func, names, 1, a);
    Rec &rec = record_arg(a[0], argname);
    const uint32_t cid = F.next(self->handle, self->session_id, &rec);
    if (PyErr_Occurred()) throw_python_error();  // raised by the input's read()
    return int_u64(cid);
  }

  // Session.x_upload_handle(msg, fil) -> 1 while the upload goes on, 0 once failed.
  static OwnedRef reply(PyObject *args, PyObject *kwds, const char *func, const char *argname) {
    const char *const names[] = {"msg", argname, nullptr};
    PyObject *a[2]{};
    parse_args(args, kwds, func, names, 2, a);
    tqdb_api_msg_t *env = message_arg(a[0]);
    return int_i64(F.reply(env, &record_arg(a[1], argname)));
  }

  static void type_fill() {
    static PyMemberDef storage[7];
    const bool ready = (F.type->tp_flags & Py_TPFLAGS_READY) != 0;
    ::tqpy::type_fill(*F.type,
                      TypeDesc{.name = F.qualname,
                               .doc = F.doc,
                               .basicsize = sizeof(Obj),
                               .gc = true,
                               .tp_new = new_entry<TQ_SITE("TQDBv17_1.__new__"), construct>,
                               .tp_dealloc = dealloc,
                               .tp_traverse = traverse,
                               .tp_clear = clear});
    if (!ready)
      F.type->tp_members = upload_members(
          offsetof(Obj, cid), offsetof(Obj, rec) + offsetof(Rec, target_name),
          offsetof(Obj, rec) + offsetof(Rec, target_type),
          offsetof(Obj, rec) + offsetof(Rec, state), offsetof(Obj, rec) + offsetof(Rec, failed),
          offsetof(Obj, rec) + offsetof(Rec, transfer_id), storage);
  }
};

}  // namespace tqpy

#endif
