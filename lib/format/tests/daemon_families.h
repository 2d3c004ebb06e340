// The address library wired as the daemon wires it, over libc memory, with
// this formatter as its print hooks and one family without a printer: for
// the tests and the fuzz target of %A and the INET letters.
#pragma once

#include "format/task_fmt.h"
#include "sockaddr/families.h"

inline constexpr unsigned kNoPrinterFamily = 20;

inline void wire_daemon_families() {
  task_fmt_init(GF_MAX_DAEMON);
  static zsock_hooks h = zsock_hooks_libc();
  task_fmt_zsock_hooks(&h);
  zsock_init(GF_MAX_DAEMON, zsock_daemon_family_names, 4096, &h);
  zsock_register_inet(GF_INET);
  zsock_register_inet6(GF_INET6);
  zsock_register_unix(GF_UNIX);
  zsock_register_i802(GF_I802);
  zsock_init_family(100, kNoPrinterFamily, 2, 100, nullptr, 0, "noprinter", nullptr);
}
