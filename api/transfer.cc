// The chunked transfer of the file service and backups, and their flat
// listing records.
#include "transfer.h"

#include <algorithm>
#include <cstring>

#include "reply_reader.h"
#include "ruleset_rows.h"
#include "tq_list.h"
#include "tq_malloc.h"
#include "tq_msg.h"

namespace tq {

namespace {

void put_name(tq_msg_t *m, const Upload &up) {
  tq_msg_put_string_n(m, up.target_name, strnlen(up.target_name, up.name_size - 1));
}

// Fills one data message from the input: chunks of up to 4 096 bytes within
// the message's budget. A short read is the end of the input. A message that
// got no chunk is not sent, but its correlation id is still the answer: the
// caller sees an id that no reply will come for.
uint32_t send_data(tqdb_api_handle_t *h, uint32_t session, const UploadKind &kind, Upload up) {
  uint32_t cid = 0;
  tq_msg_t *m = tqdb_api_request_new(h, kind.data, session, &cid);
  if (m == nullptr) {
    *up.failed = 1;
    return 0;
  }
  tq_msg_put_uint32(m, *up.transfer_id);
  uint8_t chunk[TQDB_TRANSFER_CHUNK_MAX];
  size_t budget = TQDB_TRANSFER_DATA_MAX;
  bool any = false;
  while (budget > 0) {
    const size_t want = std::min(TQDB_TRANSFER_CHUNK_MAX, budget);
    const ptrdiff_t n = up.input->read ? up.input->read(up.input->ctx, chunk, want) : -1;
    if (n < 0 || static_cast<size_t>(n) > want) {
      // A read error is not an end of file: the upload cannot be completed.
      tq_msg_free(m);
      *up.failed = 1;
      return 0;
    }
    if (static_cast<size_t>(n) < want) *up.state = TQDB_UPLOAD_AT_END;
    if (n == 0) break;
    tq_msg_put_uint16(m, static_cast<uint16_t>(n));
    tq_msg_put_data(m, chunk, static_cast<size_t>(n));
    any = true;
    budget -= static_cast<size_t>(n);
    if (*up.state == TQDB_UPLOAD_AT_END) break;
  }
  if (!any) {
    tq_msg_free(m);
    return cid;
  }
  const uint32_t sent = tqdb_api_request_finish(h, m, cid);
  if (sent == 0) *up.failed = 1;
  return sent;
}

}  // namespace

uint32_t upload_start(tqdb_api_handle_t *h, uint32_t session, const UploadKind &kind, Upload up) {
  const uint32_t cid = tqdb_api_request(h, kind.start, session, [&](tq_msg_t *m) {
    if (kind.typed) tq_msg_put_uint32(m, *up.target_type);
    put_name(m, up);
  });
  if (cid == 0) {
    *up.failed = 1;
    return 0;
  }
  *up.state = TQDB_UPLOAD_STARTED;
  return cid;
}

int upload_reply(tqdb_api_msg_t *env, const UploadKind &kind, Upload up) {
  const uint32_t type = tqdb_api_msg_get_type(env);
  const bool accepted = type == TQDB_API_MSG_TYPE_DATA ||
                        (kind.start_reply_ok && type == TQDB_API_MSG_TYPE_OK);
  if (!accepted) {
    *up.failed = 1;
  } else if (*up.state == TQDB_UPLOAD_STARTED) {
    *up.state = TQDB_UPLOAD_SENDING;
    ReplyReader r(env, kind.reply_decoder);
    *up.transfer_id = env->msg != nullptr ? r.u32() : 0;
    if (env->msg == nullptr || !r.ok()) *up.failed = 1;
  } else if (*up.state < TQDB_UPLOAD_FINISHED) {
    *up.failed = 1;
  }
  return *up.failed == 0;
}

uint32_t upload_continue(tqdb_api_handle_t *h, uint32_t session, const UploadKind &kind,
                         Upload up) {
  switch (*up.state) {
    case TQDB_UPLOAD_NEW:
    case TQDB_UPLOAD_STARTED:  // no transfer id yet
      *up.failed = 1;
      return 0;
    case TQDB_UPLOAD_SENDING:
      return send_data(h, session, kind, up);
    case TQDB_UPLOAD_AT_END: {
      *up.state = TQDB_UPLOAD_FINISHED;
      const uint32_t cid = tqdb_api_request(h, kind.finish, session, [&](tq_msg_t *m) {
        if (kind.typed) tq_msg_put_uint32(m, *up.target_type);
        tq_msg_put_uint32(m, *up.transfer_id);
        put_name(m, up);
      });
      if (cid == 0) *up.failed = 1;
      return cid;
    }
    case TQDB_UPLOAD_FINISHED:
      return 0;
    default:
      return 1;
  }
}

int download_reply(tqdb_api_msg_t *env, tqdb_api_transfer_output_t out, uint32_t *insize,
                   const char *decoder) {
  if (tqdb_api_msg_get_type(env) != TQDB_API_MSG_TYPE_DATA || env->msg == nullptr) return 0;
  ReplyReader r(env, decoder);
  if (*insize == 0) {
    *insize = r.u32();
    if (!r.ok()) return 0;
  }
  tq_msg_t *m = env->msg;
  while (r.left() > 0) {
    const uint16_t len = r.u16();
    if (!r.ok()) return 0;
    if (len > r.left()) {
      tqdb_api_msg_corrupt(env, decoder, __FILE__, __LINE__);
      return 0;
    }
    if (out.write == nullptr || !out.write(out.ctx, m->data + m->rpos, len)) return 0;
    if (!tq_msg_skip(m, len)) return 0;
  }
  return 1;
}

tq_list_t *read_listing(tqdb_api_msg_t *env, const RecordKind &kind, tq_list_t *list) {
  return env->msg == nullptr ? list : reply_records(env, list, kind.decoder, kind.layout);
}

}  // namespace tq

namespace {

ptrdiff_t file_read(void *ctx, void *buf, size_t size) {
  auto *f = static_cast<FILE *>(ctx);
  const size_t n = std::fread(buf, 1, size, f);
  return n < size && std::ferror(f) ? -1 : static_cast<ptrdiff_t>(n);
}

bool file_write(void *ctx, const void *buf, size_t size) {
  return std::fwrite(buf, 1, size, static_cast<FILE *>(ctx)) == size;
}

}  // namespace

tqdb_api_transfer_input_t tqdb_api_transfer_input_file(FILE *f) {
  return {f != nullptr ? file_read : nullptr, f};
}

tqdb_api_transfer_output_t tqdb_api_transfer_output_file(FILE *f) {
  return {f != nullptr ? file_write : nullptr, f};
}
