// mmcq: a message queue between processes of one machine, in a ring inside a
// mapped file (mmf/mmf.h), with a FIFO as its wake-up channel. Any number of
// senders, serialised by the file's lock word; one receiver, which reads
// without any lock (senders write the payload first and put_offset last).
// The queue outlives its processes: a receiver that restarts takes over from
// its dead predecessor and is handed what was left in the ring.
//
//   // receiver
//   mmcq *q = mmcq_receiver_create("repl", ctx, 4096, 64 << 10, 1 << 20, 0, on_msgs, me, nullptr);
//   void on_msgs(mmcq *q, void *cookie) {
//     char buf[4096]; int st;
//     while (uint32_t n = mmcq_get_next(q, sizeof buf, buf, &st)) use(buf, n);
//   }
//   // sender, in another process
//   mmcq *s = mmcq_sender_create("repl", nullptr, 4096, 64 << 10, 1 << 20, 0, nullptr, nullptr);
//   mmcq_send(s, "hello", 5);
//
// Files: the ring is the mapped file "/mfs/var/mmcq/NAME" and the wake-up
// FIFO "/var/tmp/mmcq_NAME", both under the root (platform/path.h). A full
// ring grows the file by its growth step (live data moved, see mmcq_send)
// up to max_bytes; a ring at its maximum refuses with MMCQ_Q_FULL.
//
// Wake-ups: the receiver arms `rnw` (receiver notify wanted) whenever it has
// drained the ring; the first sender after that clears it and writes one
// byte to the FIFO. The receiver re-arms before its last look at the ring,
// so no message is ever left behind without a wake-up.
//
// Growth: a sender that grows moves the wrapped part of the ring up into the
// new space. The receiver and that sender exclude each other by the grower
// pid word, and the move is journalled in the header, so that a grower killed
// at any point is finished by whoever comes next (a sender, or the receiver
// that finds it dead): the receiver never reads a half-moved ring.
//
// Threads: the threads of a process may share a sender handle (the file's
// lock tells them apart); a receiver handle belongs to one thread at a time.
// A receiver and senders may live in one process.
//
// Time: waits between processes (for a grower, for a file being initialised)
// scale with mmf_time_scale (TVX_MM_TIME_SCALE).
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "mmcq/mm_ctx.h"
#include "mmf/mmf.h"

// ---- The queue header: the common block of the file ----------------------

#define MMCQ_VERSION 11u
#define MMCQ_HEADER_SIZE 0x84u
#define MMCQ_MAGIC_INIT 0x33334444u
#define MMCQ_MAGIC_READY 0x55557777u
#define MMCQ_DIR "/mfs/var/mmcq/"
#define MMCQ_FIFO_PREFIX "/var/tmp/mmcq_"

#pragma pack(push, 4)
struct mmcq_header_t {
  uint32_t version;             // MMCQ_VERSION
  uint32_t size;                // MMCQ_HEADER_SIZE
  uint32_t magic;               // MMCQ_MAGIC_INIT, MMCQ_MAGIC_READY
  uint32_t creator_pid;
  uint32_t receiver_pid;        // 0 when no receiver
  uint32_t reserved;
  uint8_t receiver_stopped;     // 1 before the receiver's callback is in place
  uint8_t rnw;                  // receiver notify wanted; cleared by the sender that wakes it
  uint8_t send_disabled;        // 0 or 1; anything else is damage
  uint8_t pad;
  uint32_t wakeups_sent;
  uint32_t wakeup_bytes_sent;
  uint32_t wakeups_read;
  uint32_t wakeup_bytes_read;
  uint32_t max_msg_bytes;       // raised by any opener that asks for more
  uint32_t max_data_bytes;      // max_data_offset - min_data_offset
  uint32_t min_data_offset;     // start of the ring, at least a page
  uint32_t max_data_offset;     // end of the ring
  uint32_t put_offset;          // next message goes here
  uint32_t take_offset;         // next message to read; equal to put_offset when empty
  uint32_t grower_pid;          // a sender moving the ring, or the receiver inside a read
  uint32_t reader_pid;          // the receiver while it waits for a growth to end
  // Statistics (0x4c).
  uint32_t sent;
  uint32_t received;
  uint32_t send_failures;       // every status but success
  uint32_t incomplete;          // reads that met a message not yet stored
  uint32_t high_fill;           // 0x5c: most bytes ever held
  uint32_t grows;
  // The journal of a growth in progress: new_max non-zero while the
  // wrapped part moves up; low is the lowest source offset moved so far.
  uint32_t grow_new_max;
  uint32_t grow_old_max;
  uint32_t grow_low;
  uint32_t grow_old_take;
  uint32_t grow_old_put;
  uint32_t takeovers;           // receivers that replaced a live or dead one
  uint32_t grows_finished;      // growths finished for a grower that died
  uint32_t full_count;          // sends refused with MMCQ_Q_FULL
};
#pragma pack(pop)

// One message in the ring: bytes (this word included), then the payload. A
// bytes of 0 marks the end of the used ring: go to min_data_offset.
struct mmcq_msg_t {
  uint32_t bytes;
};

// ---- Status ---------------------------------------------------------------

enum mmcq_status {
  MMCQ_SUCCESS = 0,
  MMCQ_Q_EMPTY = 1,
  MMCQ_Q_FULL = 2,
  MMCQ_SEND_DISABLED = 3,
  MMCQ_MEM_FAILURE = 4,   // the ring had to grow and could not
  MMCQ_FAIL = 5,
  MMCQ_ERRNO = 6,
  MMCQ_Q_INIT_FAILED = 7,
  MMCQ_BAD_PARAMETER = 8,
  MMCQ_BUFFER_TOO_SMALL = 9,
};
// "SUCCESS", "Q_EMPTY", ..., "UNKNOWN" for any other value.
const char *mmcq_status_str(int status);

// ---- The handle (per process) ---------------------------------------------

#define MMCQ_HANDLE_MAGIC 0x11223344u
#define MMCQ_HANDLE_SIZE 0x88u
#define MMCQ_NAME_MAX 64

// Flags (mmcq_init_common). The three trace bits are accepted and kept in
// the handle; nothing traces by them yet.
#define MMCQ_FLAG_NO_NOTIFY 0x01u  // senders never write the wake-up byte
#define MMCQ_FLAG_TRACE 0x10u
#define MMCQ_FLAG_VERBOSE 0x20u
#define MMCQ_FLAG_RING_TRACE 0x40u

// A sender with a context looks every 300 s whether the receiver is alive.
#define MMCQ_WATCH_MSEC 300000u

struct mmcq;
// Called when the FIFO woke the receiver: take messages until mmcq_get_next
// returns 0.
typedef void (*mmcq_receive_cb)(mmcq *q, void *cookie);
// Told to a sender when the receiver comes up or goes down.
typedef void (*mmcq_status_change_cb)(mmcq *q, void *cookie, bool up);

struct mmcq {
  uint32_t magic;                  // MMCQ_HANDLE_MAGIC
  uint32_t size;                   // MMCQ_HANDLE_SIZE
  char name[MMCQ_NAME_MAX];
  uint32_t flags;                  // MMCQ_FLAG_*
  uint8_t print;                   // failures are printed to stderr
  uint8_t sender;                  // 1 a sender, 0 the receiver
  int64_t region_map_bytes;        // 0: the whole file in one mapping
  int64_t cur_data_bytes;
  int64_t default_data_bytes;
  int64_t max_data_bytes;
  mmcq_header_t *q;                // in the file's header page
  mmf *m;
  mm_ctx *ctx;                     // may be null: no wake-ups, no watching
  int wake_fd;                     // the FIFO
  uint8_t sock_registered;
  uint8_t timer0_active;
  uint8_t timer1_active;
  mmcq_receive_cb receive_cb;
  mmcq_status_change_cb receiver_status_change_cb;
  uint32_t last_receiver_pid;
  bool receiver_up;
  void *cookie;
};

// ---- Calls ----------------------------------------------------------------

// A sender of the queue `name` (letters, digits, '_', '-', '.'). The sizes
// are those of the file: default_bytes to start, max_bytes at most, growing
// by default_bytes; region_map_bytes 0 maps the whole file at once, else the
// file is mapped that many bytes at a time (it must divide both sizes and
// exceed max_msg_bytes + 4; see mmf.h on region mode). With a context, the sender watches the receiver and
// tells status_cb of changes. Null on failure (MMCQ_Q_INIT_FAILED, see
// mmcq_last_status).
mmcq *mmcq_sender_create(const char *name, mm_ctx *ctx, uint32_t max_msg_bytes, int64_t default_bytes,
                         int64_t max_bytes, int64_t region_map_bytes, mmcq_status_change_cb status_cb,
                         void *cookie);
// The receiver of `name`; a live receiver of the queue is logged to
// "/var/tmp/dupe_mmcq.log" and replaced. With a context and receive_cb, the
// FIFO is watched and receive_cb runs on every wake-up; without, the caller
// polls mmcq_get_next (or calls mmcq_receiver_receive when mmcq_wake_fd is
// readable).
mmcq *mmcq_receiver_create(const char *name, mm_ctx *ctx, uint32_t max_msg_bytes, int64_t default_bytes,
                           int64_t max_bytes, int64_t region_map_bytes, mmcq_receive_cb receive_cb, void *cookie,
                           mmcq_status_change_cb status_cb);
// Both of the above; `sender` chooses.
mmcq *mmcq_init_common(const char *name, mm_ctx *ctx, bool sender, uint32_t flags, uint32_t max_msg_bytes,
                       int64_t default_bytes, int64_t max_bytes, int64_t region_map_bytes,
                       mmcq_receive_cb receive_cb, void *cookie, mmcq_status_change_cb status_cb);
// Why the last create failed (MMCQ_Q_INIT_FAILED or MMCQ_BAD_PARAMETER).
extern int mmcq_last_status;

// Queues len bytes (1 to max_msg_bytes). A status: MMCQ_SUCCESS,
// MMCQ_BAD_PARAMETER, MMCQ_SEND_DISABLED, MMCQ_Q_FULL (at its maximum),
// MMCQ_MEM_FAILURE (could not grow).
int mmcq_send(mmcq *h, const void *msg, uint32_t len);

// The receiver's next message into buf: its length, or 0 with *status
// MMCQ_Q_EMPTY when there is none (or it is still being written), or
// MMCQ_BUFFER_TOO_SMALL (the message stays for a larger buffer).
uint32_t mmcq_get_next(mmcq *h, uint32_t len, void *buf, int *status);
uint32_t mmcq_get_next_q_msg(mmcq *h, uint32_t len, void *buf, int *status);
// Copies up to *len bytes of the next message without taking it; *len
// becomes the copied length. The message's full length, or 0 when empty.
uint32_t mmcq_peek(mmcq *h, uint32_t *len, void *buf, int *status);

// The receiver's wake-up: drains the FIFO, runs receive_cb, re-arms rnw, and
// wakes itself again if a message came in meanwhile.
void mmcq_receiver_receive(mmcq *h);
// The FIFO's descriptor (readable when a sender woke the receiver).
int mmcq_wake_fd(const mmcq *h);
// Writes the wake-up byte if the receiver wants one (senders call it after
// every send unless MMCQ_FLAG_NO_NOTIFY).
void mmcq_ensure_receiver_notify(mmcq *h);
// A sender's look at the receiver: whether it is alive; a dead one's pid is
// cleared from the header, and status_cb told of a change.
bool mmcq_check_receiver(mmcq *h);

void mmcq_enable_send(mmcq *h);
void mmcq_disable_send(mmcq *h);
// Leaves the queue: timers and watching stop, a receiver gives up its pid.
// The handle stays usable for nothing but mmcq_delete.
void mmcq_clean_up(mmcq *h);
// mmcq_clean_up, then closes the file and the FIFO and frees the handle.
void mmcq_delete(mmcq *h);
// Removes the queue's file and FIFO (for tests and tools).
void mmcq_unlink(const char *name);

// Bytes the ring holds now.
uint32_t mmcq_fill(const mmcq_header_t *q);
// The header's sanity check of an open: version, size, offsets, flags.
bool mmcq_header_sane(const mmcq_header_t *q, uint32_t page_size);

// Crash points of the growth, in the order a grower passes them.
extern const char *const mmcq_crashpoints[];
extern const size_t mmcq_crashpoint_count;
