// Protocol reader: one block of protocol.dat into a MeasurementSet, with the
// electrode checks, the rejection of readings, the data weights of the error
// model, and the geometric factor of a four-electrode reading.
#include <cmath>

#include "data/measurement_set.h"
#include "mesh/mesh_model.h"
#include "run/constants.h"
#include "run/memory_guard.h"
#include "run/run_context.h"
#include "textio/textio.h"

namespace {

// Resizes every array of ms to `slots` readings; new slots hold zeros.
void size_arrays(size_t slots, MeasurementSet* ms) {
  ms->electrode_numbers.resize(4 * slots, 0);
  ms->elec_m.resize(slots, 0);
  ms->elec_n.resize(slots, 0);
  ms->elec_a.resize(slots, 0);
  ms->elec_b.resize(slots, 0);
  ms->observed.resize(slots, 0.0);
  ms->reference.resize(slots, 0.0);
  ms->data_weight.resize(slots, 0.0);
}

}  // namespace

// The arrays start empty and read_measurements grows them by one slot as
// each line is read: a head larger than the block costs no memory beyond
// the lines the file holds. The guard still judges the head as read.
void begin_measurement_block(int capacity, MeasurementSet* ms) {
  size_t n = capacity > 0 ? (size_t)capacity : 0;
  // Nine arrays here and a few more per reading in the caller.
  require_memory(160.0 * (double)n, "the measurements of this block");
  ms->measurement_capacity = capacity;
  ms->num_measurements = capacity;
  size_arrays(0, ms);
}

void allocate_measurements(int capacity, MeasurementSet* ms) {
  begin_measurement_block(capacity, ms);
  size_arrays(capacity > 0 ? (size_t)capacity : 0, ms);
}

int find_electrode(const ElectrodeTable& table, int id) {
  // The whole table is passed over: with repeated numbers the last row wins.
  int row = 0;
  for (int k = 1; k <= table.num_electrodes; ++k)
    if (table.electrode_ids[k - 1] == id) row = k;
  return row;
}

double geometric_factor(const MeshModel& mesh, const ElectrodeTable& table,
                        int m, int n, int a, int b, double flux_type) {
  if (flux_type == 2.0) return 1.0;
  const int node_m = table.electrode_nodes[m - 1];
  const int node_n = table.electrode_nodes[n - 1];
  const int node_a = table.electrode_nodes[a - 1];
  const int node_b = table.electrode_nodes[b - 1];
  // Distance and distance to the image mirrored in y = 0, as for a flat
  // homogeneous half-space whatever the ground's shape.
  auto r = [&](int p, int q) {
    double dx = mesh.node_x[p - 1] - mesh.node_x[q - 1];
    double dy = mesh.node_y[p - 1] - mesh.node_y[q - 1];
    return std::sqrt(dx * dx + dy * dy);
  };
  auto ri = [&](int p, int q) {
    double dx = mesh.node_x[p - 1] - mesh.node_x[q - 1];
    double dy = mesh.node_y[p - 1] + mesh.node_y[q - 1];
    return std::sqrt(dx * dx + dy * dy);
  };
  double g = 1.0 / r(node_m, node_a) + 1.0 / ri(node_m, node_a) -
             1.0 / r(node_n, node_a) - 1.0 / ri(node_n, node_a) -
             1.0 / r(node_m, node_b) - 1.0 / ri(node_m, node_b) +
             1.0 / r(node_n, node_b) + 1.0 / ri(node_n, node_b);
  return 1.0 / (g / (4.0 * pi_ten_digits));
}

namespace {

// What a measurement line of this job carries.
struct LineLayout {
  bool inverse;          // value present
  bool reference;        // reference value present (difference inversion)
  bool error_from_file;  // error column present
};

LineLayout line_layout(const RunContext& ctx) {
  LineLayout lay;
  lay.inverse = ctx.job_type == 1;
  lay.reference = lay.inverse && ctx.reg_mode == 2 && !ctx.qualitative;
  lay.error_from_file = lay.inverse && !ctx.qualitative && ctx.a_wgt == 0.0 &&
                        ctx.b_wgt == 0.0;
  return lay;
}

// Reads line items into slot s (0-based). Returns the read status.
int read_line_into_slot(const LineLayout& lay, MeasurementSet* ms, int s,
                        double* error_item) {
  int record = 0;
  int* e = &ms->electrode_numbers[4 * (size_t)s];
  if (!lay.inverse)
    return tio_read(CH_PROTOCOL, READ_PLAIN,
                    {rd_int(&record), rd_int(e, 4)});
  int status;
  if (lay.reference && lay.error_from_file)
    status = tio_read(CH_PROTOCOL, READ_ERROR_TOLERANT,
                      {rd_int(&record), rd_int(e, 4), rd_real(&ms->observed[s]),
                       rd_real(&ms->reference[s]), rd_real(error_item)});
  else if (lay.reference)
    status = tio_read(CH_PROTOCOL, READ_ERROR_TOLERANT,
                      {rd_int(&record), rd_int(e, 4), rd_real(&ms->observed[s]),
                       rd_real(&ms->reference[s])});
  else if (lay.error_from_file)
    status = tio_read(CH_PROTOCOL, READ_ERROR_TOLERANT,
                      {rd_int(&record), rd_int(e, 4), rd_real(&ms->observed[s]),
                       rd_real(error_item)});
  else
    status = tio_read(CH_PROTOCOL, READ_ERROR_TOLERANT,
                      {rd_int(&record), rd_int(e, 4), rd_real(&ms->observed[s])});
  if (status == READ_EOF) {
    // A block cut short by the end of the file: the slot holds zeros.
    for (int j = 0; j < 4; ++j) e[j] = 0;
    ms->observed[s] = 0.0;
    if (lay.reference) ms->reference[s] = 0.0;
    *error_item = 0.0;
  }
  return status;
}

// The two checks that hold in every job: no electrode number twice in one
// reading, every number in the table. Sets the table rows of slot s.
void check_electrodes(const ElectrodeTable& table, int c, int s,
                      MeasurementSet* ms) {
  const int* e = &ms->electrode_numbers[4 * (size_t)s];
  if (e[0] == e[1] || e[0] == e[2] || e[0] == e[3] || e[1] == e[2] ||
      e[1] == e[3] || e[2] == e[3])
    fatal(CH_LOG, CH_CONSOLE,
          "' ', 'FATAL: duplication of electrode numbers in quadropole ', I5",
          {wv_int(c)});
  int rows[4];
  for (int j = 0; j < 4; ++j) {
    rows[j] = find_electrode(table, e[j]);
    if (rows[j] == 0)
      fatal(CH_LOG, CH_CONSOLE,
            "' ', 'FATAL: An electrode in measurement ', I5, ' is not valid '",
            {wv_int(c)});
  }
  ms->elec_m[s] = rows[0];
  ms->elec_n[s] = rows[1];
  ms->elec_a[s] = rows[2];
  ms->elec_b[s] = rows[3];
}

void warn_short(int c) {
  message(CH_LOG, CH_CONSOLE, "' ', 'WARNING:  Rejecting reading ', I4",
          {wv_int(c)});
}

}  // namespace

void read_measurements(const RunContext& ctx, const MeshModel& mesh,
                       const ElectrodeTable& table, MeasurementSet* ms) {
  const LineLayout lay = line_layout(ctx);
  int n = 0;
  int positive = 0;     // readings with rho > 0
  double log_sum = 0.0; // sum of their ln(rho)
  for (int c = 1; c <= ms->measurement_capacity; ++c) {
    // Slot n is reused after a rejected line, so it only grows when new; a
    // line's unchanged items keep what the rejected line left there.
    if (ms->observed.size() <= (size_t)n) size_arrays((size_t)n + 1, ms);
    double error_item = 0.0;
    int status = read_line_into_slot(lay, ms, n, &error_item);
    if (status == READ_BAD) {
      warn_short(c);
      continue;
    }
    const double value = ms->observed[n];
    double sigma = 0.0;
    if (lay.inverse) {
      if (lay.error_from_file) {
        sigma = std::fabs(error_item) > 0.001 ? std::fabs(error_item) : 0.001;
      } else {
        sigma = std::sqrt(ctx.a_wgt * ctx.a_wgt +
                          ((value * value) * ctx.b_wgt) * ctx.b_wgt);
      }
      ms->data_weight[n] = sigma;
    }
    check_electrodes(table, c, n, ms);
    if (!lay.inverse) {
      ++n;
      continue;
    }
    if (ctx.log_data && value == 0.0) {
      warn_short(c);
      continue;
    }
    if (ctx.qualitative) {
      ++n;
      continue;
    }
    double k = geometric_factor(mesh, table, ms->elec_m[n], ms->elec_n[n],
                                ms->elec_a[n], ms->elec_b[n], ctx.flux_type);
    double rho = k * value;
    if (rho > ctx.rho_max || rho < ctx.rho_min) {
      tio_write(CH_LOG,
                "' ', 'WARNING:  Rejecting reading ', I4, ' P+', I4, ' P-', I4,"
                " ' C+', I4, ' C-', I4, ' App Res ', F12.2",
                {wv_int(c), wv_int(ms->elec_m[n]), wv_int(ms->elec_n[n]),
                 wv_int(ms->elec_a[n]), wv_int(ms->elec_b[n]), wv_real(rho)});
      continue;
    }
    if (rho > 0.0) {
      ++positive;
      log_sum += std::log(rho);
    }
    // The weight is the reciprocal error of the fitted quantity: of the value
    // itself, or of its logarithm, whose error is sigma / |value|.
    ms->data_weight[n] = ctx.log_data ? std::fabs(value / sigma) : 1.0 / sigma;
    ++n;
  }
  const int lines = ms->measurement_capacity > 0 ? ms->measurement_capacity : 0;
  // Every line of the block has been read: the arrays take their full size.
  size_arrays((size_t)lines, ms);
  ms->num_measurements = n;
  message(CH_LOG, CH_CONSOLE,
          "/ ' ', 'Measurements read: ', I5, 5X, 'Measurements rejected: ', I5",
          {wv_int(n), wv_int(lines - n)});
  if (!ctx.qualitative && log_sum > 0.0)
    message(CH_LOG, CH_CONSOLE,
            "' ', 2X, 'Geometric mean of apparent resistivities: ', E12.5",
            {wv_real(std::exp(log_sum / positive))});
}
