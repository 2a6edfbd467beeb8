// Library start-up and shut-down. Every process-wide cache also starts itself
// on first use; tq_lib_init only does it in a fixed order up front, applies
// the caller's log flags and counts users so that the last one tears down.
#include <cstdint>

#include "tq_list.h"
#include "tq_log.h"
#include "tq_msg.h"
#include "tq_ringbuf.h"

namespace {

// No threads in the library: the scripting host starts and stops it on its
// own thread, so a plain counter is enough.
constinit uint32_t g_users = 0;

}  // namespace

bool tq_lib_init(unsigned flags) {
  if (g_users++ > 0) return true;

  // Before anything else, so that the caches' own start-up messages are
  // already filtered the way the caller wants.
  if ((flags & TQ_INIT_QUIET) != 0) (void)tq_log_set_all_levels(TQ_LOG_ERROR);

  tq_msg_pool_init();
  // tq_list_init also attaches the library thread's node cache, which is
  // what TQ_INIT_THREAD asks for; there is nothing more to do for it here.
  bool ok = tq_list_init();
  ok = tq_ringbuf_init(0) && ok;

  if (tq_log_enabled(TQ_LOG_FAC_GENERAL, TQ_LOG_INFO))
    tq_log(TQ_LOG_FAC_GENERAL, TQ_LOG_INFO, "LOGFILE STARTED");
  return ok;
}

void tq_lib_deinit() {
  if (g_users == 0) {
    TQ_BADNESS("tq_lib_deinit without tq_lib_init");
    return;
  }
  if (--g_users > 0) return;
  tq_ringbuf_deinit();
  tq_msg_pool_deinit();
  tq_list_deinit();
}
