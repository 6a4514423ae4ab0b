// Benchmark of the inverse job's kernels. Not part of the tests.
#pragma once

// One inner solve on a random n by P Jacobian, timed against a plain
// streaming read of the same array; prints one line with both rates.
void bench_cg_rate(int n, int P);
