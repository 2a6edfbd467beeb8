// Configuration backups on the appliance: list, dump, restore, remove, and
// the same chunked transfer as the file service for download and upload
// (see tqdb_api_fileserv.h).
#ifndef TQDB_API_BACKUP_H
#define TQDB_API_BACKUP_H

#include <cstddef>
#include <cstdint>

#include "tqdb_api.h"
#include "tqdb_api_fileserv.h"

struct tq_list_t;

inline constexpr uint32_t TQDB_REQ_BACKUP_LIST = 0x19F01;
inline constexpr uint32_t TQDB_REQ_BACKUP_DOWNLOAD = 0x19F02;
inline constexpr uint32_t TQDB_REQ_BACKUP_UPLOAD_START = 0x19F03;
inline constexpr uint32_t TQDB_REQ_BACKUP_DUMP = 0x19F04;
inline constexpr uint32_t TQDB_REQ_BACKUP_RESTORE = 0x19F05;
inline constexpr uint32_t TQDB_REQ_BACKUP_REMOVE = 0x19F06;
inline constexpr uint32_t TQDB_REQ_BACKUP_UPLOAD_DATA = 0x19F07;
inline constexpr uint32_t TQDB_REQ_BACKUP_UPLOAD_FINISH = 0x19F08;
inline constexpr uint32_t TQDB_REQ_BACKUP_UPLOAD_ABORT = 0x19F09;

struct tqdb_api_backup_t {
  char path[257];
  uint64_t cdate;  // Unix seconds
  uint64_t size;
};

// A backup upload in progress: the fields of the file service's upload
// record; target_type is not sent.
struct tqdb_api_backup_upload_t {
  uint32_t state;  // tqdb_api_upload_state
  uint32_t failed;
  uint32_t transfer_id;
  uint32_t target_type;
  tqdb_api_transfer_input_t input;
  char target_name[TQDB_FILESERV_NAME_MAX];
};

uint32_t tqdb_api_backup_list(tqdb_api_handle_t *h, uint32_t session);
// Appends records (label "tqdb_api_backup_t") in reply order.
tq_list_t *tqdb_api_backup_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_backup_list_free(tq_list_t *list);

// resource 0: every resource.
uint32_t tqdb_api_backup_dump(tqdb_api_handle_t *h, uint32_t session, const char *name,
                              uint32_t resource);
// The new backup's name into buf (cut to size - 1); nullptr unless DATA.
char *tqdb_api_backup_dump_handle(tqdb_api_msg_t *env, char *buf, size_t size);
// section 0: every resource the backup holds.
uint32_t tqdb_api_backup_restore(tqdb_api_handle_t *h, uint32_t session, const char *name,
                                 uint32_t section);
uint32_t tqdb_api_backup_remove(tqdb_api_handle_t *h, uint32_t session, const char *name);

uint32_t tqdb_api_backup_download(tqdb_api_handle_t *h, uint32_t session, const char *name);
// As tqdb_api_fileserv_download_handle.
int tqdb_api_backup_download_handle(tqdb_api_msg_t *env, tqdb_api_transfer_output_t out,
                                    uint32_t *insize);

// As the file service's upload; the start reply may also be an OK.
uint32_t tqdb_api_backup_upload(tqdb_api_handle_t *h, uint32_t session,
                                tqdb_api_backup_upload_t *up);
int tqdb_api_backup_upload_handle(tqdb_api_msg_t *env, tqdb_api_backup_upload_t *up);
uint32_t tqdb_api_backup_upload_continue(tqdb_api_handle_t *h, uint32_t session,
                                         tqdb_api_backup_upload_t *up);
uint32_t tqdb_api_backup_upload_abort(tqdb_api_handle_t *h, uint32_t session,
                                      uint32_t transfer_id);

#endif
