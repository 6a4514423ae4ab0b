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
