// The layout of a TQvindelv17_1.Vindel object, shared by the two modules:
// TQvindelv17_1 defines the type, TQDBv17_1 reads the socket record out of
// it and refuses to load when the type's size is not sizeof(VindelObject).
#ifndef TQ_BINDING_VINDEL_OBJECT_H
#define TQ_BINDING_VINDEL_OBJECT_H

#include "py_compat.h"

#include "vindel.h"

namespace tqpy {

// One socket record, set up by one of the init functions and released with
// vindel_sock_free exactly once.
class VindelRecord {
 public:
  VindelRecord() = default;
  VindelRecord(const VindelRecord &) = delete;
  VindelRecord &operator=(const VindelRecord &) = delete;
  ~VindelRecord() { reset(); }

  // The keys stay owned by the caller and must outlive the record.
  void init_initiator(int fd, rsa_key_t *pub, rsa_key_t *priv) {
    reset();
    vindel_sock_init_initiator(&sock_, fd, pub, priv);
    live_ = true;
  }
  void init_responder(int fd) {
    reset();
    vindel_sock_init_responder(&sock_, fd);
    live_ = true;
  }
  void reset() {
    if (live_) vindel_sock_free(&sock_);
    live_ = false;
  }
  vindel_sock_t *get() { return live_ ? &sock_ : nullptr; }
  bool established() const { return live_ && sock_.state == VINDEL_STATE_ESTABLISHED; }

 private:
  vindel_sock_t sock_{};
  bool live_ = false;
};

}  // namespace tqpy

struct VindelObject {
  PyObject_HEAD
  tqpy::VindelRecord record;  // constructed in tp_new, destroyed in tp_dealloc
  PyObject *socket;           // the wrapped socket.socket (strong)
  PyObject *key;              // initiator: the key pair the record points into (strong)
  bool responder;
};

inline constexpr const char *kVindelModule = "TQvindelv17_1";
inline constexpr const char *kVindelType = "Vindel";

#endif
