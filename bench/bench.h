// Benchmark of the forward and inverse jobs: what its files share. Not part
// of the tests.
#pragma once

// Seconds on a monotonic clock.
double bench_seconds();

// Peak resident memory of the process so far, kilobytes.
long peak_rss_kb();

// The inverse job's Jacobian and inner solver on a large grid.
void run_inverse_bench();

// Inner solves on a random n by P Jacobian (8 n P bytes), timed against a
// plain streaming read of the same array; prints one line with both rates.
void bench_cg_rate(int n, int P);
