// The message reader on any bytes: the first two bytes choose the pipe's
// buffer size and how short each read is cut, the rest arrives on the
// socket. Every message handed out must be exactly the next bytes of the
// stream, and what is neither handed out nor pending must be what a refused
// announcement made the reader drop.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipc/ipc_pipe.h"
#include "platform/sys.h"

namespace {
void check(bool ok) {
  if (!ok) abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  uint32_t bufsize = IPC_PIPE_OVERHEAD + data[0] * 4u;
  size_t cut = 1 + data[1] % 64;
  data += 2;
  size -= 2;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) != 0) return 0;
  ipc_pipe_cb cb{sizeof cb, nullptr, nullptr, nullptr};
  ipc_pipe *p = ipc_pipe_create_with_params(bufsize, 0, &cb);
  check(p != nullptr);
  ipc_pipe_attach_socket(p, fds[0]);
  size_t fed = 0, taken = 0;  // bytes written to the socket; bytes accounted for
  for (int rounds = 0; rounds < 100000; rounds++) {
    if (fed < size) {
      ssize_t n = write(fds[1], data + fed, size - fed);
      if (n > 0) fed += static_cast<size_t>(n);
    }
    tvx_fault_short(TVX_SYS_READ, cut);
    ssize_t n = ipc_x_pipe_read(p);
    tvx_fault_clear();
    if (n < 0) {
      if (errno == EMSGSIZE) {
        // Only a buffer full of one incomplete message is refused.
        check(ipc_pipe_read_pending(p) == bufsize);
        check(ipc_msg_read(p) == nullptr);
        taken += ipc_pipe_read_pending(p);
        ipc_pipe_read_clean(p);
        continue;
      }
      check(errno == EAGAIN);
      if (fed == size) break;
      continue;
    }
    while (ipc_msg *m = ipc_msg_read(p)) {
      size_t whole = IPC_MSG_HDR_LEN + m->length;
      check(taken + whole <= fed);
      check(memcmp(m, data + taken, whole) == 0);
      taken += whole;
    }
    check(ipc_pipe_read_pending(p) < bufsize || ipc_msg_read(p) == nullptr);
  }
  check(taken + ipc_pipe_read_pending(p) == fed);
  check(fed == size);
  ipc_pipe_destroy(p);
  close(fds[0]);
  close(fds[1]);
  return 0;
}
