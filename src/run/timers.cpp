// Phase timers: wall-clock sums of the phases of a run (element equations,
// forward solves, Jacobian, inverse solves, resolution) and their report.
#include "run/timers.h"

#include <cstring>
#include <ctime>

#include "run/threads.h"
#include "textio/textio.h"

namespace {

// One timed phase; all times in seconds, single precision as reported.
struct Phase {
  const char* name;  // three-letter label stem
  float mark;        // last start reading, then last elapsed time
  float sum;         // accumulated seconds
  int calls;         // completed pairs
};

float total_time;    // start reading at "init", elapsed seconds at "stop"
Phase phases[5] = {{"ele", 0, 0, 0}, {"for", 0, 0, 0}, {"jac", 0, 0, 0},
                   {"sol", 0, 0, 0}, {"res", 0, 0, 0}};
enum { COUNTED_PHASES = 4 };  // "res" keeps no count

// Sums of the threads of a parallel stage, one set per slot, and the slot
// of the calling thread (-1: the run's own phases).
Phase slot_phases[MAX_THREADS][5];
thread_local int thread_slot = -1;

Phase* phases_in_use() {
  return thread_slot < 0 ? phases : slot_phases[thread_slot];
}

bool have_origin = false;
long long origin_ticks;

// Wall clock in 100-nanosecond ticks.
long long clock_ticks() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return (long long)ts.tv_sec * 10000000LL + ts.tv_nsec / 100;
}

}  // namespace

double timer_clock() {
  long long now = clock_ticks();
  if (!have_origin) {
    have_origin = true;
    origin_ticks = now;
  }
  return (double)(now - origin_ticks) * 1.0e-7;
}

void timer(const char* label) {
  if (std::strlen(label) != 4) return;
  if (std::strcmp(label, "init") == 0) {
    total_time = (float)timer_clock();
    for (Phase& p : phases) {
      p.sum = 0.0f;
      p.calls = 0;
    }
    return;
  }
  if (std::strcmp(label, "stop") == 0) {
    total_time = (float)(timer_clock() - (double)total_time);
    return;
  }
  Phase* in_use = phases_in_use();
  for (int i = 0; i < 5; ++i) {
    Phase& p = in_use[i];
    if (std::strncmp(phases[i].name, label, 3) != 0) continue;
    if (label[3] == '0') {
      p.mark = (float)timer_clock();
    } else if (label[3] == '1') {
      // The difference is formed in double and rounded once to single.
      p.mark = (float)(timer_clock() - (double)p.mark);
      p.sum = p.sum + p.mark;
      if (i < COUNTED_PHASES) p.calls += 1;
    }
    return;
  }
}

void timer_set_thread_slot(int slot) { thread_slot = slot; }

void timer_merge_thread_slots(int num_threads) {
  for (int i = 0; i < 5; ++i) {
    float longest = 0.0f;
    int calls = 0;
    for (int t = 0; t < num_threads; ++t) {
      Phase& p = slot_phases[t][i];
      if (p.sum > longest) longest = p.sum;
      calls += p.calls;
      p.sum = 0.0f;
      p.calls = 0;
    }
    phases[i].sum = phases[i].sum + longest;
    phases[i].calls += calls;
  }
}

namespace {
int phase_index(const char* phase) {
  for (int i = 0; i < 5; ++i)
    if (std::strncmp(phases[i].name, phase, 3) == 0) return i;
  return 0;
}
}  // namespace

int timer_calls(const char* phase) { return phases_in_use()[phase_index(phase)].calls; }

void timer_uncount(const char* phase, int calls) { phases[phase_index(phase)].calls -= calls; }

void timer_report() {
  // A phase without calls keeps its sum in the percent column (normally 0);
  // the resolution line shows its plain sum of seconds behind the "%".
  float percent[COUNTED_PHASES], average[COUNTED_PHASES];
  for (int i = 0; i < COUNTED_PHASES; ++i) {
    const Phase& p = phases[i];
    if (p.calls == 0) {
      average[i] = 0.0f;
      percent[i] = p.sum;
    } else {
      average[i] = p.sum / (float)p.calls;
      percent[i] = total_time == 0.0f ? 0.0f : p.sum * 100.0f / total_time;
    }
  }
  tio_write(CH_LOG,
            "/ / 1X, 20X, 'Timing Summary' / 1X, 20X, '==============' /"
            " 5X, 'Total time taken:                    ', F15.0, ' s' /"
            " 5X, 'Percent time taken forming element equations: ', F6.1, ' %' /"
            " 5X, 'Percent time taken solving forward  equations:', F6.1, ' %' /"
            " 5X, 'Percent time taken forming Jacobian:          ', F6.1, ' %' /"
            " 5X, 'Percent time taken solving inverse equations: ', F6.1, ' %' /"
            " 5X, 'Percent time taken calculating res. matrix:   ', F6.1, ' %'",
            {wv_real(total_time), wv_real(percent[0]), wv_real(percent[1]),
             wv_real(percent[2]), wv_real(percent[3]), wv_real(phases[4].sum)});
  tio_write(CH_LOG,
            "/ 1X, 20X, 'Timing Details' / 1X, 20X, '==============' /"
            " 5X, 'Number of calls to form element equations:     ', I5 /"
            " 5X, 'Average time taken in call:          ', F15.1, ' s' /"
            " 5X, 'Number of calls to solve forward equations:    ', I5 /"
            " 5X, 'Average time taken in call:          ', F15.1, ' s' /"
            " 5X, 'Number of calls to form Jacobian:              ', I5 /"
            " 5X, 'Average time taken in call:          ', F15.1, ' s' /"
            " 5X, 'Number of calls to solve inverse equations:    ', I5 /"
            " 5X, 'Average time taken in call:          ', F15.1, ' s' /"
            " 5X, 'Number of calls to calculate res. matrix:      ', I5 /"
            " 5X, 'Average time taken in call:          ', F15.1, ' s'",
            {wv_int(phases[0].calls), wv_real(average[0]),
             wv_int(phases[1].calls), wv_real(average[1]),
             wv_int(phases[2].calls), wv_real(average[2]),
             wv_int(phases[3].calls), wv_real(average[3]), wv_int(0),
             wv_real(0.0)});
}
