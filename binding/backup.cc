// Backups: rows, the fields of TQBackupList, and TQBackup.
#include "transfer.h"

namespace tqpy {

PyTypeObject g_backup_type;

namespace {

using Backup = tqdb_api_backup_t;
using Rec = tqdb_api_backup_upload_t;

constexpr Field kFields[] = {
    TQ_FIELD(Backup, path, Text, "path"),
    TQ_FIELD(Backup, cdate, U64, "cdate"),
    TQ_FIELD(Backup, size, U64, "size"),
};

constexpr UploadFamily<Rec> kFamily{&g_backup_type,
                                    "TQDBv17_1.TQBackup",
                                    "A backup upload: the state of one transfer.",
                                    &tqdb_api_backup_upload,
                                    &tqdb_api_backup_upload_handle,
                                    &tqdb_api_backup_upload_continue};
using U = Uploads<Rec, kFamily>;

OwnedRef upload(SessionObject *self, PyObject *args, PyObject *kwds) {
  static const char *const names[] = {"target_name", "input_file", nullptr};
  PyObject *a[2]{};
  parse_args(args, kwds, "backup_upload", names, 2, a);
  return U::start(self, nullptr, a[0], a[1]);
}
OwnedRef upload_continue(SessionObject *self, PyObject *args, PyObject *kwds) {
  return U::next(self, args, kwds, "backup_upload_continue", "b");
}
OwnedRef upload_handle(SessionObject *, PyObject *args, PyObject *kwds) {
  return U::reply(args, kwds, "backup_upload_handle", "b");
}
OwnedRef download_handle_body(SessionObject *, PyObject *args, PyObject *kwds) {
  return download_handle(args, kwds, "backup_download_handle", &tqdb_api_backup_download_handle);
}

#define TQ_BK_METHOD(pyname, body, doc) \
  TQ_METHOD("TQDBv17_1.Session." pyname, pyname, SessionObject, body, doc)

const PyMethodDef kRows[] = {
    TQ_REQUEST("backup_list", &tqdb_api_backup_list, "backup_list() -> correlation id."),
    TQ_DECODE("backup_list_handle",
              "backup_list_handle(msg, l=None) -> l (a new TQBackupList when None) with the "
              "reply's backups.",
              append_list_body, ListId::TQBackupList, &tqdb_api_backup_list_handle),
    TQ_REQUEST("backup_dump", &tqdb_api_backup_dump,
               "backup_dump(name, resource=0) -> correlation id; resource 0 dumps every "
               "resource.",
               arg("name", Conv::Text, 0), arg("resource", Conv::Int, 1).opt()),
    TQ_DECODE("backup_dump_handle", "backup_dump_handle(msg) -> the backup's name, or None.",
              text_body, &tqdb_api_backup_dump_handle, 257),
    TQ_REQUEST("backup_restore", &tqdb_api_backup_restore,
               "backup_restore(name, section=0) -> correlation id; section 0 restores every "
               "resource of the backup.",
               arg("name", Conv::Text, 0), arg("section", Conv::Int, 1).opt()),
    TQ_REQUEST("backup_remove", &tqdb_api_backup_remove, "backup_remove(name) -> correlation id.",
               arg("name", Conv::Text, 0)),
    TQ_REQUEST("backup_download", &tqdb_api_backup_download,
               "backup_download(filename) -> correlation id.", arg("filename", Conv::Text, 0)),
    TQ_BK_METHOD("backup_download_handle", download_handle_body,
                 "backup_download_handle(msg, ifile, insize) -> (result, insize), as "
                 "fileserv_download_handle."),
    TQ_BK_METHOD("backup_upload", upload,
                 "backup_upload(target_name, input_file) -> TQBackup; input_file is a path or a "
                 "binary file object. Its cid is the start request's correlation id."),
    TQ_BK_METHOD("backup_upload_handle", upload_handle,
                 "backup_upload_handle(msg, b) -> 1 while the upload goes on, 0 once it has "
                 "failed; takes the transfer id from the start request's reply."),
    TQ_BK_METHOD("backup_upload_continue", upload_continue,
                 "backup_upload_continue(b) -> correlation id of the next data message or of "
                 "the finish request; 0 when done (b.state 4) or failed (b.failed)."),
};

}  // namespace

void backup_type_fill() { U::type_fill(); }

const std::span<const PyMethodDef> g_backup_rows{kRows};
const std::span<const Field> g_backup_fields{kFields};

}  // namespace tqpy
