// Message pipes: a stream socket with a read buffer and a write buffer, and
// the framing of messages on it. A message is an 8-byte header in host order
// (type, subtype, payload length, opcode, error) followed by its payload;
// peers are on the same machine or speak the same byte order.
//
// Reading: ipc_x_pipe_read takes what the socket has into the read buffer,
// then ipc_msg_read hands out the whole messages in it one by one (a message
// split across reads waits in the buffer for its rest). A returned message
// lives in the read buffer until the next ipc_msg_read or pipe read.
//
// Writing: ipc_msg_write copies header and payload into the write buffer,
// ipc_x_msg_write copies the header and keeps a reference to the caller's
// payload; ipc_x_pipe_write then sends. When only part of the message goes,
// it returns IPC_PIPE_PARTIAL (-301) and keeps the rest (the caller's payload
// must stay valid), and the next ipc_x_pipe_write continues it. When nothing
// of the message could go, it returns -1 with errno and holds nothing.
//
//   ipc_pipe_cb cb{sizeof cb, nullptr, nullptr, nullptr};
//   ipc_pipe *p = ipc_pipe_create_with_params(0xFFFF, 0, &cb);
//   ipc_pipe_attach_socket(p, fd);
//   ipc_msg h{0x417, 7, n, IPC_MSG_OP_SEND, 0};
//   if (ipc_msg_write(p, &h, data) == 0) rc = ipc_x_pipe_write(p);
//   ...
//   if (ipc_x_pipe_read(p) > 0)
//     while (ipc_msg *m = ipc_msg_read(p)) use(m, ipc_msg_payload(m));
//
// Reads go through the platform's read seam, writes through its sendmsg
// seam (with MSG_NOSIGNAL), so tests can script faults and short transfers.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

extern "C" {

struct __attribute__((packed)) ipc_msg {
  uint16_t type;
  uint16_t subtype;
  uint16_t length;  // payload bytes
  uint8_t opcode;
  uint8_t error;
};
static_assert(sizeof(ipc_msg) == 8);

enum : uint8_t { IPC_MSG_OP_SEND = 1, IPC_MSG_OP_ERROR = 0x08 };
enum { IPC_MSG_HDR_LEN = 8 };
// What a message costs in the pipe beyond its payload: its header and the
// room the framing keeps free, so that a message of up to size - 16 bytes
// always fits a buffer of size bytes.
enum { IPC_PIPE_OVERHEAD = 16 };
enum { IPC_PIPE_PARTIAL = -301 };

inline uint8_t *ipc_msg_payload(ipc_msg *m) { return reinterpret_cast<uint8_t *>(m) + IPC_MSG_HDR_LEN; }

// The allocator a pipe uses for itself and its buffers: length is the size
// of this record (so that it can grow), ctx is handed back to both calls;
// null functions mean malloc and free.
struct ipc_pipe_cb {
  uint32_t ipc_cb_len;
  void *ipc_cb_ctx;
  void *(*ipc_cb_malloc)(void *ctx, size_t size);
  void (*ipc_cb_free)(void *ctx, void *ptr);
};

struct ipc_pipe {
  int32_t ip_fd;  // -1 when detached
  uint32_t ip_size;  // of each buffer
  uint32_t ip_headroom;  // kept free ahead of the read buffer for the application
  ipc_pipe_cb ip_cb;
  uint8_t *ip_rmem;  // headroom, then the read buffer
  uint8_t *ip_rbuf;
  uint32_t ip_rhead, ip_rtail;  // unread bytes are [rhead, rtail)
  uint8_t *ip_wbuf;
  uint32_t ip_whead, ip_wtail;  // unsent buffered bytes are [whead, wtail)
  const uint8_t *ip_xbuf;  // the caller's payload after the buffered bytes
  uint32_t ip_xoff, ip_xlen;  // sent, total
  uint8_t ip_wstarted;  // some of the held message has gone
};

// A pipe with two buffers of size bytes (0 means 0xFFFF) and headroom bytes
// ahead of the read buffer. Null when cb is null, too short, or memory fails.
ipc_pipe *ipc_pipe_create_with_params(uint32_t size, uint32_t headroom, const ipc_pipe_cb *cb);
// Frees the pipe; a socket still attached is not closed.
void ipc_pipe_destroy(ipc_pipe *p);
// The pipe reads and writes fd from now on; buffered bytes of an earlier
// socket are dropped. -1 with EINVAL for a null pipe or negative fd.
int ipc_pipe_attach_socket(ipc_pipe *p, int fd);
// Forgets the socket and everything buffered; returns the descriptor (-1 if none).
int ipc_pipe_detach_socket(ipc_pipe *p);

// One read() into the read buffer, unread bytes first moved to its front.
// Returns the bytes read, 0 at end of file, or -1 with errno; EMSGSIZE when
// the buffer is full and still holds no whole message.
ssize_t ipc_pipe_read(ipc_pipe *p);
// The read a connection makes: as ipc_pipe_read, but an orderly end of file
// is -1 with ECONNRESET, a normal close for the caller.
ssize_t ipc_x_pipe_read(ipc_pipe *p);
// Drops every unread byte (after a message the reader cannot trust).
void ipc_pipe_read_clean(ipc_pipe *p);
// The read buffer with its headroom in front: *headroom receives its size.
uint8_t *ipc_x_pipe_get_read_buffer(ipc_pipe *p, uint32_t *headroom);
// Unread bytes in the buffer.
uint32_t ipc_pipe_read_pending(const ipc_pipe *p);

// The next whole message in the read buffer, or null. Checks nothing but the
// length; the caller judges type and opcode.
ipc_msg *ipc_msg_read(ipc_pipe *p);
// Header and payload into the write buffer. 0; -1 with EBUSY when the pipe
// still holds a message, EMSGSIZE when length + 16 exceeds the buffer, EINVAL
// for a null pipe or header, or a null payload with a length.
int ipc_msg_write(ipc_pipe *p, const ipc_msg *hdr, const void *payload);
// The same with the payload left in the caller's buffer until it has gone.
int ipc_x_msg_write(ipc_pipe *p, const ipc_msg *hdr, const void *payload);

// Sends what the pipe holds (EINTR is retried): 0 when all of it has gone
// or nothing was held; IPC_PIPE_PARTIAL when part of it is still held, with
// errno EAGAIN after a short transfer, or the errno of a retryable failure
// (EAGAIN, ENOBUFS) once some of the message had gone; -1 with errno when a
// failure leaves the pipe holding nothing: any failure before the first byte
// of the message went, and any other failure after.
int ipc_x_pipe_write(ipc_pipe *p);
bool ipc_pipe_write_is_empty(const ipc_pipe *p);

}  // extern "C"
