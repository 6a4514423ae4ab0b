// The Jacobian against central finite differences of the forward solution,
// and without parameters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "support/mesh_builders.h"
#include "inversion/inversion.h"
#include "run/run_context.h"

namespace {

using Vec = std::vector<double>;

// The survey with parameters of zone_x by zone_y cells, the values of each
// parameter's last element spread over its elements, and the wavenumbers of
// point sources or the one term of two-dimensional flow.
struct Case {
  builders::Survey s;
  Vec v;  // P parameter values
  double k[MAX_WAVENUMBERS], w[MAX_WAVENUMBERS];
  Quadrature q;
};

void make_case(Case* c, int npe, double flux, int zx, int zy, unsigned seed) {
  std::vector<int> param;
  for (int i = 0; i < 8; ++i)
    for (int j = 0; j < 4; ++j) param.push_back((i / zx) * ((3 + zy) / zy) + j / zy + 1);
  builders::make_survey(&c->s, npe, seed, param);
  MeshModel& m = c->s.mesh;
  c->v.assign(*std::ranges::max_element(m.element_parameter), 0.0);
  for (int e = 0; e < m.num_elements; ++e) c->v[m.element_parameter[e] - 1] = c->s.lc[e];
  scatter_parameters(m, c->v.data(), c->s.lc.data());
  c->q = {c->k, c->w, 1, flux, false, 0.0};
  if (flux > 2.0) wavenumber_rule(MAX_WAVENUMBERS, 1.0, 5.0, c->k, c->w, &c->q.num_wavenumbers);
}

Vec forward(Case* c, const Vec& lc) {
  Vec r(c->s.ms.num_measurements);
  EXPECT_EQ(forward_solve(c->s.fm(), c->s.ms, lc.data(), c->q, &c->s.team, r.data()), 0);
  return r;
}

// J (n by P, column-contiguous) and the calculated data, both first filled with garbage.
void jacobian(Case* c, bool log_data, Vec* J, Vec* data) {
  J->assign(c->s.ms.num_measurements * c->v.size(), -1.0);
  data->assign(c->s.ms.num_measurements, -1.0);
  const ParameterModel model{c->s.lc.data(), c->v.data(), static_cast<int>(c->v.size())};
  EXPECT_EQ(compute_jacobian(c->s.fm(), c->s.ms, model, c->q, log_data, &c->s.team, J->data(), data->data()),
            0);
}

}  // namespace

TEST(Jacobian, AgreesWithCentralDifferencesOfTheForwardSolution) {
  for (int npe : {3, 4})
    for (double flux : {2.0, 3.0})
      for (bool log_data : {false, true}) {
        SCOPED_TRACE(testing::Message() << "npe " << npe << " flux " << flux << " log " << log_data);
        Case c;
        make_case(&c, npe, flux, 2, 2, 7u + npe);  // zones of 2 x 2 cells
        Vec J, data;
        jacobian(&c, log_data, &J, &data);
        const Vec r0 = forward(&c, c.s.lc);
        const int n = c.s.ms.num_measurements;
        for (int i = 0; i < n; ++i) EXPECT_NEAR(data[i], r0[i], 1e-12 * std::fabs(r0[i]));
        const double scale = std::fabs(*std::ranges::max_element(J, {}, [](double x) { return std::fabs(x); }));
        ASSERT_GT(scale, 0.0);
        const double h = 1e-4;
        for (std::size_t p = 0; p < c.v.size(); ++p) {
          Vec up = c.v, down = c.v, lc_up = c.s.lc, lc_down = c.s.lc;
          up[p] += h;
          down[p] -= h;
          scatter_parameters(c.s.mesh, up.data(), lc_up.data());
          scatter_parameters(c.s.mesh, down.data(), lc_down.data());
          const Vec ru = forward(&c, lc_up), rd = forward(&c, lc_down);
          for (int i = 0; i < n; ++i) {
            // True data: dR/d(ln sigma); log data: d(ln R)/d(ln rho).
            const double fd = log_data ? -std::log(ru[i] / rd[i]) / (2 * h) : (ru[i] - rd[i]) / (2 * h);
            EXPECT_NEAR(J[p * n + i], fd, 2e-6 * scale) << "i " << i << " p " << p;
          }
        }
      }
}

// Elements without a parameter add nothing: none at all leaves J zero, and the data stand.
TEST(Jacobian, NoParametersLeaveJZeroAndStillGiveTheData) {
  for (int npe : {3, 4}) {
    Case c;
    make_case(&c, npe, 3.0, 2, 2, 3u);
    for (int& p : c.s.mesh.element_parameter) p = 0;
    Vec J, data;
    jacobian(&c, true, &J, &data);
    EXPECT_EQ(J, Vec(J.size(), 0.0));
    EXPECT_EQ(data, forward(&c, c.s.lc));
  }
}

// Rounds of terms on 2 to 5 threads, each thread adding to its own columns:
// every entry of J and every datum is the double of one thread, for true
// and log data, zones of one cell and of 2 by 2 (uneven shares of the
// elements), and two-dimensional flow (one term, threads idle in the solve).
TEST(Jacobian, SameDoublesOnAnyNumberOfThreads) {
  for (int npe : {3, 4})
    for (double flux : {2.0, 3.0})
      for (int zone : {1, 2})
        for (bool log_data : {false, true}) {
          SCOPED_TRACE(testing::Message() << "npe " << npe << " flux " << flux << " zone " << zone << " log "
                                          << log_data);
          Case c;
          make_case(&c, npe, flux, zone, zone, 11u + npe);
          builders::use_threads(&c.s, 1);
          Vec J1, data1;
          jacobian(&c, log_data, &J1, &data1);
          for (int T : {2, 3, 5}) {
            builders::use_threads(&c.s, T);
            Vec J, data;
            jacobian(&c, log_data, &J, &data);
            EXPECT_EQ(std::memcmp(J.data(), J1.data(), 8 * J.size()), 0) << T;
            EXPECT_EQ(std::memcmp(data.data(), data1.data(), 8 * data.size()), 0) << T;
          }
        }
  set_thread_count(1);
}
