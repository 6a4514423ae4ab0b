// The run driver: opens the fixed files, reads the control file while it
// builds the mesh, pattern, model, map, mask and electrodes, then runs the
// forward job or the inverse job's dataset loop, and owns every exit.
#include "run/driver.h"

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
#include "run/threads.h"
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

[[noreturn]] void end_of_data() {
  message(CH_LOG, CH_CONSOLE, "/ 1X, 'End of data:  Terminating'");
  timer("stop");
  timer_report();
  tio_stop("All ok");
}

int stencil_width(const RunContext& ctx) { return ctx.quadratic_filter ? 13 : 5; }

[[noreturn]] void forward_job(RunState* s) {
  const RunContext& ctx = s->ctx;
  write_forward_model(*s);

  int head = read_block_head();
  if (head == 0) end_of_data();
  MeasurementSet ms;
  read_block(*s, head, &ms);
  write_memory_estimate(memory_estimate_bytes(
      s->mesh.num_nodes, s->mesh.num_elements, s->pattern.num_entries, 0,
      s->table.num_electrodes, head, ms.num_measurements, stencil_width(ctx),
      false));
  std::vector<double> transfer_resistance(
      ms.num_measurements > 0 ? (size_t)ms.num_measurements : 1, 0.0);

  double wavenumbers[MAX_WAVENUMBERS] = {0.0};
  double weights[MAX_WAVENUMBERS] = {0.0};
  const Quadrature q = choose_wavenumbers(s, ms, wavenumbers, weights);
  const int forward_failed =
      forward_solve(forward_mesh(*s), ms, s->log_conductivity.data(), q,
                    &s->team, transfer_resistance.data());
  timer("stop");
  timer_report();
  if (forward_failed != 0)
    fatal(CH_LOG, 0, "/ 1X, 'FATAL ERROR:  Unable to create forward solution'");
  write_forward_results(s->mesh, s->table, ms, transfer_resistance.data(),
                        ctx.flux_type);
  tio_stop("All ok");
}

void open_dataset_files(const RunContext& ctx, int dataset) {
  char name[DATASET_NAME_SIZE];
  auto open_with = [&](int channel, const char* tail) {
    dataset_file_name(dataset, 0, tail, name);
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
  if (!ctx.qualitative)
    build_regularisation(ctx, s->mesh, ctx.mesh_type, s->map.num_parameters,
                         &s->regularisation);
  const InverseRun run{&s->ctx,           forward_mesh(*s),
                       &s->map,           &s->mask,
                       &s->regularisation, &s->team,
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
    read_block(*s, head, &ms);
    if (dataset_number == 1)
      write_memory_estimate(memory_estimate_bytes(
          s->mesh.num_nodes, s->mesh.num_elements, s->pattern.num_entries,
          s->map.num_parameters, s->table.num_electrodes, head,
          ms.num_measurements, stencil_width(ctx), true));
    open_dataset_files(ctx, dataset_number);
    double wavenumbers[MAX_WAVENUMBERS] = {0.0};
    double weights[MAX_WAVENUMBERS] = {0.0};
    const Quadrature q = choose_wavenumbers(s, ms, wavenumbers, weights);
    invert_dataset(run, &ms, q, dataset_number);
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

void start_run() {
  set_floating_point_mode();
  std::set_new_handler(out_of_memory);
  timer("init");
  tio_open(CH_CONTROL, "Q5.in");
  tio_open(CH_PROTOCOL, "protocol.dat");
  tio_open(CH_ELECTRODES, "electrodes.dat");
  tio_open(CH_ELECTRODES_VTK, "electrodes.vtk");
  tio_open(CH_LOG, "Q5.out");
  write_banner_and_date();
  // One thread, the default, adds no line: its output stays as it was.
  const int threads = start_threads_from_environment();
  if (threads != 1)
    message(CH_CONSOLE, CH_LOG, "1X, '>> T h r e a d s : ', I3",
            {wv_int(threads)});
}

void read_control_and_build(RunState* s) {
  RunContext* ctx = &s->ctx;
  read_title(ctx);
  read_job_record(ctx);
  read_mesh(ctx, &s->mesh);
  check_singular_and_res_calc(ctx);
  s->team.work.resize(1);
  build_matrix_pattern(s->mesh, ctx->mesh_type, &s->pattern, &s->team.work[0]);
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
  allocate_forward_vectors(s->mesh.num_nodes, s->table.num_electrodes,
                           &s->team.work[0]);
  allocate_forward_team(thread_count(), s->mesh, &s->team);
  choose_pinned_node(ctx->mesh_type, s->table, &s->mesh);
}

ForwardMesh forward_mesh(const RunState& s) {
  return ForwardMesh{&s.mesh, s.ctx.mesh_type, &s.pattern, &s.table};
}

void write_forward_model(const RunState& s) {
  tio_open(CH_MODEL, "forward_model.dat");
  tio_open(CH_MODEL_VTK, "forward_model.vtk");
  write_model(s.log_conductivity.data(), s.mesh, s.mask, s.ctx.mesh_type,
              false, CH_MODEL, CH_MODEL_VTK, 0);
  tio_close(CH_MODEL);
  tio_close(CH_MODEL_VTK);
}

int read_block_head() {
  int count = 0;
  if (tio_read(CH_PROTOCOL, READ_END_TOLERANT, {rd_int(&count)}) == READ_EOF)
    return 0;
  return count;
}

void read_block(const RunState& s, int head, MeasurementSet* ms) {
  begin_measurement_block(head, ms);
  read_measurements(s.ctx, s.mesh, s.table, ms);
}

Quadrature choose_wavenumbers(RunState* s, const MeasurementSet& ms,
                              double* wavenumbers, double* weights) {
  if (s->ctx.flux_type > 2.0) {
    double min_spacing, max_spacing;
    measurement_spacing(s->mesh, s->table, ms, &min_spacing, &max_spacing);
    wavenumber_rule(MAX_WAVENUMBERS, min_spacing, max_spacing, wavenumbers,
                    weights, &s->ctx.num_wavenumbers);
  }
  return Quadrature{wavenumbers, weights, s->ctx.num_wavenumbers,
                    s->ctx.flux_type, s->ctx.singularity_removal, 0.0};
}

void run_q5() {
  start_run();
  static RunState state;
  read_control_and_build(&state);
  if (state.ctx.job_type == 0) forward_job(&state);
  inverse_job(&state);
}
