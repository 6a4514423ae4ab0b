// The Jacobian against central finite differences of the forward solution,
// against the scaling rule of a uniform change of conductivity, and its
// gathered accumulation against the element loop written out literally.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "data/measurement_set.h"
#include "forward/forward.h"
#include "inversion/inversion.h"
#include "mesh/mesh_model.h"
#include "run/run_context.h"
#include "textio/textio.h"

namespace {

// A small survey: an nx by ny grid (1 m columns, 0.7 m rows, jittered) of
// four-node cells or of two triangles per cell, random 10 to 100 ohm m,
// six surface electrodes and dipole-dipole and Wenner readings.
struct Survey {
  MeshModel mesh;
  int npe;
  ConductanceMatrix cm;
  ElectrodeTable table;
  MeasurementSet ms;
  ForwardWork work;
  std::vector<double> lc;  // ln conductivity per element
  double k[MAX_WAVENUMBERS], w[MAX_WAVENUMBERS];
  int nk;
  double flux;
};

// Parameters: patches of zone_x by zone_y cells (0: every element its own).
void build_survey(Survey* s, int npe, double flux, int zone_x, int zone_y, unsigned seed) {
  const int nx = 9, ny = 5;
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> jitter(-0.1, 0.1), rho(10.0, 100.0);
  MeshModel& m = s->mesh;
  m.num_nodes = nx * ny;
  m.node_x.resize(m.num_nodes);
  m.node_y.resize(m.num_nodes);
  for (int i = 0; i < nx; ++i)
    for (int j = 0; j < ny; ++j) {
      m.node_x[i * ny + j] = i + (j > 0 ? jitter(rng) : 0.0);
      m.node_y[i * ny + j] = 0.7 * j + (j > 0 ? jitter(rng) : 0.0);
    }
  m.element_nodes.clear();
  m.element_parameter.clear();
  int cell_params_x = zone_x > 0 ? zone_x : 1, cell_params_y = zone_y > 0 ? zone_y : 1;
  int next_own = 0;
  for (int i = 0; i < nx - 1; ++i)
    for (int j = 0; j < ny - 1; ++j) {
      const int n = i * ny + j + 1;
      const int zone = (i / cell_params_x) * ((ny - 1 + cell_params_y - 1) / cell_params_y) +
                       j / cell_params_y + 1;
      if (npe == 4) {
        m.element_nodes.insert(m.element_nodes.end(), {n, n + ny, n + ny + 1, n + 1});
        m.element_parameter.push_back(zone_x > 0 ? zone : ++next_own);
      } else {
        m.element_nodes.insert(m.element_nodes.end(), {n, n + ny, n + ny + 1, 1, n, n + ny + 1, n + 1, 1});
        m.element_parameter.push_back(zone_x > 0 ? zone : ++next_own);
        m.element_parameter.push_back(zone_x > 0 ? zone : ++next_own);
      }
    }
  m.num_elements = static_cast<int>(m.element_parameter.size());
  m.element_nodes.push_back(1);
  s->npe = npe;
  s->flux = flux;
  s->lc.clear();
  for (int e = 0; e < m.num_elements; ++e) s->lc.push_back(-std::log(rho(rng)));

  s->table.num_electrodes = 6;
  s->table.electrode_ids = {1, 2, 3, 4, 5, 6};
  s->table.electrode_nodes.clear();
  for (int c = 0; c < 6; ++c) s->table.electrode_nodes.push_back((c + 1) * ny + 1);
  const int quads[][4] = {{3, 4, 1, 2}, {4, 5, 2, 3}, {5, 6, 3, 4}, {4, 5, 1, 2},
                          {5, 6, 1, 2}, {2, 3, 1, 4}, {3, 4, 2, 5}, {4, 5, 3, 6}};
  allocate_measurements(8, &s->ms);
  for (int i = 0; i < 8; ++i) {
    s->ms.elec_m[i] = quads[i][0];
    s->ms.elec_n[i] = quads[i][1];
    s->ms.elec_a[i] = quads[i][2];
    s->ms.elec_b[i] = quads[i][3];
  }
  testing::internal::CaptureStdout();  // progress lines of the pattern
  build_matrix_pattern(m, npe, &s->cm);
  testing::internal::GetCapturedStdout();
  choose_pinned_node(4, s->table, &m);
  s->work.right_hand_side.assign(m.num_nodes, 0.0);
  s->work.primary_potential.assign(m.num_nodes, 0.0);
  s->work.potentials.assign(static_cast<size_t>(m.num_nodes) * 6, 0.0);
  s->nk = 1;
  if (flux > 2.0) wavenumber_rule(MAX_WAVENUMBERS, 0, 1.0, 5.0, s->k, s->w, &s->nk);
}

int num_parameters(const Survey& s) {
  int P = 0;
  for (int p : s.mesh.element_parameter) P = std::max(P, p);
  return P;
}

std::vector<double> forward(Survey* s, const std::vector<double>& lc) {
  std::vector<double> r(s->ms.num_measurements);
  int failed = 0;
  forward_solve(s->mesh, s->npe, &s->cm, s->table, s->ms, lc.data(), s->k, s->w, s->nk, s->flux,
                false, &s->work, r.data(), &failed);
  EXPECT_EQ(failed, 0);
  return r;
}

// Parameter values from the elements (all elements of a parameter share one).
std::vector<double> flatten_zones(Survey* s) {
  std::vector<double> v(num_parameters(*s), 0.0);
  for (int e = 0; e < s->mesh.num_elements; ++e)
    if (s->mesh.element_parameter[e] != 0) v[s->mesh.element_parameter[e] - 1] = s->lc[e];
  scatter_parameters(s->mesh, v.data(), s->lc.data());
  return v;
}

void jacobian(Survey* s, const std::vector<double>& v, bool log_data, std::vector<double>* J,
              std::vector<double>* c) {
  const int n = s->ms.num_measurements, P = num_parameters(*s);
  J->assign(static_cast<size_t>(n) * P, -1.0);
  c->assign(n, -1.0);
  int failed = 1;
  compute_jacobian(s->mesh, s->npe, &s->cm, s->table, s->ms, s->lc.data(), v.data(), P, s->k,
                   s->w, s->nk, s->flux, false, log_data, &s->work, J->data(), c->data(), &failed);
  EXPECT_EQ(failed, 0);
}

}  // namespace

TEST(Jacobian, AgreesWithCentralDifferencesOfTheForwardSolution) {
  for (int npe : {3, 4})
    for (double flux : {2.0, 3.0})
      for (bool log_data : {false, true}) {
        SCOPED_TRACE(testing::Message() << "npe " << npe << " flux " << flux << " log " << log_data);
        Survey s;
        build_survey(&s, npe, flux, 2, 2, 7u + npe);  // zones of 2 x 2 cells
        std::vector<double> v = flatten_zones(&s), J, c;
        jacobian(&s, v, log_data, &J, &c);
        std::vector<double> r0 = forward(&s, s.lc);
        const int n = s.ms.num_measurements, P = num_parameters(s);
        for (int i = 0; i < n; ++i) EXPECT_NEAR(c[i], r0[i], 1e-12 * std::fabs(r0[i]));
        double scale = 0.0;
        for (double x : J) scale = std::max(scale, std::fabs(x));
        ASSERT_GT(scale, 0.0);
        const double h = 1e-4;
        for (int p = 1; p <= P; ++p) {
          std::vector<double> up = v, down = v, lc_up = s.lc, lc_down = s.lc;
          up[p - 1] += h;
          down[p - 1] -= h;
          scatter_parameters(s.mesh, up.data(), lc_up.data());
          scatter_parameters(s.mesh, down.data(), lc_down.data());
          std::vector<double> ru = forward(&s, lc_up), rd = forward(&s, lc_down);
          for (int i = 0; i < n; ++i) {
            // True data: dR/d(ln sigma); log data: d(ln R)/d(ln rho).
            double fd = log_data ? -std::log(ru[i] / rd[i]) / (2 * h)
                                 : (ru[i] - rd[i]) / (2 * h);
            EXPECT_NEAR(J[static_cast<size_t>(p - 1) * n + i], fd, 2e-6 * scale) << "i " << i << " p " << p;
          }
        }
      }
}

TEST(Jacobian, EveryElementAParameterSumsToMinusTheData) {
  // Multiplying every conductivity by a factor divides the solution by it.
  for (int npe : {3, 4})
    for (double flux : {2.0, 3.0}) {
      Survey s;
      build_survey(&s, npe, flux, 0, 0, 11u);
      std::vector<double> v = flatten_zones(&s), J, c;
      jacobian(&s, v, false, &J, &c);
      const int n = s.ms.num_measurements, P = num_parameters(s);
      ASSERT_EQ(P, s.mesh.num_elements);
      for (int i = 0; i < n; ++i) {
        double sum = 0.0, size = 0.0;
        for (int p = 0; p < P; ++p) {
          sum += J[static_cast<size_t>(p) * n + i];
          size += std::fabs(J[static_cast<size_t>(p) * n + i]);
        }
        EXPECT_NEAR(sum, -c[i], 1e-9 * size) << "npe " << npe << " flux " << flux << " i " << i;
      }
    }
}

TEST(Jacobian, GatheredAccumulationIsTheLiteralElementLoopBitForBit) {
  for (int npe : {3, 4})
    for (bool log_data : {false, true}) {
      Survey s;
      build_survey(&s, npe, 3.0, 2, 1, 5u);
      // One element without a parameter costs nothing and adds nothing.
      s.mesh.element_parameter[3] = 0;
      std::vector<double> v = flatten_zones(&s), J, c;
      jacobian(&s, v, log_data, &J, &c);
      const int n = s.ms.num_measurements, P = num_parameters(s), N = s.mesh.num_nodes;
      std::vector<double> ref(static_cast<size_t>(n) * P, 0.0), tr(n, 0.0);
      for (int j = 0; j < s.nk; ++j) {
        double k = 0.0, w = 0.0;
        ASSERT_EQ(forward_term(s.mesh, npe, &s.cm, s.table, s.ms, s.lc.data(), s.k, s.w, j, s.flux, 0.0,
                               false, &s.work, tr.data(), &k, &w), 0);
        ASSERT_EQ(k, s.k[j]);
        auto pot = [&](int node, int electrode) { return s.work.potentials[static_cast<size_t>(electrode - 1) * N + node - 1]; };
        double scale = 1.0;
        for (int e = 0; e < s.mesh.num_elements; ++e) {
          const int p = s.mesh.element_parameter[e];
          if (p == 0) continue;
          if (!log_data) scale = -std::exp(s.lc[e]);
          double ae[25];
          const int* nodes = &s.mesh.element_nodes[4 * e];
          element_matrix(ae, s.mesh.node_x.data(), s.mesh.node_y.data(), nodes, npe, s.k[j]);
          for (int a = 0; a < npe; ++a)
            for (int b = 0; b < npe; ++b) {
              const double t = ae[a + 5 * b] * (s.w[j] * scale);
              for (int i = 0; i < n; ++i)
                ref[static_cast<size_t>(p - 1) * n + i] +=
                    ((pot(nodes[a], s.ms.elec_a[i]) - pot(nodes[a], s.ms.elec_b[i])) * t) *
                    (pot(nodes[b], s.ms.elec_m[i]) - pot(nodes[b], s.ms.elec_n[i]));
            }
        }
      }
      if (log_data)
        for (int p = 0; p < P; ++p)
          for (int i = 0; i < n; ++i)
            ref[static_cast<size_t>(p) * n + i] = (ref[static_cast<size_t>(p) * n + i] * std::exp(v[p])) / tr[i];
      EXPECT_EQ(tr, c);
      EXPECT_EQ(ref, J) << "npe " << npe << " log " << log_data;
    }
}

TEST(Jacobian, NoParametersLeaveJZeroAndStillGiveTheData) {
  Survey s;
  build_survey(&s, 4, 2.0, 2, 2, 3u);
  std::vector<double> v = flatten_zones(&s), J, c;
  for (int& p : s.mesh.element_parameter) p = 0;
  const int n = s.ms.num_measurements, P = static_cast<int>(v.size());
  J.assign(static_cast<size_t>(n) * P, -1.0);
  c.assign(n, 0.0);
  int failed = 1;
  compute_jacobian(s.mesh, 4, &s.cm, s.table, s.ms, s.lc.data(), v.data(), P, s.k, s.w, 1, 2.0,
                   false, false, &s.work, J.data(), c.data(), &failed);
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(J, std::vector<double>(J.size(), 0.0));
  EXPECT_EQ(c, forward(&s, s.lc));
}
