// The file service: typed file areas on the appliance that a client lists,
// downloads from, uploads into and removes from; and the chunked transfer
// that the file service and backups share.
//
// Transfers move file contents in chunks (u16 length, at most 4 096 bytes)
// through ordinary requests and replies.
//   Upload: fill an upload record (target, input), send the start request,
//   give its reply to *_upload_handle_data, then call *_upload_continue after
//   each reply until it returns 0 with state 4 (done) or `failed` is set.
//   Each call sends one data message of at most 31 768 content bytes; the
//   data messages' own replies need not be waited for.
//   Download: send the download request, then give each DATA reply to the
//   download decoder with the size read so far (0 at first) until the OK.
#ifndef TQDB_API_FILESERV_H
#define TQDB_API_FILESERV_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "tqdb_api.h"

struct tq_list_t;

inline constexpr uint32_t TQDB_REQ_FILESERV_LIST = 0x1A201;
inline constexpr uint32_t TQDB_REQ_FILESERV_REMOVE = 0x1A202;
inline constexpr uint32_t TQDB_REQ_FILESERV_DOWNLOAD = 0x1A203;
inline constexpr uint32_t TQDB_REQ_FILESERV_UPLOAD_START = 0x1A204;
inline constexpr uint32_t TQDB_REQ_FILESERV_UPLOAD_FINISH = 0x1A205;
inline constexpr uint32_t TQDB_REQ_FILESERV_UPLOAD_DATA = 0x1A206;
inline constexpr uint32_t TQDB_REQ_FILESERV_TYPES = 0x1A207;
inline constexpr uint32_t TQDB_REQ_FILESERV_UPLOAD_ABORT = 0x1A600;
inline constexpr uint32_t TQDB_REQ_FILESERV_AREA_USAGE = 0x1A601;

// --- the chunked transfer (api/transfer) -----------------------------------------------------
inline constexpr size_t TQDB_TRANSFER_CHUNK_MAX = 4096;
inline constexpr size_t TQDB_TRANSFER_DATA_MAX = 31768;  // content bytes per data message

// Upload record states; `failed` is separate and sticky.
enum tqdb_api_upload_state : uint32_t {
  TQDB_UPLOAD_NEW = 0,
  TQDB_UPLOAD_STARTED = 1,   // start request sent
  TQDB_UPLOAD_SENDING = 2,   // transfer id received
  TQDB_UPLOAD_AT_END = 3,    // the local input is exhausted
  TQDB_UPLOAD_FINISHED = 4,  // finish request sent
};

// Where an upload reads its content: read(ctx, buf, size) returns the bytes
// put into buf (at most size; fewer only at the end of the input), or -1 on
// a read error, which fails the upload.
struct tqdb_api_transfer_input_t {
  ptrdiff_t (*read)(void *ctx, void *buf, size_t size);
  void *ctx;
};
// An input reading f with fread (f stays the caller's).
tqdb_api_transfer_input_t tqdb_api_transfer_input_file(FILE *f);

// Where a download writes its content: write(ctx, buf, size) returns false
// when it could not take all of it.
struct tqdb_api_transfer_output_t {
  bool (*write)(void *ctx, const void *buf, size_t size);
  void *ctx;
};
tqdb_api_transfer_output_t tqdb_api_transfer_output_file(FILE *f);

// --- the file service (api/fileserv) --------------------------------------------------------
inline constexpr size_t TQDB_FILESERV_NAME_MAX = 272;  // upload target, NUL included

struct tqdb_api_fileserv_type_t {
  uint32_t id;
  uint32_t flags;  // bit 0 writable, bit 1 downloadable
  char name[65];
};

struct tqdb_api_fileserv_file_t {
  char name[257];
  uint64_t size;
  uint64_t mtime;  // Unix seconds
};

// One upload in progress; the caller owns it and its input.
struct tqdb_api_fileserv_upload_t {
  char target_name[TQDB_FILESERV_NAME_MAX];
  uint32_t target_type;  // FILESERV_ID_*
  uint32_t state;        // tqdb_api_upload_state
  uint32_t failed;       // 1 once anything failed
  tqdb_api_transfer_input_t input;
  uint32_t transfer_id;  // assigned by the appliance
};

uint32_t tqdb_api_fileserv_types(tqdb_api_handle_t *h, uint32_t session);
// Appends records (label "tqdb_api_fileserv_type_t") in reply order.
tq_list_t *tqdb_api_fileserv_types_handle(tqdb_api_msg_t *env, tq_list_t *list);
uint32_t tqdb_api_fileserv_list(tqdb_api_handle_t *h, uint32_t session, uint32_t type);
// Appends records (label "tqdb_api_fileserv_file_t") in reply order.
tq_list_t *tqdb_api_fileserv_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_fileserv_list_free(tq_list_t *list);  // either kind: flat records
uint32_t tqdb_api_fileserv_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t type,
                                  const char *name);

uint32_t tqdb_api_fileserv_download(tqdb_api_handle_t *h, uint32_t session, uint32_t type,
                                    const char *name);
// 1 when the reply's chunks were all written out; 0 for a reply that is not
// DATA, a chunk running past the body (nothing of it written) or a refused
// write. The total size is read into *insize while it is 0.
int tqdb_api_fileserv_download_handle(tqdb_api_msg_t *env, tqdb_api_transfer_output_t out,
                                      uint32_t *insize);

// The start request (target_type, target_name of up); state 1 when queued.
uint32_t tqdb_api_fileserv_upload(tqdb_api_handle_t *h, uint32_t session,
                                  tqdb_api_fileserv_upload_t *up);
// The start reply: takes the transfer id. 1 while the upload goes on, 0
// once it has failed.
int tqdb_api_fileserv_upload_handle_data(tqdb_api_msg_t *env, tqdb_api_fileserv_upload_t *up);
// The next data message, or the finish request once the input is exhausted;
// 0 when there is nothing more to send (state 4) or on failure.
uint32_t tqdb_api_fileserv_upload_continue(tqdb_api_handle_t *h, uint32_t session,
                                           tqdb_api_fileserv_upload_t *up);
uint32_t tqdb_api_fileserv_upload_abort(tqdb_api_handle_t *h, uint32_t session,
                                        uint32_t transfer_id);

uint32_t tqdb_api_fileserv_area_usage(tqdb_api_handle_t *h, uint32_t session, uint32_t type);
// false (both zero) unless a DATA reply carrying both values.
bool tqdb_api_fileserv_area_usage_handle(tqdb_api_msg_t *env, uint64_t *used,
                                         uint64_t *allowed_per_file);

#endif
