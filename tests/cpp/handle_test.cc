// The handle: its buffers, the send limit, and both pumps over a real connection.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/responder.h"
#include "tq_malloc.h"
#include "tq_ringbuf.h"
#include "tqdb_api.h"

using namespace tqtest;

namespace {

// A ping whose frame is exactly n bytes: 6 frame + 8 header + 4 count + text + NUL.
uint32_t ping_of_frame_size(tqdb_api_handle_t *h, size_t n) {
  return tqdb_api_ping(h, 1, std::string(n - 19, 'p').c_str());
}

uint32_t live_handles() {
  tq_malloc_stat_t st{};
  return tq_malloc_stat("tqdb_api_handle_t", &st) ? st.entries : 0;
}

HandlePtr connected(Link &link) {
  HandlePtr h(tqdb_api_handle_new());
  tqdb_api_handle_set_io(h.get(), link.client());
  return h;
}

}  // namespace

TEST(Handle, NewHandleBuffersAndRecords) {
  const uint32_t before = live_handles();
  HandlePtr h(tqdb_api_handle_new());
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(live_handles(), before + 1);
  EXPECT_EQ(tq_ringbuf_size(h->rbuf), 262144u);        // 0x20000 rounds up to one chunk
  EXPECT_EQ(tq_ringbuf_size(h->wbuf), 300u * 262144);  // 75 MiB
  EXPECT_FALSE(tqdb_api_handle_want_write(h.get()));
  EXPECT_TRUE(tqdb_api_handle_write(h.get()));  // nothing queued: nothing to do
  EXPECT_EQ(tqdb_api_handle_readmsg(nullptr), nullptr);
  h.reset();
  EXPECT_EQ(live_handles(), before);
}

TEST(Handle, RequestThatDoesNotFitIsRefusedWhole) {
  HandlePtr h(tqdb_api_handle_new());
  tq_ringbuf_t *w = h->wbuf;
  constexpr size_t kMaxFrame = 6 + 32768;
  while (tq_ringbuf_free_space(w) > kMaxFrame + 1000)
    ASSERT_NE(ping_of_frame_size(h.get(), kMaxFrame), 0u);
  ASSERT_NE(ping_of_frame_size(h.get(), tq_ringbuf_free_space(w) - 1000), 0u);
  ASSERT_EQ(tq_ringbuf_free_space(w), 1000u);

  EXPECT_EQ(ping_of_frame_size(h.get(), 1001), 0u);
  EXPECT_EQ(tq_ringbuf_free_space(w), 1000u);  // not a byte of it queued
  EXPECT_NE(ping_of_frame_size(h.get(), 1000), 0u);
  EXPECT_EQ(tq_ringbuf_free_space(w), 0u);
  EXPECT_EQ(tqdb_api_session_new(h.get()), 0u);
  EXPECT_EQ(tqdb_api_auth(h.get(), "a", "b"), 0);
}

TEST(HandleIo, BufferedMessagesComeBeforeTheClose) {
  Link link;
  ASSERT_TRUE(link.ok());
  HandlePtr h = connected(link);
  ASSERT_TRUE(link.send(Wire().raw(frame(0x20003, Wire().u32(5).u32(1)))
                            .raw(frame(0x20004, Wire().u32(5).u32(2).str("no")))));
  link.close_server();
  pollfd p{link.client_fd(), POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 2000), 1);

  EnvPtr first(tqdb_api_handle_readmsg(h.get())), second(tqdb_api_handle_readmsg(h.get()));
  ASSERT_TRUE(first && second);
  EXPECT_EQ(tqdb_api_msg_get_cid(first.get()), 1u);
  EXPECT_EQ(tqdb_api_msg_get_cid(second.get()), 2u);
  EXPECT_STREQ(tqdb_api_msg_get_error(second.get()), "no");
  EXPECT_EQ(tqdb_api_handle_readmsg(h.get()), nullptr);
  EXPECT_EQ(tqdb_api_handle_io_status(h.get()), uint32_t{TQDB_API_IO_CLOSED});
  EXPECT_EQ(tqdb_api_handle_get_errno(h.get()), 0);

  // Writing to the closed peer fails as an error with the system's number.
  ASSERT_NE(tqdb_api_session_new(h.get()), 0u);
  EXPECT_FALSE(tqdb_api_handle_write(h.get()));
  EXPECT_EQ(tqdb_api_handle_io_status(h.get()), uint32_t{TQDB_API_IO_ERROR});
  EXPECT_EQ(tqdb_api_handle_get_errno(h.get()), EPIPE);
  EXPECT_TRUE(tqdb_api_handle_want_write(h.get()));
}

TEST(HandleIo, WritePumpKeepsWhatWouldBlockQueued) {
  Link link;
  ASSERT_TRUE(link.ok());
  link.shrink_buffers(4096);
  HandlePtr h = connected(link);
  constexpr int kPings = 40;
  for (int i = 0; i < kPings; ++i)
    ASSERT_NE(tqdb_api_ping(h.get(), 1, std::string(3000, static_cast<char>('A' + i % 26)).c_str()), 0u);
  const uint32_t queued = tq_ringbuf_used(h->wbuf);

  EXPECT_TRUE(tqdb_api_handle_write(h.get()));  // would block: not an error
  EXPECT_EQ(tqdb_api_handle_io_status(h.get()), uint32_t{TQDB_API_IO_OK});
  EXPECT_TRUE(tqdb_api_handle_want_write(h.get()));
  EXPECT_LT(tq_ringbuf_used(h->wbuf), queued);

  // Drained in turns; the peer must decrypt every frame whole and in order,
  // so the cipher never ran ahead of what left.
  int got = 0;
  for (int round = 0; round < 10000 && got < kPings; ++round) {
    ASSERT_TRUE(tqdb_api_handle_write(h.get()));
    while (auto f = link.recv_frame(0)) {
      ASSERT_EQ(f->code, 0x10103u);
      EXPECT_EQ(f->payload, Bytes(Wire().u32(1).u32(got + 1).str(std::string(3000, static_cast<char>('A' + got % 26)))));
      ++got;
    }
  }
  EXPECT_EQ(got, kPings);
  EXPECT_FALSE(tqdb_api_handle_want_write(h.get()));
}

TEST(HandleIo, ReadPumpStopsAtAFullRingAndSocketErrors) {
  Link link;
  ASSERT_TRUE(link.ok());
  HandlePtr h = connected(link);
  // Nine 32 KiB replies are more than the 256 KiB receive ring holds.
  for (uint32_t i = 1; i <= 9; ++i)
    link.queue(frame(0x21000, Wire().u32(1).u32(i).raw(std::string(32760, 'r'))));
  for (int round = 0; round < 1000 && tq_ringbuf_free_space(h->rbuf) > 0; ++round) {
    link.pump_out();
    tqdb_api_handle_read(h.get());
    ASSERT_EQ(tqdb_api_handle_io_status(h.get()), uint32_t{TQDB_API_IO_OK});
  }
  EXPECT_EQ(tq_ringbuf_used(h->rbuf), 262144u);
  tqdb_api_handle_read(h.get());  // full: returns without reading or failing
  EXPECT_EQ(tqdb_api_handle_io_status(h.get()), uint32_t{TQDB_API_IO_OK});
  for (uint32_t i = 1; i <= 9; ++i) {
    link.pump_out();
    EnvPtr env = await_msg(h.get(), link.client_fd());
    ASSERT_NE(env, nullptr) << i;
    EXPECT_EQ(tqdb_api_msg_get_cid(env.get()), i);
  }

  // A socket error that is not a would-block: status 2 with the system's number.
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  const uint32_t real_fd = link.client()->fd;
  link.client()->fd = static_cast<uint32_t>(pipe_fds[0]);
  EXPECT_EQ(tqdb_api_handle_readmsg(h.get()), nullptr);
  EXPECT_EQ(tqdb_api_handle_io_status(h.get()), uint32_t{TQDB_API_IO_ERROR});
  EXPECT_EQ(tqdb_api_handle_get_errno(h.get()), ENOTSOCK);
  link.client()->fd = real_fd;
  close(pipe_fds[0]);
  close(pipe_fds[1]);
  // The next pump starts clean.
  EXPECT_EQ(tqdb_api_handle_readmsg(h.get()), nullptr);
  EXPECT_EQ(tqdb_api_handle_io_status(h.get()), uint32_t{TQDB_API_IO_OK});
}
