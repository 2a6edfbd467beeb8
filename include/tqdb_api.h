// The TQDB client API: envelope of received messages, the connection handle,
// and the request/reply functions of the core families.
//
// Handle contract (non-blocking, one thread, no locks):
//   - requests are framed into the send ring (tqdb_api_handle_send; a request
//     that does not fit whole is refused) and return their correlation id;
//   - while tqdb_api_handle_want_write() and the socket is writable, call
//     tqdb_api_handle_write() (false: see tqdb_api_handle_io_status);
//   - when the socket is readable, call tqdb_api_handle_readmsg() until it
//     returns nullptr; buffered messages always come before an error;
//   - hand each envelope to the decoder of the request whose correlation id
//     equals its cid, unsolicited ones (broadcast commit, detached) by type.
// Nothing here blocks; the handle never owns the connection.
#ifndef TQDB_API_H
#define TQDB_API_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "tq_commitid.h"

struct tq_msg_t;
struct tq_ringbuf_t;
struct tq_list_t;
struct vindel_sock_t;

// One request field by its C++ type (see tqdb_api_send).
void tqdb_api_put(tq_msg_t *m, uint8_t v);
void tqdb_api_put(tq_msg_t *m, uint16_t v);
void tqdb_api_put(tq_msg_t *m, uint32_t v);
void tqdb_api_put(tq_msg_t *m, uint64_t v);
void tqdb_api_put(tq_msg_t *m, int32_t v);
void tqdb_api_put(tq_msg_t *m, const char *s);

// --- message types (api/msg) ----------------------------------------------------------
enum tqdb_api_msg_type : uint32_t {
  TQDB_API_MSG_TYPE_AUTH = 0,
  TQDB_API_MSG_TYPE_BCAST_COMMIT = 1,
  TQDB_API_MSG_TYPE_OK = 2,
  TQDB_API_MSG_TYPE_ERROR = 3,
  TQDB_API_MSG_TYPE_CRITICAL = 4,
  TQDB_API_MSG_TYPE_LOCK = 5,
  TQDB_API_MSG_TYPE_DATA = 6,
  TQDB_API_MSG_TYPE_VERSION = 7,
  TQDB_API_MSG_TYPE_NOTICE = 8,      // opaque: decoded, never interpreted
  TQDB_API_MSG_TYPE_RESTARTING = 9,
  TQDB_API_MSG_TYPE_RELOADING = 10,
  TQDB_API_MSG_TYPE_DETACHED = 11,
};

// Wire codes of replies and notices.
inline constexpr uint32_t TQDB_REPLY_AUTH = 0x20001;
inline constexpr uint32_t TQDB_REPLY_BCAST_COMMIT = 0x20002;
inline constexpr uint32_t TQDB_REPLY_OK = 0x20003;
inline constexpr uint32_t TQDB_REPLY_ERROR = 0x20004;
inline constexpr uint32_t TQDB_REPLY_CRITICAL = 0x20005;
inline constexpr uint32_t TQDB_REPLY_LOCK = 0x20006;
inline constexpr uint32_t TQDB_REPLY_VERSION = 0x20007;
inline constexpr uint32_t TQDB_REPLY_NOTICE = 0x20008;
inline constexpr uint32_t TQDB_REPLY_RESTARTING = 0x20009;
inline constexpr uint32_t TQDB_REPLY_RELOADING = 0x20010;
inline constexpr uint32_t TQDB_REPLY_DETACHED = 0x20012;
inline constexpr uint32_t TQDB_REPLY_DATA = 0x21000;

// Request codes of the core families.
inline constexpr uint32_t TQDB_REQ_AUTH = 0x10001;
inline constexpr uint32_t TQDB_REQ_SESSION_NEW = 0x10101;
inline constexpr uint32_t TQDB_REQ_SESSION_10102 = 0x10102;
inline constexpr uint32_t TQDB_REQ_PING = 0x10103;
inline constexpr uint32_t TQDB_REQ_SESSION_10104 = 0x10104;
inline constexpr uint32_t TQDB_REQ_SESSION_DIAG = 0x10105;
inline constexpr uint32_t TQDB_REQ_BEGIN = 0x10201;
inline constexpr uint32_t TQDB_REQ_COMMIT = 0x10202;
inline constexpr uint32_t TQDB_REQ_ROLLBACK = 0x10203;
inline constexpr uint32_t TQDB_REQ_RESOURCE_19301 = 0x19301;
inline constexpr uint32_t TQDB_REQ_RESOURCE_19303 = 0x19303;
inline constexpr uint32_t TQDB_REQ_RESOURCE_LIST = 0x19304;
inline constexpr uint32_t TQDB_REQ_RESOURCE_STEAL = 0x19305;

inline constexpr size_t TQDB_API_ERROR_MAX = 512;  // error text field, NUL included
inline constexpr uint32_t TQDB_API_CLIENT_VERSION = 0x6080;  // 17.1.0

// Called at most once per envelope when a decoder finds a reply cut short.
using tqdb_api_corrupt_cb_t = void (*)(tq_msg_t *msg, const char *function, const char *file,
                                       int line, void *data);

struct tqdb_api_msg_t {
  uint32_t type;
  uint32_t session;
  uint32_t cid;
  char error[TQDB_API_ERROR_MAX];
  tq_msg_t *msg;  // owned; read position just behind the header and text
  tqdb_api_corrupt_cb_t corrupt_cb;
  void *corrupt_cb_data;
};

// Takes ownership of msg only when it returns an envelope.
tqdb_api_msg_t *tqdb_api_msg_new(tq_msg_t *msg, tqdb_api_corrupt_cb_t cb, void *data);
void tqdb_api_msg_free(tqdb_api_msg_t *env);
uint32_t tqdb_api_msg_get_type(const tqdb_api_msg_t *env);  // 4 for nullptr
uint32_t tqdb_api_msg_get_session(const tqdb_api_msg_t *env);
uint32_t tqdb_api_msg_get_cid(const tqdb_api_msg_t *env);
const char *tqdb_api_msg_get_error(const tqdb_api_msg_t *env);
tq_msg_t *tqdb_api_msg_get_msg(const tqdb_api_msg_t *env);
// Fires the envelope's callback once (then clears it); decoders call this
// with their own function name, file and line.
void tqdb_api_msg_corrupt(tqdb_api_msg_t *env, const char *function, const char *file, int line);
// Maps a wire code to its type; false for a code that is not one.
bool tqdb_api_msg_code_to_type(uint32_t code, uint32_t *type);

// --- the handle (api/handle) --------------------------------------------------------
inline constexpr size_t TQDB_API_RBUF_SIZE = 0x20000;
inline constexpr size_t TQDB_API_WBUF_SIZE = 78643200;
inline constexpr size_t TQDB_API_IO_UNIT = 4096;

enum tqdb_api_io_status : uint32_t {
  TQDB_API_IO_OK = 0,
  TQDB_API_IO_CLOSED = 1,
  TQDB_API_IO_ERROR = 2,
};

struct tqdb_api_handle_t {
  vindel_sock_t *io;  // borrowed: the handle never closes or frees it
  tq_ringbuf_t *rbuf;
  tq_ringbuf_t *wbuf;
  uint32_t cid;
  uint32_t err;
  int err_no;
  tqdb_api_corrupt_cb_t corrupt_cb;
  void *corrupt_cb_data;
  char user[32];
};

tqdb_api_handle_t *tqdb_api_handle_new();
void tqdb_api_handle_free(tqdb_api_handle_t *h);
void tqdb_api_handle_set_io(tqdb_api_handle_t *h, vindel_sock_t *io);
void tqdb_api_handle_set_corrupt_cb(tqdb_api_handle_t *h, tqdb_api_corrupt_cb_t cb, void *data);
void tqdb_api_handle_read(tqdb_api_handle_t *h);
tqdb_api_msg_t *tqdb_api_handle_readmsg(tqdb_api_handle_t *h);
bool tqdb_api_handle_write(tqdb_api_handle_t *h);
bool tqdb_api_handle_want_write(const tqdb_api_handle_t *h);
uint32_t tqdb_api_handle_io_status(const tqdb_api_handle_t *h);
int tqdb_api_handle_get_errno(const tqdb_api_handle_t *h);
const char *tqdb_api_handle_get_user(const tqdb_api_handle_t *h);

// A request message with the header (code, session, correlation id); the id
// is stored through cid when given. nullptr for a null handle.
tq_msg_t *tqdb_api_request_new(tqdb_api_handle_t *h, uint32_t code, uint32_t session,
                               uint32_t *cid);
// Frames req into the send ring, all or nothing. The caller keeps req.
[[nodiscard]] bool tqdb_api_handle_send(tqdb_api_handle_t *h, const tq_msg_t *req);
// Sends req, frees it, and returns cid on success, 0 on failure: the tail
// of every request function.
uint32_t tqdb_api_request_finish(tqdb_api_handle_t *h, tq_msg_t *req, uint32_t cid);

// One request in one expression: header, the fields that put_body appends,
// then the shared tail. Returns the correlation id, 0 on failure.
//   return tqdb_api_request(h, TQDB_REQ_RESOURCE_STEAL, session,
//                           [&](tq_msg_t *m) { tq_msg_put_uint32(m, resid); });
template <class Body>
uint32_t tqdb_api_request(tqdb_api_handle_t *h, uint32_t code, uint32_t session, Body &&put_body) {
  uint32_t cid = 0;
  tq_msg_t *req = tqdb_api_request_new(h, code, session, &cid);
  if (req == nullptr) return 0;
  put_body(req);
  return tqdb_api_request_finish(h, req, cid);
}
// A request that is the header alone.
inline uint32_t tqdb_api_request(tqdb_api_handle_t *h, uint32_t code, uint32_t session) {
  return tqdb_api_request(h, code, session, [](tq_msg_t *) {});
}

// A request whose body is its fields in order, each put by its type:
// uint8_t, uint16_t, uint32_t, uint64_t, int32_t as big-endian integers, const char *
// as a string (nullptr: the null string). The common shape of most requests:
//   return tqdb_api_send(h, TQDB_REQ_OBJECT_REMOVE, session, type, id);
template <class... Fields>
uint32_t tqdb_api_send(tqdb_api_handle_t *h, uint32_t code, uint32_t session, Fields... fields) {
  return tqdb_api_request(h, code, session, [&]([[maybe_unused]] tq_msg_t *m) { (tqdb_api_put(m, fields), ...); });
}

// --- version, authentication, sessions (api/auth) -----------------------------------------
struct tqdb_api_version_t {
  unsigned major;
  unsigned minor;
  unsigned patch;
};
tqdb_api_version_t tqdb_api_version_decode(uint32_t word);  // low 16 bits
// 0 (buffers untouched) unless a version announcement.
uint32_t tqdb_api_version_handle(tqdb_api_msg_t *env, char *buf1, char *buf2, size_t size);

struct tqdb_api_auth_result {
  uint64_t value0;
  uint64_t value1;
  uint64_t value2;
  uint32_t value3;
};
// Not a correlation id: nonzero when queued. user is kept (31 characters).
int tqdb_api_auth(tqdb_api_handle_t *h, const char *user, const char *password);
int tqdb_api_auth_handle(tqdb_api_msg_t *env, tqdb_api_auth_result *out);

uint32_t tqdb_api_session_new(tqdb_api_handle_t *h);
uint32_t tqdb_api_session_new_handle(tqdb_api_msg_t *env);
uint32_t tqdb_api_session_10102(tqdb_api_handle_t *h, uint32_t arg);
uint32_t tqdb_api_session_10104(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_ping(tqdb_api_handle_t *h, uint32_t session, const char *text);
char *tqdb_api_ping_handle(tqdb_api_msg_t *env, char *buf, size_t size);
uint32_t tqdb_api_session_diag(tqdb_api_handle_t *h, uint32_t session);
// Appends the strings (tracked copies, label "tqdb_api_session_diag_handle").
tq_list_t *tqdb_api_session_diag_handle(tqdb_api_msg_t *env, tq_list_t *list);

// --- transactions and resources (api/resource) -----------------------------------------------
enum tqdb_api_resource : uint32_t {
  TQDB_RESOURCE_RULESET = 1,
  TQDB_RESOURCE_CHANNELS = 2,
  TQDB_RESOURCE_USERS = 3,
  TQDB_RESOURCE_CONFIG = 4,
  TQDB_RESOURCE_STATREADER = 5,
  TQDB_RESOURCE_CONNLOG = 6,
  TQDB_RESOURCE_LEVELS = 7,
  TQDB_RESOURCE_SYSDIAG = 7,
  TQDB_RESOURCE_BACKUPS = 8,
  TQDB_RESOURCE_LOGS = 9,
  TQDB_RESOURCE_FILESERV = 10,
  TQDB_RESOURCE_RESOURCE = 11,
  TQDB_RESOURCE_HOSTTRIGGER = 12,
  TQDB_RESOURCE_SYSTEM_OVERVIEW = 13,
  TQDB_RESOURCE_CONNPROT_TRIGGER = 20,
  TQDB_RESOURCE_DYNAMICLIVEVIEW = 23,
};

uint32_t tqdb_api_resource_begin(tqdb_api_handle_t *h, uint32_t session, uint32_t resource,
                                 uint8_t flag);
uint32_t tqdb_api_resource_commit(tqdb_api_handle_t *h, uint32_t session, const char *msg);
uint32_t tqdb_api_resource_rollback(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_resource_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_resource_steal(tqdb_api_handle_t *h, uint32_t session, uint32_t resid);
uint32_t tqdb_api_resource_19301(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_resource_19303(tqdb_api_handle_t *h, uint32_t session, uint32_t a, uint8_t b,
                                 uint8_t c, const char *s1, const char *s2, const char *s3);

// Shared by the begin, commit and broadcast decoders. A null envelope or a
// type other than DATA / BCAST_COMMIT is a fatal bug; false when cut short.
bool _tqdb_api_resource_commitid_handle(tqdb_api_msg_t *env, tq_commitid_t *out);
bool tqdb_api_resource_begin_handle(tqdb_api_msg_t *env, tq_commitid_t *out);
bool tqdb_api_resource_commit_handle(tqdb_api_msg_t *env, tq_commitid_t *out);
bool tqdb_api_resource_commit_bcast_handle(tqdb_api_msg_t *env, tq_commitid_t *out);

struct tqdb_api_resource_real_t {
  uint32_t id;
  char name[256];  // read limit 64 regardless
  char proxyaddress[64];
  char proxyuser[64];
  char proxypassword[64];
  uint8_t proxy;
  uint8_t enterprise;
  char locker[64];
  char last_query[64];
  uint32_t avg_query_time;
  uint64_t queries;
  char status[64];
};
// Appends records (label "tqdb_api_resource_real_t") in arrival order.
tq_list_t *tqdb_api_resource_list_handle(tqdb_api_msg_t *env, tq_list_t *list);

struct tqdb_api_resource_entry_t {
  uint32_t a;
  char name[256];
  uint8_t b;
  uint32_t c;
  uint32_t d;
  uint8_t e;
};
bool tqdb_api_resource_entry_get(tq_msg_t *msg, tqdb_api_resource_entry_t *out);

// --- flat records as rows (api/ruleset_rows.h reads and writes them) -------------------
// How one field of a record travels. The record keeps the wire width,
// except U8AsU32: a u8 on the wire held in a uint32_t (the items' `type`).
enum class tqdb_api_wire : uint8_t { U8, U8AsU32, U16, U32, U64, Text };

// One field of a flat record: its dictionary key, wire form, place and size
// in the record (for Text the char array's size, maximum + 1).
struct tqdb_api_item_field_t {
  const char *key;
  tqdb_api_wire wire;
  uint16_t offset;
  uint16_t size;
};

// The layout of a flat record (an object type's items, a user, a level...):
// the record's label and size and its fields in wire order. The reader, the
// writer and the scripting conversions all walk this one table.
struct tqdb_api_item_layout_t {
  const char *label;  // "tqdb_api_netobject_item_t"
  size_t size;
  std::span<const tqdb_api_item_field_t> fields;
};

#endif
