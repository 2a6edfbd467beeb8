// Transactions on lockable resources, the commit ids they produce, and the
// service's resource records.
#include "tq_commitid.h"
#include "tq_list.h"
#include "tq_log.h"
#include "tq_malloc.h"
#include "tq_msg.h"
#include "tqdb_api.h"

namespace {

// The resource-record requests mean nothing outside a session; they are
// refused before a correlation id is spent.
bool no_session(uint32_t session) { return session == 0; }

}  // namespace

uint32_t tqdb_api_resource_begin(tqdb_api_handle_t *h, uint32_t session, uint32_t resource,
                                 uint8_t flag) {
  return tqdb_api_request(h, TQDB_REQ_BEGIN, session, [=](tq_msg_t *m) {
    tq_msg_put_uint32(m, resource);
    tq_msg_put_uint8(m, flag);
  });
}

uint32_t tqdb_api_resource_commit(tqdb_api_handle_t *h, uint32_t session, const char *msg) {
  return tqdb_api_request(h, TQDB_REQ_COMMIT, session,
                          [msg](tq_msg_t *m) { tq_msg_put_string(m, msg); });
}

uint32_t tqdb_api_resource_rollback(tqdb_api_handle_t *h, uint32_t session) {
  return tqdb_api_request(h, TQDB_REQ_ROLLBACK, session);
}

uint32_t tqdb_api_resource_list(tqdb_api_handle_t *h, uint32_t session) {
  if (no_session(session)) return 0;
  return tqdb_api_request(h, TQDB_REQ_RESOURCE_LIST, session);
}

uint32_t tqdb_api_resource_steal(tqdb_api_handle_t *h, uint32_t session, uint32_t resid) {
  if (no_session(session)) return 0;
  return tqdb_api_request(h, TQDB_REQ_RESOURCE_STEAL, session,
                          [resid](tq_msg_t *m) { tq_msg_put_uint32(m, resid); });
}

uint32_t tqdb_api_resource_19301(tqdb_api_handle_t *h, uint32_t session) {
  if (no_session(session)) return 0;
  return tqdb_api_request(h, TQDB_REQ_RESOURCE_19301, session);
}

uint32_t tqdb_api_resource_19303(tqdb_api_handle_t *h, uint32_t session, uint32_t a, uint8_t b,
                                 uint8_t c, const char *s1, const char *s2, const char *s3) {
  if (no_session(session)) return 0;
  return tqdb_api_request(h, TQDB_REQ_RESOURCE_19303, session, [=](tq_msg_t *m) {
    tq_msg_put_uint32(m, a);
    tq_msg_put_uint8(m, b);
    tq_msg_put_uint8(m, c);
    tq_msg_put_string(m, s1);
    tq_msg_put_string(m, s2);
    tq_msg_put_string(m, s3);
  });
}

// --- commit ids ----------------------------------------------------------------------

// Callers look at the type first: an error or lock answer reaching here is a
// bug in the caller, not a bad reply. The place named is the appliance's,
// fixed, so that reports from both sides read alike.
bool _tqdb_api_resource_commitid_handle(tqdb_api_msg_t *env, tq_commitid_t *out) {
  if (env == nullptr) tq_bug_fatal("resource.c", 15, __func__, "amsg == ((void *)0)", "");
  const uint32_t type = env->type;
  if (type != TQDB_API_MSG_TYPE_DATA && type != TQDB_API_MSG_TYPE_BCAST_COMMIT)
    tq_bug_fatal("resource.c", 19, __func__,
                 "type != TQDB_API_MSG_TYPE_DATA && type != TQDB_API_MSG_TYPE_BCAST_COMMIT", "");
  tq_commitid_t scratch;
  return tq_commitid_msg_get(out != nullptr ? out : &scratch, env->msg);
}

bool tqdb_api_resource_begin_handle(tqdb_api_msg_t *env, tq_commitid_t *out) {
  return _tqdb_api_resource_commitid_handle(env, out);
}

bool tqdb_api_resource_commit_handle(tqdb_api_msg_t *env, tq_commitid_t *out) {
  return _tqdb_api_resource_commitid_handle(env, out);
}

bool tqdb_api_resource_commit_bcast_handle(tqdb_api_msg_t *env, tq_commitid_t *out) {
  return _tqdb_api_resource_commitid_handle(env, out);
}

// --- resource records ----------------------------------------------------------------

namespace {

// Every string of the record is read through a 64-byte buffer, the name too,
// although its field is wider: the appliance reads it so.
constexpr size_t kResourceString = 64;

bool read_resource(tq_msg_t *msg, tqdb_api_resource_real_t *r) {
  return tq_msg_get_fields(msg,                                               //
                           TQ_MSG_UINT32, &r->id,                             //
                           TQ_MSG_STRING, kResourceString, r->name,           //
                           TQ_MSG_STRING, kResourceString, r->proxyaddress,   //
                           TQ_MSG_STRING, kResourceString, r->proxyuser,      //
                           TQ_MSG_STRING, kResourceString, r->proxypassword,  //
                           TQ_MSG_UINT8, &r->proxy,                           //
                           TQ_MSG_UINT8, &r->enterprise,                      //
                           TQ_MSG_STRING, kResourceString, r->locker,         //
                           TQ_MSG_STRING, kResourceString, r->last_query,     //
                           TQ_MSG_UINT32, &r->avg_query_time,                 //
                           TQ_MSG_UINT64, &r->queries,                        //
                           TQ_MSG_STRING, kResourceString, r->status,         //
                           TQ_MSG_END);
}

}  // namespace

tq_list_t *tqdb_api_resource_list_handle(tqdb_api_msg_t *env, tq_list_t *list) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA) return list;
  tq_msg_t *msg = env->msg;
  while (tq_msg_avail_bytes(msg) >= 4) {
    auto *rec = tq_new_record<tqdb_api_resource_real_t>("tqdb_api_resource_real_t");
    if (!read_resource(msg, rec)) {
      tq_free_flags(rec);
      break;
    }
    tq_list_t *head = tq_list_append(list, rec);
    if (head == nullptr) {
      tq_free_flags(rec);
      break;
    }
    list = head;
  }
  return list;
}

bool tqdb_api_resource_entry_get(tq_msg_t *msg, tqdb_api_resource_entry_t *out) {
  if (msg == nullptr || out == nullptr) return false;
  return tq_msg_get_fields(msg,                                            //
                           TQ_MSG_UINT32, &out->a,                         //
                           TQ_MSG_STRING, sizeof out->name, out->name,     //
                           TQ_MSG_UINT8, &out->b,                          //
                           TQ_MSG_UINT32, &out->c,                         //
                           TQ_MSG_UINT32, &out->d,                         //
                           TQ_MSG_UINT8, &out->e,                          //
                           TQ_MSG_END);
}
