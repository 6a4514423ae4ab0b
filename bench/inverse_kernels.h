// Benchmark of the inverse job's kernels. Not part of the tests.
#pragma once

// Inner solves on a random n by P Jacobian (8 n P bytes), timed against a
// plain streaming read of the same array; prints one line with both rates.
void bench_cg_rate(int n, int P);
