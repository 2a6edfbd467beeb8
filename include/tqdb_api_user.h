// User accounts of the appliance and their public keys (api/user).
//
// An account has read, write and surveillance bit masks (bit N: resource
// N, TQDB_RESOURCE_*), an idle timeout, flags and the hosts it may log in
// from. Passwords travel only towards the appliance: a user record never
// holds one.
#ifndef TQDB_API_USER_H
#define TQDB_API_USER_H

#include <cstddef>
#include <cstdint>

#include "tqdb_api.h"

struct tq_list_t;

inline constexpr uint32_t TQDB_REQ_USER_LIST = 0x19201;
inline constexpr uint32_t TQDB_REQ_USER_ADD = 0x19202;
inline constexpr uint32_t TQDB_REQ_USER_MODIFY = 0x19203;
inline constexpr uint32_t TQDB_REQ_USER_REMOVE = 0x19204;
inline constexpr uint32_t TQDB_REQ_USER_AUTH = 0x19205;
inline constexpr uint32_t TQDB_REQ_USER_GET = 0x19206;
inline constexpr uint32_t TQDB_REQ_USER_PUBKEY_ADD = 0x19207;
inline constexpr uint32_t TQDB_REQ_USER_PUBKEY_REMOVE = 0x19208;
inline constexpr uint32_t TQDB_REQ_USER_PUBKEY_CLEAR = 0x19209;
inline constexpr uint32_t TQDB_REQ_USER_PUBKEY_LIST = 0x1920A;

inline constexpr size_t TQDB_API_USER_NAME_MAX = 64;     // characters
inline constexpr size_t TQDB_API_USER_HOSTS_MAX = 256;   // characters
inline constexpr size_t TQDB_API_USER_PUBKEY_MAX = 4096; // one OpenSSH key line

struct tqdb_api_user_t {
  uint32_t id;
  char name[TQDB_API_USER_NAME_MAX + 1];
  uint32_t readbm;   // bit N: may read resource N
  uint32_t writebm;  // bit N: may open transactions on resource N
  uint32_t survbm;
  uint32_t timeout;  // idle seconds, 0: none
  uint32_t flags;
  char hosts[TQDB_API_USER_HOSTS_MAX + 1];  // "a.b.c.d[/n]" by commas or blanks; "": any
};

uint32_t tqdb_api_user_list(tqdb_api_handle_t *h, uint32_t session);
uint32_t tqdb_api_user_get(tqdb_api_handle_t *h, uint32_t session, const char *name);
uint32_t tqdb_api_user_add(tqdb_api_handle_t *h, uint32_t session, const char *name,
                           const char *password, uint32_t readbm, uint32_t writebm,
                           uint32_t survbm, uint32_t timeout, uint32_t flags, const char *hosts);
// An empty password keeps the account's password.
uint32_t tqdb_api_user_modify(tqdb_api_handle_t *h, uint32_t session, uint32_t id,
                              const char *name, const char *password, uint32_t readbm,
                              uint32_t writebm, uint32_t survbm, uint32_t timeout, uint32_t flags,
                              const char *hosts);
uint32_t tqdb_api_user_remove(tqdb_api_handle_t *h, uint32_t session, uint32_t id);
uint32_t tqdb_api_user_auth(tqdb_api_handle_t *h, uint32_t session, const char *username,
                            const char *password, const char *ipaddress);
uint32_t tqdb_api_user_pubkey_list(tqdb_api_handle_t *h, uint32_t session, const char *username);
uint32_t tqdb_api_user_pubkey_add(tqdb_api_handle_t *h, uint32_t session, const char *username,
                                  const char *pubkey);
uint32_t tqdb_api_user_pubkey_remove(tqdb_api_handle_t *h, uint32_t session,
                                     const char *username, const char *pubkey);
uint32_t tqdb_api_user_pubkey_clear(tqdb_api_handle_t *h, uint32_t session, const char *username);

// Appends the reply's user records (label "tqdb_api_user_t") in wire order;
// serves the list and the get answers. Released with
// tqdb_api_user_list_free.
tq_list_t *tqdb_api_user_list_handle(tqdb_api_msg_t *env, tq_list_t *list);
void tqdb_api_user_list_free(tq_list_t *list);
// The u32 of a DATA reply: the new account's id / the id of the account
// that authenticated. 0 for any other reply or one cut short.
uint32_t tqdb_api_user_add_handle(tqdb_api_msg_t *env);
uint32_t tqdb_api_user_auth_handle(tqdb_api_msg_t *env);
// Appends the reply's key lines (label "user::pubkey", each one
// NUL-terminated text) in wire order. Released with
// tqdb_api_user_list_free.
tq_list_t *tqdb_api_user_pubkey_list_handle(tqdb_api_msg_t *env, tq_list_t *list);

#endif
