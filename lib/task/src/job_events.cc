// The event system "TASK-JOBS": what the job dispatchers record when its
// events are switched on, and the queue log after each run.
#include <cstring>

#include "internal.h"
#include "trace/zevt.h"

zevt_system *task_job_evt;

namespace {

constexpr zevt_desc kJobEvents[] = {
    {TASK_JOB_EVT_START, "job start", 0},
    {TASK_JOB_EVT_END, "job end", 0},
    {TASK_JOB_EVT_STARVING, "job starving", 0},
    {TASK_JOB_EVT_STARVED_SELECTED, "starved job selected", 0},
    {TASK_JOB_EVT_QUEUE, "jobs queue", 0},
    {TASK_JOB_EVT_QUEUE_FG, "jobs queue foreground", 0},
    {TASK_JOB_EVT_QUEUE_BG, "jobs queue background", 0},
    {0, nullptr, 0},
};

// The job's flag words, blank-separated.
const char *flag_words(const task_job *jp, char *buf, size_t size) {
  static const char *const words[] = {"IsActive", "Starving", "SubJob", "SubJobDeleted"};
  size_t n = 0;
  buf[0] = '\0';
  for (unsigned i = 0; i < 4; i++) {
    if (!(jp->task_job_flags & (1u << i))) continue;
    int w = snprintf(buf + n, size - n, "%s%s", n ? " " : "", words[i]);
    if (w < 0 || static_cast<size_t>(w) >= size - n) break;
    n += static_cast<size_t>(w);
  }
  return buf;
}

void log_fg(const task_job *h) {
  char flags[64];
  for (const task_job *j = h->task_job_forw; j != h; j = j->task_job_forw) {
    flag_words(j, flags, sizeof flags);
    zevt_record(task_job_evt, TASK_JOB_EVT_QUEUE_FG, "Job Name : %s, Priority : %d, Flags : %s", j->task_job_name,
                j->task_job_priority, flags[0] ? flags : "None");
  }
}

}  // namespace

int task_job_events_register(void) {
  char err[256] = "";
  task_job_evt = zevt_system_find("TASK-JOBS", nullptr, 0);
  if (task_job_evt) return 0;
  const zevt_system_desc d = {"TASK-JOBS", "TASK JOBS Event System", TASK_JOB_EVT_COUNT, kJobEvents};
  if (zevt_system_create(&d, err, sizeof err) == 0) {
    task_job_evt = zevt_system_find("TASK-JOBS", nullptr, 0);
    return 0;
  }
  logging_event(LOG_ERR, "ZTASK_JOBS_EVT_REGISTER_FAILED",
                "ZTASK_JOBS_EVT_REGISTER_FAILED: Tavox task-jobs event registration failed %s", err);
  return -1;
}

zevt_system *task_job_events(void) { return task_job_evt; }

void task_job_evt_queue_log(void) {
  task_jobs_var *v = task_var_jobs();
  zevt_record(task_job_evt, TASK_JOB_EVT_QUEUE, "jobs queue: %u foreground, %u background, %u starving",
              v->taskjobs_fg_queued, v->taskjobs_bg_queued, v->taskjobs_starving);
  // The foreground jobs a running dispatch holds come before those queued for the next pass.
  for (const task_job_fg_list *l = v->taskjobs_fg_local; l; l = l->outer) log_fg(&l->head);
  log_fg(&v->taskjobs_fg_head);
  char flags[64];
  const task_job *h = &v->taskjobs_bg_head;
  for (const task_job *j = h->task_job_forw; j != h; j = j->task_job_forw)
    zevt_record(task_job_evt, TASK_JOB_EVT_QUEUE_BG,
                "Job Name: %s, Priority : %d, Runs : %d, Misses : %d, Flags : <%s>", j->task_job_name,
                j->task_job_priority, static_cast<int>(j->task_job_runs), static_cast<int>(j->task_job_credit),
                flag_words(j, flags, sizeof flags));
}
