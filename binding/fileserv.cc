// The file service: rows, the fields of TQFileservTypeList and
// TQFileservList, TQFileServe, and what uploads and downloads of both
// families share (see transfer.h).
#include "transfer.h"

#include <cerrno>

namespace tqpy {

PyTypeObject g_file_serve_type;

// --- inputs and outputs -------------------------------------------------------------------

namespace {

// The input's read(n) into buf. A Python error stays set (the upload fails
// and the method that drove it raises it).
ptrdiff_t reader_read(void *ctx, void *buf, size_t size) {
  PyObject *reader = static_cast<UploadSource *>(ctx)->reader;
  if (reader == nullptr) return -1;
  PyObject *name = attr_name("read");
  auto want = OwnedRef::steal(name ? PyLong_FromSsize_t(static_cast<Py_ssize_t>(size)) : nullptr);
  PyObject *got = want ? PyObject_CallMethodObjArgs(reader, name, want.get(), nullptr) : nullptr;
  if (got == nullptr) return -1;
  const auto data = OwnedRef::steal(got);
  if (!compat::is_bytes(got)) {
    PyErr_Format(PyExc_TypeError,
                 "input_file.read() returned %.200s, not bytes: open the file in binary mode",
                 Py_TYPE(got)->tp_name);
    return -1;
  }
  const auto n = static_cast<size_t>(compat::bytes_size(got));
  if (n > size) {
    PyErr_SetString(PyExc_ValueError, "input_file.read(n) returned more than n bytes");
    return -1;
  }
  std::memcpy(buf, compat::bytes_data(got), n);
  return static_cast<ptrdiff_t>(n);
}

// ifile.write(bytes); false with the Python error set when it raised.
bool writer_write(void *ctx, const void *buf, size_t size) {
  auto data = OwnedRef::steal(compat::bytes_new(static_cast<const char *>(buf),
                                                static_cast<Py_ssize_t>(size)));
  if (!data) return false;
  PyObject *name = attr_name("write");
  PyObject *r = name ? PyObject_CallMethodObjArgs(static_cast<PyObject *>(ctx), name, data.get(),
                                                  nullptr)
                     : nullptr;
  Py_XDECREF(r);
  return r != nullptr;
}

bool is_path(PyObject *o) {
  return compat::is_bytes(o) || PyUnicode_Check(o);
}

}  // namespace

tqdb_api_transfer_input_t source_open(UploadSource &src, PyObject *input_file) {
  if (is_path(input_file)) {
    const TextArg path(input_file, "input_file");
    src.file = std::fopen(path.c_str(), "rb");
    if (src.file == nullptr) {
      PyErr_SetFromErrnoWithFilename(PyExc_IOError, const_cast<char *>(path.c_str()));
      throw_python_error();
    }
    return tqdb_api_transfer_input_file(src.file);
  }
  if (!has_attr(input_file, "read"))
    raise(PyExc_TypeError,
          "argument 'input_file' must be a path or a binary file object, not %.200s",
          Py_TYPE(input_file)->tp_name);
  Py_INCREF(input_file);
  src.reader = input_file;
  return {reader_read, &src};
}

void source_close(UploadSource &src) {
  if (src.file != nullptr) std::fclose(src.file);
  src.file = nullptr;
  Py_CLEAR(src.reader);
}

OwnedRef download_handle(PyObject *args, PyObject *kwds, const char *func, DownloadFn fn) {
  static const char *const names[] = {"msg", "ifile", "insize", nullptr};
  PyObject *a[3]{};
  parse_args(args, kwds, func, names, 3, a);
  tqdb_api_msg_t *env = message_arg(a[0]);
  uint32_t insize = arg_u32(a[2]);
  if (!has_attr(a[1], "write"))
    raise(PyExc_TypeError, "argument 'ifile' must be a writable binary file object, not %.200s",
          Py_TYPE(a[1])->tp_name);
  const int result = fn(env, {writer_write, a[1]}, &insize);
  if (PyErr_Occurred()) throw_python_error();  // raised by ifile.write()
  OwnedRef r = int_i64(result), size = int_u64(insize);
  return OwnedRef::check(PyTuple_Pack(2, r.get(), size.get()));
}

PyMemberDef *upload_members(size_t cid, size_t name, size_t type, size_t state, size_t failed,
                            size_t transfer_id, PyMemberDef (&storage)[7]) {
  const struct {
    const char *name;
    int kind;
    size_t offset;
    const char *doc;
  } rows[] = {
      {"cid", T_UINT, cid, "Correlation id of the start request (0: it was not queued)."},
      {"target_name", T_STRING_INPLACE, name, "The file's name on the appliance."},
      {"target_type", T_UINT, type, "The file type id."},
      {"state", T_UINT, state,
       "0 new, 1 start sent, 2 sending data, 3 input exhausted, 4 finish sent."},
      {"failed", T_UINT, failed, "1 once anything failed."},
      {"transfer_id", T_UINT, transfer_id, "Assigned by the appliance."},
  };
  size_t i = 0;
  for (const auto &r : rows)
    storage[i++] = PyMemberDef{const_cast<char *>(r.name), r.kind,
                               static_cast<Py_ssize_t>(r.offset), READONLY,
                               const_cast<char *>(r.doc)};
  storage[i] = PyMemberDef{};
  return storage;
}

// --- the file service ---------------------------------------------------------------------

namespace {

using Type = tqdb_api_fileserv_type_t;
using File = tqdb_api_fileserv_file_t;
using Rec = tqdb_api_fileserv_upload_t;

constexpr Field kTypeFields[] = {
    TQ_FIELD(Type, id, U32, "id"),
    TQ_FIELD(Type, flags, U32, "flags"),
    TQ_FIELD(Type, name, Text, "name"),
};
constexpr Field kFileFields[] = {
    TQ_FIELD(File, name, Text, "name"),
    TQ_FIELD(File, size, U64, "size"),
    TQ_FIELD(File, mtime, U64, "mtime"),
};

constexpr UploadFamily<Rec> kFamily{&g_file_serve_type,
                                    "TQDBv17_1.TQFileServe",
                                    "A file service upload: the state of one transfer.",
                                    &tqdb_api_fileserv_upload,
                                    &tqdb_api_fileserv_upload_handle_data,
                                    &tqdb_api_fileserv_upload_continue};
using U = Uploads<Rec, kFamily>;

OwnedRef upload(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"target_type", "target_name", "input_file", nullptr};
  PyObject *a[3]{};
  parse_args(args, kwds, "fileserve_upload", names, 3, a);
  return U::start(self, a[0], a[1], a[2]);
}
OwnedRef upload_continue(SessionObject *self, PyObject *args, PyObject *kwds) {
  return U::next(self, args, kwds, "fileserve_upload_continue", "fil");
}
OwnedRef upload_handle_data(SessionObject *, PyObject *args, PyObject *kwds) {
  return U::reply(args, kwds, "fileserve_upload_handle_data", "fil");
}
OwnedRef download_handle_body(SessionObject *, PyObject *args, PyObject *kwds) {
  return download_handle(args, kwds, "fileserv_download_handle",
                         &tqdb_api_fileserv_download_handle);
}

#define TQ_FS_METHOD(pyname, body, doc) \
  TQ_METHOD("TQDBv17_1.Session." pyname, pyname, SessionObject, body, doc)

const PyMethodDef kRows[] = {
    TQ_REQUEST("fileserv_types", &tqdb_api_fileserv_types, "fileserv_types() -> correlation id."),
    TQ_DECODE("fileserv_types_handle",
              "fileserv_types_handle(msg, l=None) -> l (a new TQFileservTypeList when None) with "
              "the reply's file types.",
              append_list_body, ListId::TQFileservTypeList, &tqdb_api_fileserv_types_handle),
    TQ_REQUEST("fileserv_list", &tqdb_api_fileserv_list, "fileserv_list(typ) -> correlation id.",
               arg("typ", Conv::Int, 0)),
    TQ_DECODE("fileserv_list_handle",
              "fileserv_list_handle(msg, l=None) -> l (a new TQFileservList when None) with the "
              "reply's files.",
              append_list_body, ListId::TQFileservList, &tqdb_api_fileserv_list_handle),
    TQ_REQUEST("fileserve_remove", &tqdb_api_fileserv_remove,
               "fileserve_remove(target_type, target_name) -> correlation id.",
               arg("target_type", Conv::Int, 0), arg("target_name", Conv::Text, 1)),
    TQ_REQUEST("fileserv_download", &tqdb_api_fileserv_download,
               "fileserv_download(t, filename) -> correlation id.", arg("t", Conv::Int, 0),
               arg("filename", Conv::Text, 1)),
    TQ_FS_METHOD("fileserv_download_handle", download_handle_body,
                 "fileserv_download_handle(msg, ifile, insize) -> (result, insize): writes the "
                 "reply's chunks to the binary file object ifile; insize is the total size, "
                 "read from the first reply (pass 0 then). result 0: not data, or cut short."),
    TQ_FS_METHOD("fileserve_upload", upload,
                 "fileserve_upload(target_type, target_name, input_file) -> TQFileServe; "
                 "input_file is a path or a binary file object. Its cid is the start request's "
                 "correlation id (0: not queued)."),
    TQ_FS_METHOD("fileserve_upload_handle_data", upload_handle_data,
                 "fileserve_upload_handle_data(msg, fil) -> 1 while the upload goes on, 0 once "
                 "it has failed; takes the transfer id from the start request's reply."),
    TQ_FS_METHOD("fileserve_upload_continue", upload_continue,
                 "fileserve_upload_continue(fil) -> correlation id of the next data message or "
                 "of the finish request; 0 when done (fil.state 4) or failed (fil.failed)."),
};

}  // namespace

void file_serve_type_fill() { U::type_fill(); }

const std::span<const PyMethodDef> g_fileserv_rows{kRows};
const std::span<const Field> g_fileserv_type_fields{kTypeFields};
const std::span<const Field> g_fileserv_file_fields{kFileFields};

}  // namespace tqpy
