// What the file service and backups share: the upload machine, the download
// decoder and the flat listing records. Each family describes itself by one
// row (its codes, what its bodies carry, its decoders' names) and hands the
// machine a view of its own upload record.
#ifndef TQDB_API_TRANSFER_H
#define TQDB_API_TRANSFER_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "tqdb_api.h"
#include "tqdb_api_ruleset.h"
#include "tqdb_api_fileserv.h"

struct tq_list_t;

namespace tq {

// --- uploads ---------------------------------------------------------------------------------
struct UploadKind {
  uint32_t start, data, finish;
  bool typed;          // the start and finish requests carry target_type
  bool start_reply_ok;  // the start reply may be an OK besides DATA
  const char *reply_decoder;
};

// The fields of one family's upload record.
struct Upload {
  char *target_name;
  size_t name_size;
  uint32_t *target_type;
  uint32_t *state;
  uint32_t *failed;
  tqdb_api_transfer_input_t *input;
  uint32_t *transfer_id;
};
template <class Rec>
Upload upload_of(Rec *r) {
  return {r->target_name, sizeof r->target_name, &r->target_type, &r->state,
          &r->failed,     &r->input,             &r->transfer_id};
}

uint32_t upload_start(tqdb_api_handle_t *h, uint32_t session, const UploadKind &kind, Upload up);
int upload_reply(tqdb_api_msg_t *env, const UploadKind &kind, Upload up);
uint32_t upload_continue(tqdb_api_handle_t *h, uint32_t session, const UploadKind &kind,
                         Upload up);

// --- downloads -------------------------------------------------------------------------------
int download_reply(tqdb_api_msg_t *env, tqdb_api_transfer_output_t out, uint32_t *insize,
                   const char *decoder);

// --- listings --------------------------------------------------------------------------------
// A flat record of a listing: its rows (api/ruleset_rows.h) and the
// decoder named when a reply is cut short.
struct RecordKind {
  tqdb_api_item_layout_t layout;
  const char *decoder;
};

// Records one after the other while the body lasts, appended to list in
// reply order; a record cut short is dropped and ends the reply. A reply
// that is not DATA leaves the list as it was.
tq_list_t *read_listing(tqdb_api_msg_t *env, const RecordKind &kind, tq_list_t *list);

}  // namespace tq

#endif
