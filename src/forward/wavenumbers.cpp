// Wavenumber quadrature: the table of wavenumbers along strike and weights
// that replaces the inverse Fourier-cosine integral of the point-source
// potential, chosen from the electrode spacings of one measurement set.
#include <cmath>

#include "data/measurement_set.h"
#include "forward/forward_kernels.h"
#include "mesh/mesh_model.h"
#include "run/constants.h"
#include "textio/textio.h"

// Squared distance in the mesh plane between nodes p and q (1-based).
static double squared_distance(const MeshModel& mesh, int p, int q) {
  const double dx = mesh.node_x[p - 1] - mesh.node_x[q - 1];
  const double dy = mesh.node_y[p - 1] - mesh.node_y[q - 1];
  return dx * dx + dy * dy;
}

// Smallest and largest distance from a current electrode (a, b) to a
// potential electrode (m, n) over all measurements; the current pair and the
// potential pair among themselves do not set the range of the integrand.
//   mesh   in: node_x, node_y, N each, metres
//   table  in: electrode_nodes, 1-based node of each table row
//   ms     in: elec_a, elec_b, elec_m, elec_n, num_measurements entries, 1-based rows
//   min_spacing, max_spacing  out: metres; with no measurement sqrt(1e11) and NaN
void measurement_spacing(const MeshModel& mesh, const ElectrodeTable& table,
                         const MeasurementSet& ms, double* min_spacing,
                         double* max_spacing) {
  double smallest = 1e11;
  double largest = -1e11;
  for (int i = 0; i < ms.num_measurements; ++i) {
    const int na = table.electrode_nodes[ms.elec_a[i] - 1];
    const int nb = table.electrode_nodes[ms.elec_b[i] - 1];
    const int nm = table.electrode_nodes[ms.elec_m[i] - 1];
    const int nn = table.electrode_nodes[ms.elec_n[i] - 1];
    const double d[4] = {squared_distance(mesh, na, nm), squared_distance(mesh, na, nn),
                         squared_distance(mesh, nb, nm), squared_distance(mesh, nb, nn)};
    for (int q = 0; q < 4; ++q) {
      if (d[q] < smallest) smallest = d[q];
      if (d[q] > largest) largest = d[q];
    }
  }
  *min_spacing = std::sqrt(smallest);
  *max_spacing = std::sqrt(largest);
}

// Number of Legendre points from the spacing ratio: six per decade, counted
// through single precision and truncated toward zero, then held in 2..cap.
// Values outside 0..cap are clamped before the conversion to an integer, with
// the result the truncation would give: +infinity (a zero smallest spacing)
// takes the cap, NaN (both spacings 0, or no measurement) counts as 0 and so
// takes 2.
static int legendre_count(double min_spacing, double max_spacing, int cap) {
  const double g = 6.0 * std::log10(max_spacing / min_spacing);
  const float gf = static_cast<float>(g);
  int n;
  if (std::isnan(gf) || gf < 0.0f) {
    n = 0;
  } else if (gf > static_cast<float>(cap)) {
    n = cap;
  } else {
    n = static_cast<int>(gf);
  }
  if (n < 2) n = 2;
  if (n > cap) n = cap;
  return n;
}

// Wavenumber table of one measurement set: Gauss-Legendre on the square
// root below k0 = 0.5 / min_spacing, four Gauss-Laguerre terms above it.
//   table_size        in: room in each table (20)
//   min_spacing, max_spacing  in: metres, from measurement_spacing
//   wavenumbers       out: W entries, 1/m, increasing
//   wavenumber_weights out: W entries, 1/m, the 1/pi of the transform included
//   num_wavenumbers   out: W
void wavenumber_rule(int table_size, double min_spacing, double max_spacing,
                     double* wavenumbers, double* wavenumber_weights,
                     int* num_wavenumbers) {
  const int n = legendre_count(min_spacing, max_spacing, table_size - 4);
  *num_wavenumbers = n + 4;
  const double k0 = 0.5 / min_spacing;

  // (0, k0) with k = k0 x^2: the integrand's log singularity at k = 0
  // becomes smooth in x. The rule is made in the tables and turned into
  // wavenumbers in place, weight first, as it needs the abscissa.
  legendre_nodes(0.0, 1.0, wavenumbers, wavenumber_weights, n);
  for (int j = 0; j < n; ++j) {
    const double x = wavenumbers[j];
    wavenumber_weights[j] = wavenumber_weights[j] * (2.0 * k0) * x / pi_ten_digits;
    wavenumbers[j] = k0 * x * x;
  }

  // (k0, infinity) with k = k0 (1 + y): exp(y) undoes the Laguerre weight.
  laguerre_nodes(wavenumbers + n, wavenumber_weights + n, 4, 0.0);
  for (int j = n; j < n + 4; ++j) {
    const double y = wavenumbers[j];
    wavenumber_weights[j] = std::exp(y) * k0 * wavenumber_weights[j] / pi_ten_digits;
    wavenumbers[j] = k0 * (y + 1.0);
  }
}

// Gauss-Legendre rule by Newton's method on the Legendre polynomial from the
// asymptotic start values; symmetric pairs are written together, so the
// middle point of an odd rule is written twice (the second write stands).
//   x1, x2  in: interval ends
//   x       out: n abscissae, 0-based array, increasing
//   w       out: n weights, 0-based array
//   n       in: number of points, at least 1
void legendre_nodes(double x1, double x2, double* x, double* w, int n) {
  const double xm = (x2 + x1) / 2.0;
  const double xl = (x2 - x1) / 2.0;
  const int m = (n + 1) / 2;
  for (int i = 1; i <= m; ++i) {
    double z = std::cos((i - 0.25) * pi / (n + 0.5));
    double z1;
    double pp;
    do {
      double p1 = 1.0;
      double p2 = 0.0;
      for (int j = 1; j <= n; ++j) {
        const double p3 = p2;
        p2 = p1;
        p1 = ((2.0 * j - 1.0) * z * p2 - (j - 1.0) * p3) / j;
      }
      pp = n * (z * p1 - p2) / (z * z - 1.0);
      z1 = z;
      z = z1 - p1 / pp;
    } while (std::fabs(z - z1) > 3e-14);
    x[i - 1] = xm - xl * z;
    x[n - i] = xm + xl * z;
    w[i - 1] = 2.0 * xl / ((1.0 - z * z) * pp * pp);
    w[n - i] = w[i - 1];
  }
}

// Natural logarithm of the gamma function, Lanczos series with six terms
// (2.5066282746310007 is the series' factor sqrt(2 pi)); x above 0.
static double log_gamma(double x) {
  const double s = 1.000000000190015 + 76.18009172947146 / (x + 1.0) -
                   86.50532032941678 / (x + 2.0) + 24.01409824083091 / (x + 3.0) -
                   1.231739572450155 / (x + 4.0) + 0.001208650973866179 / (x + 5.0) -
                   0.000005395239384953 / (x + 6.0);
  const double t = x + 5.5;
  return (x + 0.5) * std::log(t) - t + std::log(2.5066282746310007 * s / x);
}

// Generalised Gauss-Laguerre rule, weight x^alpha e^-x, by Newton's method
// from empirical start values, each root extrapolated from the two before.
//   x      out: n abscissae, 0-based array, increasing
//   w      out: n weights, 0-based array
//   n      in: number of points, at least 1
//   alpha  in: exponent, above -1
void laguerre_nodes(double* x, double* w, int n, double alpha) {
  double z = 0.0;
  for (int i = 1; i <= n; ++i) {
    if (i == 1) {
      z = (1.0 + alpha) * (3.0 + 0.92 * alpha) / (1.0 + 2.4 * n + 1.8 * alpha);
    } else if (i == 2) {
      z = z + (15.0 + 6.25 * alpha) / (1.0 + 0.9 * alpha + 2.5 * n);
    } else {
      const double a = i - 2;
      z = z + ((1.0 + 2.55 * a) / (1.9 * a) + 1.26 * a * alpha / (1.0 + 3.5 * a)) *
                  (z - x[i - 3]) / (1.0 + 0.3 * alpha);
    }
    double p2 = 0.0;
    double pp = 0.0;
    bool converged = false;
    for (int its = 1; its <= 10; ++its) {
      double p1 = 1.0;
      p2 = 0.0;
      for (int j = 1; j <= n; ++j) {
        const double p3 = p2;
        p2 = p1;
        p1 = ((2 * j - 1 + alpha - z) * p2 - (j - 1 + alpha) * p3) / j;
      }
      pp = (n * p1 - (n + alpha) * p2) / z;
      const double z1 = z;
      z = z1 - p1 / pp;
      if (std::fabs(z - z1) <= 3e-14) {
        converged = true;
        break;
      }
    }
    if (!converged) {
      // Reported and waited for, then the root reached so far is used.
      tio_write(CH_CONSOLE, "1X, 'too many iterations in gaulag'");
      tio_pause();
    }
    x[i - 1] = z;
    w[i - 1] = -std::exp(log_gamma(alpha + n) - log_gamma(n)) / (pp * n * p2);
  }
}
