// Replay: the whole mirror told again, as broadcasts or to one task.
#include "ifstate_internal.h"

namespace {

// Walks the mirror top down; each object's change word is 0 while it is told.
template <class Dev, class Link, class Fam, class Addr>
void walk_all(Dev dev, Link link, Fam fam, Addr addr) {
  for (if_device *ifd = ifd_first(); ifd; ifd = ifd_next(ifd)) {
    ifd->ifd_change = 0;
    dev(ifd);
  }
  for (if_link *ifl = ifl_first(); ifl; ifl = ifl_next(ifl)) {
    ifl->ifl_change = 0;
    link(ifl);
    for (if_family *iff = iff_first(ifl); iff; iff = iff_next(iff)) {
      iff->iff_change = 0;
      fam(iff);
      for (if_address *ifa = ifa_first(iff); ifa; ifa = ifa_next(ifa)) {
        ifa->ifa_change = 0;
        addr(ifa);
      }
    }
  }
}

}  // namespace

void if_replay(void) {
  walk_all([](if_device *ifd) { task_ifdchange(ifd, nullptr, 0, IF_IN_REPLAY, 1); },
           [](if_link *ifl) { task_iflchange(ifl, IF_IN_REPLAY, 1); },
           [](if_family *iff) { task_iffchange(iff, iff_change_arg(iff), nullptr, 0, IF_IN_REPLAY, 1); },
           [](if_address *ifa) {
             // Addresses have no replay mark of their own: only tasks that want replays.
             for (task *tp = task_notify_list_first(IF_NOTIFY_ADDRESS), *next; tp; tp = next) {
               next = task_notify_list_next(tp, IF_NOTIFY_ADDRESS);
               if (tp->task_forw && !(tp->task_flags & TASK_FLAG_DELETE) && tp->task_ifreplay_wanted &&
                   tp->task_ifachange && (!tp->task_ifa_filter || tp->task_ifa_filter(tp, ifa)))
                 task_ifachange_single(tp, ifa, IF_IN_REPLAY);
             }
           });
}

void if_replay_task(task *tp) {
  // The task may delete itself on the way: stop telling it then.
  auto live = [tp] { return !(tp->task_flags & TASK_FLAG_DELETE); };
  walk_all(
      [&](if_device *ifd) {
        if (live() && tp->task_ifdchange && (!tp->task_ifd_filter || tp->task_ifd_filter(tp, ifd)))
          task_ifdchange_single(tp, ifd, nullptr, 0, IF_IN_REPLAY);
      },
      [&](if_link *ifl) {
        if (live() && tp->task_iflchange && (!tp->task_ifl_filter || tp->task_ifl_filter(tp, ifl)))
          task_iflchange_single(tp, ifl, IF_IN_REPLAY);
      },
      [&](if_family *iff) {
        if (!live() || (tp->task_iff_filter && !tp->task_iff_filter(tp, iff))) return;
        if (tp->task_iffchange) task_iffchange_single(tp, iff, iff_change_arg(iff), nullptr, 0, IF_IN_REPLAY);
        if (live()) task_iffreplay_single(tp, iff, nullptr, IF_IN_REPLAY, 0);
      },
      [&](if_address *ifa) {
        if (live() && tp->task_ifachange && (!tp->task_ifa_filter || tp->task_ifa_filter(tp, ifa)))
          task_ifachange_single(tp, ifa, IF_IN_REPLAY);
      });
}
