// The run driver: opens the fixed files, reads the control file stage by
// stage while it builds the mesh, pattern, start model, parameter map, mask
// and electrode table, then runs the forward job or the dataset loop of the
// inverse job, and owns every exit.
#include "run/driver.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <new>
#include <vector>
#include <xmmintrin.h>

#include "data/measurement_set.h"
#include "forward/forward.h"
#include "forward/forward_output.h"
#include "inversion/inversion.h"
#include "mesh/mesh_model.h"
#include "results/model_files.h"
#include "run/control_file.h"
#include "run/run_context.h"
#include "run/timers.h"
#include "textio/textio.h"

namespace {

// Flush denormal results to zero and treat denormal inputs as zero (the FTZ
// and DAZ bits of MXCSR): the whole computation runs in this mode.
void set_floating_point_mode() { _mm_setcsr(_mm_getcsr() | 0x8040); }

void write_banner_and_date() {
  message(CH_CONSOLE, CH_LOG, "/ / 1X, A",
          {wv_text(">> Q  5    R e s i s t i v i t y  "
                   " I n v e r s i o n   v3.3 <<")});
  std::time_t now = std::time(nullptr);
  std::tm local;
  localtime_r(&now, &local);
  message(CH_CONSOLE, CH_LOG,
          "/ 1X, '>> D a t e : ', I2.2, ' - ', I2.2, ' - ', I4",
          {wv_int(local.tm_mday), wv_int(local.tm_mon + 1),
           wv_int(local.tm_year + 1900)});
}

void allocate_forward_work(RunState* s) {
  size_t n = (size_t)s->mesh.num_nodes;
  s->work.right_hand_side.assign(n, 0.0);
  s->work.primary_potential.assign(n, 0.0);
  s->work.potentials.assign(n * (size_t)s->table.num_electrodes, 0.0);
}

}  // namespace

void read_control_and_build(RunState* s) {
  RunContext* ctx = &s->ctx;
  read_title(ctx);
  read_job_record(ctx);
  read_mesh(ctx, &s->mesh);
  check_singular_and_res_calc(ctx);
  build_matrix_pattern(s->mesh, ctx->mesh_type, &s->cm);
  check_flux_type(ctx);
  if (ctx->mesh_type == 3) read_mesh_scale(ctx, &s->mesh);
  read_start_model(ctx, s->mesh, &s->log_conductivity);
  if (ctx->job_type == 1) {
    build_parameter_map(ctx, &s->mesh, s->log_conductivity, &s->map);
    read_inverse_settings(ctx);
  } else {
    ctx->qualitative = false;
  }
  read_polyline_mask(*ctx, &s->mesh, &s->mask);
  read_electrodes(*ctx, s->mesh, &s->table);
  allocate_forward_work(s);
  choose_pinned_node(ctx->mesh_type, s->table, &s->mesh);
}

int read_block_head() {
  int count = 0;
  if (tio_read(CH_PROTOCOL, READ_END_TOLERANT, {rd_int(&count)}) == READ_EOF)
    return 0;
  return count;
}

namespace {

[[noreturn]] void end_of_data() {
  message(CH_LOG, CH_CONSOLE, "/ 1X, 'End of data:  Terminating'");
  timer("stop");
  timer_report();
  tio_stop("All ok");
}

int stencil_width(const RunContext& ctx) { return ctx.quadratic_filter ? 13 : 5; }

void choose_wavenumbers(RunState* s, const MeasurementSet& ms,
                        double* wavenumbers, double* weights) {
  if (!(s->ctx.flux_type > 2.0)) return;
  double min_spacing, max_spacing;
  measurement_spacing(s->mesh, s->table, ms, &min_spacing, &max_spacing);
  wavenumber_rule(MAX_WAVENUMBERS, 0, min_spacing, max_spacing, wavenumbers,
                  weights, &s->ctx.num_wavenumbers);
}

[[noreturn]] void forward_job(RunState* s) {
  const RunContext& ctx = s->ctx;
  tio_open(CH_MODEL, "forward_model.dat");
  tio_open(CH_MODEL_VTK, "forward_model.vtk");
  write_model(s->log_conductivity.data(), s->mesh, s->mask, ctx.mesh_type,
              false, CH_MODEL, CH_MODEL_VTK, 0);
  tio_close(CH_MODEL);
  tio_close(CH_MODEL_VTK);

  int head = read_block_head();
  if (head == 0) end_of_data();
  MeasurementSet ms;
  begin_measurement_block(head, &ms);
  read_measurements(ctx, s->mesh, s->table, &ms);
  write_memory_estimate(memory_estimate_bytes(
      s->mesh.num_nodes, s->mesh.num_elements, s->cm.num_entries, 0,
      s->table.num_electrodes, head, ms.num_measurements, stencil_width(ctx),
      false));
  std::vector<double> transfer_resistance(
      ms.num_measurements > 0 ? (size_t)ms.num_measurements : 1, 0.0);

  double wavenumbers[MAX_WAVENUMBERS] = {0.0};
  double weights[MAX_WAVENUMBERS] = {0.0};
  choose_wavenumbers(s, ms, wavenumbers, weights);
  int forward_failed = 0;
  forward_solve(s->mesh, ctx.mesh_type, &s->cm, s->table, ms,
                s->log_conductivity.data(), wavenumbers, weights,
                s->ctx.num_wavenumbers, ctx.flux_type, ctx.singularity_removal,
                &s->work, transfer_resistance.data(), &forward_failed);
  timer("stop");
  timer_report();
  if (forward_failed != 0)
    fatal(CH_LOG, 0, "/ 1X, 'FATAL ERROR:  Unable to create forward solution'");
  write_forward_results(s->mesh, s->table, ms, transfer_resistance.data(),
                        ctx.flux_type);
  tio_stop("All ok");
}

// Largest spacing of electrodes adjacent in the table, along x, for the
// regularisation of a grid; the running maximum starts at -1e11, so a
// single electrode gives the square root of a negative number.
double largest_electrode_spacing(const RunState& s) {
  if (s.ctx.mesh_type != 4) return 0.0;
  double largest = -1.0e11;
  for (int k = 1; k <= s.table.num_electrodes - 1; ++k) {
    double dx = s.mesh.node_x[s.table.electrode_nodes[k] - 1] -
                s.mesh.node_x[s.table.electrode_nodes[k - 1] - 1];
    if (dx * dx > largest) largest = dx * dx;
  }
  return std::sqrt(largest);
}

void open_dataset_files(const RunContext& ctx, const char* stem) {
  char name[64];
  auto open_with = [&](int channel, const char* tail) {
    std::snprintf(name, sizeof name, "%s%s", stem, tail);
    tio_open(channel, name);
  };
  open_with(CH_MODEL, "_res.dat");
  if (ctx.qualitative) return;
  open_with(CH_MODEL_VTK, "_res.vtk");
  open_with(CH_ERROR, "_err.dat");
  if (ctx.difference_reg) open_with(CH_ITER_VTK, "_diffres.dat");
  if (ctx.res_calc == 2)
    open_with(CH_MAP, "_rad.dat");
  else if (ctx.res_calc == 1 || ctx.res_calc == 3)
    open_with(CH_MAP, "_sen.dat");
}

[[noreturn]] void inverse_job(RunState* s) {
  const RunContext& ctx = s->ctx;
  s->electrode_spacing = largest_electrode_spacing(*s);
  if (!ctx.qualitative)
    build_regularisation(ctx, s->mesh, ctx.mesh_type, s->map.num_parameters,
                         &s->regularisation);
  const InverseRun run{&s->ctx,  &s->mesh, &s->cm,
                       &s->table, &s->map, &s->mask,
                       &s->regularisation, &s->work,
                       s->log_conductivity.data()};
  int dataset_number = 0;
  MeasurementSet ms;
  for (;;) {
    // Every dataset starts again from the start model.
    scatter_parameters(s->mesh, s->map.start_parameters.data(),
                       s->log_conductivity.data());
    ++dataset_number;
    message(CH_LOG, CH_CONSOLE, "/ / 1X, 'Processing dataset ', I3 /",
            {wv_int(dataset_number)});
    int head = read_block_head();
    if (head == 0) end_of_data();
    begin_measurement_block(head, &ms);
    read_measurements(ctx, s->mesh, s->table, &ms);
    if (dataset_number == 1)
      write_memory_estimate(memory_estimate_bytes(
          s->mesh.num_nodes, s->mesh.num_elements, s->cm.num_entries,
          s->map.num_parameters, s->table.num_electrodes, head,
          ms.num_measurements, stencil_width(ctx), true));
    char stem[8];
    dataset_stem(dataset_number, stem);
    open_dataset_files(ctx, stem);
    double wavenumbers[MAX_WAVENUMBERS] = {0.0};
    double weights[MAX_WAVENUMBERS] = {0.0};
    choose_wavenumbers(s, ms, wavenumbers, weights);
    invert_dataset(run, &ms, wavenumbers, weights, s->ctx.num_wavenumbers, stem);
  }
}

// Arrays are sized by counts read from the files: a count too large for the
// machine ends the run with a message instead of an abort.
void out_of_memory() {
  std::set_new_handler(nullptr);
  fatal(CH_LOG, CH_CONSOLE,
        "1X, 'FATAL: not enough memory for the arrays of this run'");
}

}  // namespace

void run_q5() {
  set_floating_point_mode();
  std::set_new_handler(out_of_memory);
  timer("init");
  tio_open(CH_CONTROL, "Q5.in");
  tio_open(CH_PROTOCOL, "protocol.dat");
  tio_open(CH_ELECTRODES, "electrodes.dat");
  tio_open(CH_ELECTRODES_VTK, "electrodes.vtk");
  tio_open(CH_LOG, "Q5.out");
  write_banner_and_date();

  static RunState state;
  read_control_and_build(&state);
  if (state.ctx.job_type == 0) forward_job(&state);
  inverse_job(&state);
}
