// Threads of one run: the count from Q5_THREADS and the team of workers that
// runs a task on every thread at once, each worker in the caller's
// floating-point mode and with its phase times kept apart.
#include "run/threads.h"

#include <sched.h>
#include <xmmintrin.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "run/timers.h"
#include "textio/textio.h"

namespace {

// The workers beyond the calling thread and the task they are given. Made
// once and never destroyed: the run ends by exiting with the workers still
// waiting, and the lock and signals must outlive them.
struct Team {
  std::mutex lock;
  std::condition_variable start;   // a new task, or the end of the team
  std::condition_variable done;    // the last worker of a task finished
  long task_number = 0;            // counts the tasks handed out
  bool quit = false;
  int num_threads = 1;             // the caller and the workers
  int wanted = 1;                  // threads of the present task
  int running = 0;                 // workers still in the present task
  ThreadTask task = nullptr;
  void* arg = nullptr;
  unsigned int csr = 0;            // the caller's MXCSR: flush-to-zero mode
  std::vector<std::thread> workers;
};

Team* team() {
  static Team* t = new Team;
  return t;
}

// The task on thread t: the caller's floating-point mode, its own timer
// slot.
void run_task(Team* tm, int t) {
  _mm_setcsr(tm->csr);
  timer_set_thread_slot(t);
  tm->task(t, tm->arg);
  timer_set_thread_slot(-1);
}

// Thread t of the team, from the task after task number `seen` on.
void worker(Team* tm, int t, long seen) {
  std::unique_lock<std::mutex> hold(tm->lock);
  for (;;) {
    tm->start.wait(hold, [&] { return tm->quit || tm->task_number != seen; });
    if (tm->quit) return;
    seen = tm->task_number;
    if (t >= tm->wanted) continue;
    hold.unlock();
    run_task(tm, t);
    hold.lock();
    if (--tm->running == 0) tm->done.notify_one();
  }
}

void stop_workers(Team* tm) {
  {
    std::lock_guard<std::mutex> hold(tm->lock);
    tm->quit = true;
  }
  tm->start.notify_all();
  for (std::thread& w : tm->workers) w.join();
  tm->workers.clear();
  tm->quit = false;
}

// Cores this process may run on (a batch system's share, not the machine's).
int available_cores() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  const int n = CPU_COUNT(&set);
  return n < 1 ? 1 : (n > MAX_THREADS ? MAX_THREADS : n);
}

}  // namespace

int parse_thread_count(const char* value) {
  if (value == nullptr || value[0] == '\0') return 1;
  const std::size_t length = std::strlen(value);
  if (length > 3) return -1;
  int n = 0;
  for (std::size_t i = 0; i < length; ++i) {
    if (value[i] < '0' || value[i] > '9') return -1;
    n = 10 * n + (value[i] - '0');
  }
  if (n == 0) return available_cores();
  return n <= MAX_THREADS ? n : -1;
}

int start_threads_from_environment() {
  const char* value = std::getenv("Q5_THREADS");
  const int n = parse_thread_count(value);
  if (n < 0) {
    // Shown as given, cut short and with control characters made visible,
    // so that the message stays one line.
    char shown[41];
    std::size_t k = 0;
    for (; value[k] != '\0' && k < sizeof shown - 1; ++k)
      shown[k] = (value[k] >= ' ' && value[k] <= '~') ? value[k] : '?';
    shown[k] = '\0';
    fatal(CH_CONSOLE, CH_LOG,
          "1X, 'FATAL: Q5_THREADS must be 0 (every core) or a whole number "
          "from 1 to 256, not \"', A, '\"'",
          {wv_text(shown)});
  }
  set_thread_count(n);
  return n;
}

void set_thread_count(int num_threads) {
  Team* tm = team();
  stop_workers(tm);
  tm->num_threads = num_threads;
  for (int t = 1; t < num_threads; ++t)
    tm->workers.emplace_back(worker, tm, t, tm->task_number);
}

int thread_count() { return team()->num_threads; }

void run_on_threads(int num_threads, ThreadTask task, void* arg) {
  if (num_threads <= 1) {
    task(0, arg);
    return;
  }
  Team* tm = team();
  {
    std::lock_guard<std::mutex> hold(tm->lock);
    tm->task = task;
    tm->arg = arg;
    tm->csr = _mm_getcsr();
    tm->wanted = num_threads;
    tm->running = num_threads - 1;
    ++tm->task_number;
  }
  tm->start.notify_all();
  run_task(tm, 0);
  {
    std::unique_lock<std::mutex> hold(tm->lock);
    tm->done.wait(hold, [&] { return tm->running == 0; });
  }
  timer_merge_thread_slots(num_threads);
}

void thread_range(int t, int num_threads, int count, int* first, int* end) {
  const int base = count / num_threads;
  const int extra = count % num_threads;
  *first = t * base + (t < extra ? t : extra);
  *end = *first + base + (t < extra ? 1 : 0);
}
