// User accounts and public keys: rows and the fields of TQUserList.
#include "rows.h"
#include "tqdb_api_user.h"

namespace tqpy {

namespace {

using User = tqdb_api_user_t;

// The dict keys of a user, in this order; never a password.
constexpr Field kUserFields[] = {
    TQ_FIELD(User, id, U32, "id"),
    TQ_FIELD(User, name, Text, "name"),
    TQ_FIELD(User, readbm, U32, "readbm"),
    TQ_FIELD(User, writebm, U32, "writebm"),
    TQ_FIELD(User, survbm, U32, "survbm"),
    TQ_FIELD(User, timeout, U32, "timeout"),
    TQ_FIELD(User, flags, U32, "flags"),
    TQ_FIELD(User, hosts, Text, "hosts"),
};

// The one number a reply carries, 0 when it carries none.
template <Name N, uint32_t (*Fn)(tqdb_api_msg_t *)>
OwnedRef number_body(SessionObject *, PyObject *args, PyObject *kwds) {
  tqdb_api_msg_t *env = decoder_args(args, kwds, N.s, ListId::ResultList, nullptr);
  return int_u64(env ? Fn(env) : 0);
}

// user_add and user_modify share their account arguments; `first` is the C
// parameter of the name.
template <int first>
struct Account {
  static constexpr ArgSpec name = arg("name", Conv::Text, first);
  static constexpr ArgSpec password = arg("password", Conv::Text, first + 1);
  static constexpr ArgSpec readbm = arg("readbm", Conv::U32, first + 2);
  static constexpr ArgSpec writebm = arg("writebm", Conv::U32, first + 3);
  static constexpr ArgSpec survbm = arg("survbm", Conv::U32, first + 4);
  static constexpr ArgSpec timeout = arg("timeout", Conv::U32, first + 5);
  static constexpr ArgSpec flags = arg("flags", Conv::U32, first + 6);
  static constexpr ArgSpec hosts = arg("hosts", Conv::Text, first + 7);
};
using Add = Account<0>;
using Modify = Account<1>;

constexpr auto kUsername = arg("username", Conv::Text, 0);
constexpr auto kPubkey = arg("pubkey", Conv::Text, 1);

const PyMethodDef kRows[] = {
    TQ_REQUEST("user_list", &tqdb_api_user_list, "user_list() -> correlation id."),
    TQ_DECODE("user_list_handle",
              "user_list_handle(msg, l=None) -> l (a new TQUserList when None) with the "
              "reply's users.",
              append_list_body, ListId::TQUserList, &tqdb_api_user_list_handle),
    TQ_REQUEST("user_add", &tqdb_api_user_add,
               "user_add(name, password, readbm, writebm, survbm, timeout, flags, hosts) -> "
               "correlation id.",
               Add::name, Add::password, Add::readbm, Add::writebm, Add::survbm, Add::timeout,
               Add::flags, Add::hosts),
    TQ_DECODE("user_add_handle", "user_add_handle(msg) -> the new user's id (0: none).",
              number_body, &tqdb_api_user_add_handle),
    TQ_REQUEST("user_modify", &tqdb_api_user_modify,
               "user_modify(_id, name, password, readbm, writebm, survbm, timeout, flags, hosts) "
               "-> correlation id. An empty password keeps the old one.",
               arg("_id", Conv::Int, 0), Modify::name, Modify::password, Modify::readbm,
               Modify::writebm, Modify::survbm, Modify::timeout, Modify::flags, Modify::hosts),
    TQ_REQUEST("user_remove", &tqdb_api_user_remove, "user_remove(_id) -> correlation id.",
               arg("_id", Conv::Int, 0)),
    TQ_REQUEST("user_auth", &tqdb_api_user_auth,
               "user_auth(username, password, ipaddress) -> correlation id.", kUsername,
               arg("password", Conv::Text, 1), arg("ipaddress", Conv::Text, 2)),
    TQ_DECODE("user_auth_handle",
              "user_auth_handle(msg) -> the user's id when the password and address are "
              "accepted, else 0.",
              number_body, &tqdb_api_user_auth_handle),
    TQ_REQUEST("user_pubkey_list", &tqdb_api_user_pubkey_list,
               "user_pubkey_list(username) -> correlation id.", kUsername),
    TQ_DECODE("user_pubkey_list_handle",
              "user_pubkey_list_handle(msg, l=None) -> l (a new TQUserPubkeyList when None) "
              "with the reply's key lines.",
              append_list_body, ListId::TQUserPubkeyList, &tqdb_api_user_pubkey_list_handle),
    TQ_REQUEST("user_pubkey_add", &tqdb_api_user_pubkey_add,
               "user_pubkey_add(username, pubkey) -> correlation id.", kUsername, kPubkey),
    TQ_REQUEST("user_pubkey_remove", &tqdb_api_user_pubkey_remove,
               "user_pubkey_remove(username, pubkey) -> correlation id.", kUsername, kPubkey),
};

}  // namespace

const std::span<const PyMethodDef> g_user_rows{kRows};
const std::span<const Field> g_user_fields{kUserFields};

}  // namespace tqpy
