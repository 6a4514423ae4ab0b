// Benchmark of the inverse job on a large grid. Not part of the tests.
#pragma once

void run_inverse_bench();
