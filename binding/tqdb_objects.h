// The objects of TQDBv17_1 and what its sources share.
//
// Ownership and lifetimes:
//   TQMessage     owns one envelope (tqdb_api_msg_free when it dies); lives
//                 on its own once read.
//   TQDBAPIHandle owns the C handle and keeps its Vindel object alive, so the
//                 socket record the handle reads through outlives it.
//   Session       keeps its TQDBAPIHandle alive, so its C handle does too;
//                 no order of destruction leaves a dangling pointer.
//   ResultList    owns its C list and the records in it (see result_list.h).
#ifndef TQ_BINDING_TQDB_OBJECTS_H
#define TQ_BINDING_TQDB_OBJECTS_H

#include "py_entry.h"

#include <cstdint>
#include <memory>

#include "tqdb_api.h"
#include "vindel.h"

namespace tqpy {

inline constexpr const char *kModuleName = "TQDBv17_1";

struct EnvelopeDeleter {
  void operator()(tqdb_api_msg_t *env) const { tqdb_api_msg_free(env); }
};
using EnvelopePtr = std::unique_ptr<tqdb_api_msg_t, EnvelopeDeleter>;

struct HandleDeleter {
  void operator()(tqdb_api_handle_t *h) const { tqdb_api_handle_free(h); }
};
using HandlePtr = std::unique_ptr<tqdb_api_handle_t, HandleDeleter>;

struct MessageObject {
  PyObject_HEAD
  EnvelopePtr env;  // empty for a TQMessage() made by a script
};

struct HandleObject {
  PyObject_HEAD
  HandlePtr handle;
  vindel_sock_t *io;  // inside *vindel; nullptr once the handle was cleared
  PyObject *vindel;   // strong
};

struct SessionObject {
  PyObject_HEAD
  uint32_t session_id;
  tqdb_api_handle_t *handle;  // owned by *owner; nullptr for a detached Session
  PyObject *owner;            // the TQDBAPIHandle (strong)
  PyObject *queries;          // {cid: TQStatQueryState} of open queries, or nullptr (strong)
};

extern PyTypeObject g_message_type;
extern PyTypeObject g_handle_type;
extern PyTypeObject g_session_type;
// TQvindelv17_1.Vindel, checked at import.
extern PyTypeObject *g_vindel_type;

void message_type_fill();
void handle_type_fill();
void session_type_fill();
// stat_query.cc: TQStatQueryState.
extern PyTypeObject g_stat_query_state_type;
void stat_query_state_type_fill();

// The envelope of a decoder's msg argument, which must be a TQMessage
// ("Argument 'msg' has incorrect type ..."); nullptr for an empty TQMessage.
tqdb_api_msg_t *message_arg(PyObject *msg);

// A new Session on the given handle object.
OwnedRef session_create(PyObject *owner, uint32_t session_id);

// Arguments of every method that takes none.
void parse_no_args(PyObject *args, PyObject *kwds, const char *func);

}  // namespace tqpy

#endif
