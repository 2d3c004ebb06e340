// Non-blocking stdio on a task's stream socket: a FILE that fprintf, fputs
// and fflush can use without ever blocking the scheduler, and line input
// that never waits.
//
// Output is copied once into a chain of page-sized buffers and sent as the
// socket becomes writable, the queued buffers gathered into one send; a large
// write (16 KB or more, as stdio hands over big fwrites) goes out with the
// queue straight from the caller's bytes, and only what the socket does not
// take is copied. The stream's write function always takes every byte it is
// given (or fails), so nothing is lost to a short write. A
// generator produces a long reply piece by piece, called only when the queue
// is empty, which bounds memory to about one buffer plus the socket's send
// buffer; what it writes in small pieces is queued and sent in one call when
// it returns.
//
//   void mgmt_write_ready(task *tp) { noblock_write_ready(static_cast<noblock_cookie *>(task_get_data(tp))); }
//   noblock_cookie *c = noblock_fdopen(tp, "mgmt", mgmt_write_ready);
//   task_set_data(tp, c);
//   fprintf(noblock_stream(c), "100 ok\n");
//   fflush(noblock_stream(c));
//   fclose(noblock_stream(c));  // the socket closes once the queue has drained
//
// Input: the read method calls noblock_fgets until it reports "not yet"
// (an empty buffer): lines that came together are all kept by the cookie and
// handed out one per call, none waits for another read event.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "task/task.h"

extern "C" {

struct noblock_link {
  noblock_link *nl_forw;
  noblock_link *nl_back;
};

struct noblock_buffer {
  noblock_link nb_link;
  uint8_t *nb_start;  // next byte to send
  uint8_t *nb_end;    // end of data
  uint8_t nb_data[];
};

typedef void (*noblock_generator_fn)(task *tp, void *data);
typedef void (*noblock_genclose_fn)(task *tp, void *data);

enum : uint32_t {
  NOBLOCK_F_ERROR = 0x1,
  NOBLOCK_F_SCHEDULED = 0x2,  // the write method is ours
  NOBLOCK_F_GENERATOR = 0x4,
  NOBLOCK_F_ABORTED = 0x8,
  NOBLOCK_F_BUSY = 0x10,  // the generator runs: a close inside it leaves the cookie to the write-ready step
};
enum : uint32_t { NOBLOCK_S_OPEN = 0, NOBLOCK_S_CLOSING = 1, NOBLOCK_S_CLOSED = 2 };

struct noblock_cookie {
  noblock_link co_queue;  // the buffers; the cookie's own link is the sentinel
  task *co_task;
  task_method co_wrtrdy;   // the owner's write-ready method (calls noblock_write_ready)
  char *co_name;
  uint32_t co_flags;
  task_method co_rdyfunc;  // the task's write method while ours is set
  uint32_t co_state;
  int32_t co_errno;
  noblock_generator_fn co_genfunc;
  noblock_genclose_fn co_genclose;
  void *co_gendata;
  FILE *co_file;
  int32_t co_sndbuf;
  size_t co_outstanding;  // bytes queued
  pid_t co_pid;           // the creating process: a forked child must not write
  uint8_t *co_inbuf;      // input received, not yet handed out
  uint32_t co_inlen, co_incap;
  uint8_t co_ineof;
};

// A cookie and its stream over the task's socket (which should be
// non-blocking). write_ready is what the owner's write method is while output
// is queued; it must call noblock_write_ready. Null on failure.
noblock_cookie *noblock_fdopen(task *tp, const char *name, task_method write_ready);
FILE *noblock_stream(noblock_cookie *cookie);

// 0 with a line (or with an empty buffer: "not yet"); -1 on failure or end.
int noblock_fgets(char *buffer, int size, noblock_cookie *cookie);

void noblock_assign_generator(noblock_cookie *cookie, noblock_generator_fn generator, noblock_genclose_fn close_fn,
                              void *data);
void *noblock_clear_generator(noblock_cookie *cookie);
bool noblock_generator_registered(const noblock_cookie *cookie);

size_t noblock_outstanding(const noblock_cookie *cookie);
void noblock_fpurge(noblock_cookie *cookie);
// Drops queued output and closes the stream at once (the cookie goes with it).
void noblock_abort(noblock_cookie *cookie);
void noblock_set_snd_buf_sz(noblock_cookie *cookie, int size);

// The write-ready step and the flush: 1 when all went well so far, 0 on failure.
void noblock_write_ready(noblock_cookie *cookie);
int noblock_write_flush(noblock_cookie *cookie);

// Bytes of data per buffer.
size_t noblock_buffer_data_size(void);

}  // extern "C"
