// Phase timers: wall-clock sums per phase of the run and the timing report
// written to the log at the end.
#pragma once

// One timer call with a four-character label: "init", "stop", or a phase
// name ("ele", "for", "jac", "sol", "res") followed by '0' (start) or '1'
// (end). Labels that match none of these do nothing.
void timer(const char* label);

// Writes the timing summary and details to the log (channel 7).
void timer_report();

// Seconds since the first clock reading of the run (the first call gives 0).
double timer_clock();

// The threads of a parallel stage time their phases apart: on a thread
// given slot t (0 to MAX_THREADS - 1) the timer calls go to sums of that
// slot alone; slot -1 is the run's own. Set by the thread team.
void timer_set_thread_slot(int slot);

// After a parallel stage of num_threads threads: each phase of the run gains
// the longest time one thread spent in it (the stage's wall time in that
// phase) and the calls of all threads; the slots are cleared.
void timer_merge_thread_slots(int num_threads);

// Completed calls of the phase named by its three letters ("ele", "for")
// so far on the calling thread: the run's count, or its slot's.
int timer_calls(const char* phase);

// Takes `calls` back from the run's count of a phase: the solutions threads
// made beyond a failure, which one thread would never have begun, so that
// the report counts what one thread counts.
void timer_uncount(const char* phase, int calls);
