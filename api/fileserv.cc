// The file service: typed file areas on the appliance.
#include "tqdb_api_fileserv.h"

#include "reply_reader.h"
#include "tq_list.h"
#include "ruleset_rows.h"
#include "transfer.h"

namespace {

using Type = tqdb_api_fileserv_type_t;
using File = tqdb_api_fileserv_file_t;

constexpr tqdb_api_item_field_t kTypeCols[]{TQ_ROW(Type, id, U32), TQ_ROW(Type, flags, U32),
                                 TQ_ROW(Type, name, Text)};
constexpr tq::RecordKind kType{{"tqdb_api_fileserv_type_t", sizeof(Type), kTypeCols},
                             "tqdb_api_fileserv_types_handle"};
constexpr tqdb_api_item_field_t kFileCols[]{TQ_ROW(File, name, Text), TQ_ROW(File, size, U64),
                                 TQ_ROW(File, mtime, U64)};
constexpr tq::RecordKind kFile{{"tqdb_api_fileserv_file_t", sizeof(File), kFileCols},
                             "tqdb_api_fileserv_list_handle"};
static_assert(tq::rows_fit(sizeof(Type), kTypeCols) &&
              tq::rows_fit(sizeof(File), kFileCols));

constexpr tq::UploadKind kUpload{TQDB_REQ_FILESERV_UPLOAD_START, TQDB_REQ_FILESERV_UPLOAD_DATA,
                                 TQDB_REQ_FILESERV_UPLOAD_FINISH, true, false,
                                 "tqdb_api_fileserv_upload_handle_data"};

}  // namespace

uint32_t tqdb_api_fileserv_types(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_FILESERV_TYPES, session);
}

tq_list_t *tqdb_api_fileserv_types_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::read_listing(env, kType, list);
}

uint32_t tqdb_api_fileserv_list(tqdb_api_handle_t *h, uint32_t session, uint32_t type) {
  return tqdb_api_send(h, TQDB_REQ_FILESERV_LIST, session, type);
}

tq_list_t *tqdb_api_fileserv_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  return tq::read_listing(env, kFile, list);
}

void tqdb_api_fileserv_list_free(tq_list_t *list) { tq_list_free_with_data(list); }

uint32_t tqdb_api_fileserv_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t type,
                                  const char *name) {
  return tqdb_api_send(h, TQDB_REQ_FILESERV_REMOVE, session, type, name);
}

uint32_t tqdb_api_fileserv_download(tqdb_api_handle_t *h, uint32_t session, uint32_t type,
                                    const char *name) {
  return tqdb_api_send(h, TQDB_REQ_FILESERV_DOWNLOAD, session, type, name);
}

int tqdb_api_fileserv_download_handle(tqdb_api_msg_t *env, tqdb_api_transfer_output_t out,
                                      uint32_t *insize) {
  return tq::download_reply(env, out, insize, "tqdb_api_fileserv_download_handle");
}

uint32_t tqdb_api_fileserv_upload(tqdb_api_handle_t *h, uint32_t session,
                                  tqdb_api_fileserv_upload_t *up) {
  return up != nullptr ? tq::upload_start(h, session, kUpload, tq::upload_of(up)) : 0;
}

int tqdb_api_fileserv_upload_handle_data(tqdb_api_msg_t *env, tqdb_api_fileserv_upload_t *up) {
  return up != nullptr ? tq::upload_reply(env, kUpload, tq::upload_of(up)) : 0;
}

uint32_t tqdb_api_fileserv_upload_continue(tqdb_api_handle_t *h, uint32_t session,
                                           tqdb_api_fileserv_upload_t *up) {
  return up != nullptr ? tq::upload_continue(h, session, kUpload, tq::upload_of(up)) : 0;
}

uint32_t tqdb_api_fileserv_upload_abort(tqdb_api_handle_t *h, uint32_t session,
                                        uint32_t transfer_id) {
  return tqdb_api_send(h, TQDB_REQ_FILESERV_UPLOAD_ABORT, session, transfer_id);
}

uint32_t tqdb_api_fileserv_area_usage(tqdb_api_handle_t *h, uint32_t session, uint32_t type) {
  return tqdb_api_send(h, TQDB_REQ_FILESERV_AREA_USAGE, session, type);
}

bool tqdb_api_fileserv_area_usage_handle(tqdb_api_msg_t *env, uint64_t *used,
                                         uint64_t *allowed_per_file) {
  *used = *allowed_per_file = 0;
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA || env->msg == nullptr) return false;
  tq::ReplyReader r(env, "tqdb_api_fileserv_area_usage_handle");
  const uint64_t u = r.u64(), a = r.u64();
  if (!r.ok()) return false;
  *used = u;
  *allowed_per_file = a;
  return true;
}
