// rtslib's asynchronous events: being told of kernel changes on a handle run
// by an event library rather than by the task kernel's route-socket channel.
// A program registers one callback per message type; the library puts the
// socket in the event library, sets the listen mask, and on each readable
// event reads, decodes and dispatches.
//
//   rtslib_cookie *c = rtslib_open(sender);
//   rtslib_set_async_context(c, ev);            // an __evContext (ipc/ev.h)
//   rtslib_set_async_mode(c, RTSLIB_ASYNC_ON);
//   rtslib_ifam_async_register(c, 1, user, on_ifaddr);
//   ... the event loop calls rtslib_async_event_process(c) when readable
//   rtslib_close(c);                            // deselects and frees the handlers
//
// Close the handle before destroying its event context: closing deselects.
//
// Handlers own the message they are given and free it with
// rtslib_msg_idl_release. A decoded message is a record (rts_msg.h); a raw
// one (first word 0) is a copy of its bytes.
//
// Sequence numbers: the handle's seq is the number it expects next. A decoded
// message moves it on by one; a raw message is checked against it (sequence 0
// passes when async_zero_seq_ok is set), a mismatch goes to the sequence-error
// function or the log, and seq then follows the message. A mismatch never
// drops the message.
//
// External loop: with RTSLIB_ASYNC_EXTERNAL in the mode and a dispatch table
// given by rtslib_set_async_dispatch, the socket is handed to the caller's
// select function (mask EV_READ | EV_EXCEPT) instead of __evSelectFD; that
// loop calls the reader it was given when the socket is readable.
#pragma once

#include <cstdint>

#include "ipc/ev.h"
#include "rtsock/rtslib.h"

extern "C" {

// The platform's size of rtslib_async_info, as memory reports charge it.
// The record here holds 64-bit pointers and is larger; this is not its sizeof.
constexpr uint32_t RTSLIB_ASYNC_INFO_SIZE = 468;
// rtslib_async_event_process reads at most this many times before it returns
// to the event loop.
constexpr uint32_t RTSLIB_ASYNC_READ_LIMIT = 10;
// Async mode bits that may be set besides RTSLIB_ASYNC_ON.
constexpr uint32_t RTSLIB_ASYNC_MODE_MASK = 0x3FF9F;

typedef void (*rtslib_async_fn)(rtslib_cookie *cookie, void *user, void *message);

struct rtslib_async_handler {
  void *user;
  rtslib_async_fn fn;
};

// A caller's own event loop: select asks it to call reader(arg) whenever fd
// is readable (mask EV_READ | EV_EXCEPT) and returns 0 with *id set, or -1;
// deselect undoes it.
struct rtslib_async_dispatch {
  int (*select)(void *loop, int fd, int mask, void (*reader)(void *arg), void *arg, void **id);
  int (*deselect)(void *loop, void *id);
  void *loop;
};

enum : uint32_t {
  RTSLIB_ASYNC_SELECTED = 0x1,  // the socket is in the event library
  RTSLIB_ASYNC_EXT_LOOP = 0x2,  // ... through the caller's own loop
};

struct rtslib_async_info {
  __evContext ev_context;
  rtslib_async_handler *handlers[RTS_TYPE_COUNT];
  uint32_t listen_mask[2];
  __evFileID select_id;
  uint32_t state;
  uint32_t mode;
  const rtslib_async_dispatch *ev_dispatch;
  void *ext_id;  // the external loop's id of the selection
};

// Makes the handle asynchronous; EINVAL for a null handle or one that has a
// context already, ENOMEM (after a FATAL line) when the record cannot be had.
int rtslib_set_async_context(rtslib_cookie *cookie, __evContext ev_context);
// 0, or bits with RTSLIB_ASYNC_ON inside RTSLIB_ASYNC_MODE_MASK (else
// EINVAL); the peer is told with the async-mode option (-1 when it refuses).
int rtslib_set_async_mode(rtslib_cookie *cookie, uint32_t bits);
// The caller's loop for RTSLIB_ASYNC_EXTERNAL; kept, not copied. Set it
// before the first registration. EINVAL without a context.
int rtslib_set_async_dispatch(rtslib_cookie *cookie, const rtslib_async_dispatch *dispatch);

// Registrations: one callback per type. EINVAL for a handle without a
// context, a null callback or a type already registered; -1 when the socket
// cannot be selected or the listen mask set, or (errno ENOMEM) no record.
// Flags of the address registration: bit 0 listens for addresses (0x20),
// bit 2 for the second address stream (0x08).
int rtslib_ifam_async_register(rtslib_cookie *cookie, uint32_t flags, void *user, rtslib_async_fn fn);
int rtslib_ifdm_async_register(rtslib_cookie *cookie, void *user, rtslib_async_fn fn);
int rtslib_iffm_async_register(rtslib_cookie *cookie, void *user, rtslib_async_fn fn);
int rtslib_iflm_async_register(rtslib_cookie *cookie, void *user, rtslib_async_fn fn);
int rtslib_rtbm_async_register(rtslib_cookie *cookie, void *user, rtslib_async_fn fn);
int rtslib_rtm_async_register(rtslib_cookie *cookie, void *user, rtslib_async_fn fn);
int rtslib_gencfg_async_register(rtslib_cookie *cookie, void *user, rtslib_async_fn fn);
int rtslib_bd_async_register(rtslib_cookie *cookie, void *user, rtslib_async_fn fn);
// Interface-state messages (type 47) travel raw.
int rtslib_ifstate_eochain_register(rtslib_cookie *cookie, void *user, rtslib_async_fn fn);
// Any type below 111, with the listen bits given.
int rtslib_async_register(rtslib_cookie *cookie, uint32_t type, const uint32_t listen[2], void *user,
                          rtslib_async_fn fn);

// Hands the peer a compiled filter (rts_filter.h) with the stored listen
// mask and the filter's listen bit: notifications of the types the filter
// names then reach this handle only when it matches. 0, EINVAL (no context,
// a malformed program), or the option's errno.
int rtslib_async_register_filters(rtslib_cookie *cookie, const void *filter);

// The read-and-dispatch step: reads until the socket is empty or
// read_limit reads were made. 0 when it read at least once and stopped at an
// empty socket or at the limit; -1 with errno otherwise (EAGAIN when nothing
// was there, EINVAL for a message whose length does not fit what was read,
// EIO for a record too small for a header, ECONNRESET when the peer went).
// EINVAL (no -1) for a handle without a context.
int rtslib_async_event_process(rtslib_cookie *cookie);

// When non-zero, each read is logged at debug priority.
extern int rtslib_async_debug;

}  // extern "C"
