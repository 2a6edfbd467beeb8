// Configuration backups: listing, dump, restore, removal and the chunked
// transfer shared with the file service.
#include "tqdb_api_backup.h"

#include "reply_reader.h"
#include "tq_list.h"
#include "ruleset_rows.h"
#include "transfer.h"

namespace {

using Backup = tqdb_api_backup_t;

constexpr tqdb_api_item_field_t kCols[]{TQ_ROW(Backup, path, Text), TQ_ROW(Backup, cdate, U64),
                             TQ_ROW(Backup, size, U64)};
constexpr tq::RecordKind kBackup{{"tqdb_api_backup_t", sizeof(Backup), kCols},
                             "tqdb_api_backup_list_handle"};
static_assert(tq::rows_fit(sizeof(Backup), kCols));

// The start and finish requests carry no type; the appliance may answer the
// start with a bare OK.
constexpr tq::UploadKind kUpload{TQDB_REQ_BACKUP_UPLOAD_START, TQDB_REQ_BACKUP_UPLOAD_DATA,
                                 TQDB_REQ_BACKUP_UPLOAD_FINISH, false, true,
                                 "tqdb_api_backup_upload_handle"};

}  // namespace

uint32_t tqdb_api_backup_list(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_BACKUP_LIST, session);
}

tq_list_t *tqdb_api_backup_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::read_listing(env, kBackup, list);
}

void tqdb_api_backup_list_free(tq_list_t *list) { tq_list_free_with_data(list); }

uint32_t tqdb_api_backup_dump(tqdb_api_handle_t *h, uint32_t session, const char *name,
                              uint32_t resource) {
  return tqdb_api_send(h, TQDB_REQ_BACKUP_DUMP, session, name, resource);
}

char *tqdb_api_backup_dump_handle(tqdb_api_msg_t *env, char *buf, size_t size) {
  if (buf == nullptr || size == 0) return nullptr;
  buf[0] = '\0';
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA || env->msg == nullptr) return nullptr;
  tq::ReplyReader r(env, "tqdb_api_backup_dump_handle");
  r.text(buf, size);
  return r.ok() ? buf : nullptr;
}

uint32_t tqdb_api_backup_restore(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                 uint32_t section) {
  return tqdb_api_send(h, TQDB_REQ_BACKUP_RESTORE, session, name, section);
}

uint32_t tqdb_api_backup_remove(tqdb_api_handle_t *h, uint32_t session, const char *name) {
  return tqdb_api_send(h, TQDB_REQ_BACKUP_REMOVE, session, name);
}

uint32_t tqdb_api_backup_download(tqdb_api_handle_t *h, uint32_t session, const char *name) {
  return tqdb_api_send(h, TQDB_REQ_BACKUP_DOWNLOAD, session, name);
}

int tqdb_api_backup_download_handle(tqdb_api_msg_t *env, tqdb_api_transfer_output_t out,
                                    uint32_t *insize) {
  return tq::download_reply(env, out, insize, "tqdb_api_backup_download_handle");
}

uint32_t tqdb_api_backup_upload(tqdb_api_handle_t *h, uint32_t session,
                                tqdb_api_backup_upload_t *up) {
  return up != nullptr ? tq::upload_start(h, session, kUpload, tq::upload_of(up)) : 0;
}

int tqdb_api_backup_upload_handle(tqdb_api_msg_t *env, tqdb_api_backup_upload_t *up) {
  return up != nullptr ? tq::upload_reply(env, kUpload, tq::upload_of(up)) : 0;
}

uint32_t tqdb_api_backup_upload_continue(tqdb_api_handle_t *h, uint32_t session,
                                         tqdb_api_backup_upload_t *up) {
  return up != nullptr ? tq::upload_continue(h, session, kUpload, tq::upload_of(up)) : 0;
}

uint32_t tqdb_api_backup_upload_abort(tqdb_api_handle_t *h, uint32_t session,
                                      uint32_t transfer_id) {
  return tqdb_api_send(h, TQDB_REQ_BACKUP_UPLOAD_ABORT, session, transfer_id);
}
