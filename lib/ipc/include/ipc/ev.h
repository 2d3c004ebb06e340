// The small event library that IPC connections and the route-socket
// library's asynchronous events can run on instead of calling the task
// kernel themselves: descriptors watched for reading or writing, timers, a
// non-blocking connect that reports its outcome, and the time calls. It is
// a thin layer over the task kernel, so a program on it runs the kernel's
// scheduler as its loop.
//
// Under it, each selected descriptor has one hidden task (named "ev fd N")
// whose read and write interest is the union of the descriptor's
// selections; timers are task timers and jobs of a hidden task per context
// ("ev"); time is the kernel's cached now (task_now), so a replaced time
// hook drives it. Deselecting never closes the descriptor.
//
//   __evContext ev;
//   __evCreate(&ev);
//   __evFileID rid;
//   __evSelectFD(ev, fd, EV_READ, on_read, cookie, &rid);
//   __evTimerID tid;
//   __evSetTimer(ev, on_timer, cookie, __evAddTime(__evNowTime(), __evConsTime(2, 0)),
//                __evConsTime(0, 0), &tid);   // once, in 2 seconds
//   task_scheduler();
//
// Callbacks may select, deselect, set and clear anything, their own record
// included. An id is spent once deselected, cleared or cancelled, and a
// one-shot timer's once its callback has returned: using it again is a fault.
// Every call returns 0, or -1 with errno (EINVAL for a missing context, id
// or function, an unknown mask; EBADF for a descriptor that is not open).
#pragma once

#include <sys/socket.h>

#include <ctime>

extern "C" {

struct __evContext {
  void *opaque;
};
struct __evFileID {
  void *opaque;
};
struct __evTimerID {
  void *opaque;
};
struct __evConnID {
  void *opaque;
};

enum { EV_READ = 1, EV_WRITE = 2, EV_EXCEPT = 4 };

// mask is what happened: EV_READ (with EV_EXCEPT when that was asked too, as
// the kernel reports errors and hang-ups as readable) or EV_WRITE.
typedef void (*__evFileFunc)(__evContext ctx, void *uap, int fd, int mask);
typedef void (*__evTimerFunc)(__evContext ctx, void *uap, struct timespec due, struct timespec inter);
// On success fd is the connected descriptor and the addresses are its two
// ends; on failure fd is -1, the addresses are null and errno says why.
typedef void (*__evConnFunc)(__evContext ctx, void *uap, int fd, const void *la, int lalen, const void *ra,
                             int ralen);

int __evCreate(__evContext *ctx);
// Deselects every descriptor, clears every timer and cancels every connect
// of the context, then frees it.
int __evDestroy(__evContext ctx);

// Calls func for each event of mask (EV_READ, EV_WRITE, EV_EXCEPT, any
// combination) on fd until deselected. A descriptor may be selected several
// times: every selection whose mask matches is called.
int __evSelectFD(__evContext ctx, int fd, int mask, __evFileFunc func, void *uap, __evFileID *id);
int __evDeselectFD(__evContext ctx, __evFileID id);

// func runs at due (a time of __evNowTime's clock; one in the past runs in
// the next pass), then every inter when inter is not zero.
int __evSetTimer(__evContext ctx, __evTimerFunc func, void *uap, struct timespec due, struct timespec inter,
                 __evTimerID *id);
int __evClearTimer(__evContext ctx, __evTimerID id);

// Starts a non-blocking connect of fd (made non-blocking) to ra. A connect
// refused at once returns -1 with errno and calls nothing; otherwise func is
// called once with the outcome, never from inside this call: in the next
// pass when the connect completed at once (a Unix-domain connect always
// does), else when the socket becomes writable.
int __evConnect(__evContext ctx, int fd, const void *ra, int ralen, __evConnFunc func, void *uap,
                __evConnID *id);
// The connect's callback will not be called; the descriptor stays open.
int __evCancelConn(__evContext ctx, __evConnID id);

// The kernel's cached now (monotonic), and time arithmetic on timespecs.
struct timespec __evNowTime(void);
struct timespec __evConsTime(time_t sec, long nsec);
struct timespec __evAddTime(struct timespec a, struct timespec b);

}  // extern "C"
