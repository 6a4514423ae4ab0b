// The RMS misfit of calculated against observed data under the data
// weights: the one number on which every decision of the inversion rests.
#include <cmath>

#include "data/measurement_set.h"

// Inputs: c, d, W (n doubles), log_data.
// In/out: flags (n words), *num_ignored. A log-data ratio c / d below 0
// has no logarithm: the measurement leaves the misfit for good. A ratio of
// exactly 0 is not caught here (it gives ln 0); the residual pass at the
// head of an iteration flags those.
double rms(const double* c, const double* d, const double* W, unsigned* flags,
           int n, int* num_ignored, bool log_data) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i) {
    if (flags[i] & 1u) continue;
    double e;
    if (!log_data) {
      e = d[i] - c[i];
    } else {
      const double t = c[i] / d[i];
      if (t < 0.0) {
        *num_ignored += 1;
        flags[i] = MEASUREMENT_IGNORED;
        e = 0.0;
      } else {
        e = std::log(t);
      }
    }
    sum = sum + W[i] * W[i] * e * e;
  }
  return std::sqrt(sum / (double)(n - *num_ignored));
}
