// Outer iteration of one dataset: the background run of a difference
// inversion, the Gauss-Newton iterations with their step search and data
// weight update, the nine ways a dataset ends with the files each writes,
// the qualitative one-pass map, and the maps that follow convergence.
#include <cmath>
#include <cstddef>

#include "data/measurement_set.h"
#include "forward/forward.h"
#include "inversion/dataset_state.h"
#include "inversion/solver_kernels.h"
#include "mesh/mesh_model.h"
#include "results/data_files.h"
#include "results/model_files.h"
#include "run/control_file.h"
#include "run/memory_guard.h"
#include "run/run_context.h"
#include "textio/textio.h"

namespace {

// Threshold in percent of the improvement test with fixed weights. No input
// sets it, and at 0 the test never fires, since an accepted step always
// improves; it stays a named value so that the test and its words exist.
const double min_improvement = 0.0;

// -log10(1.7): the alpha decay exponent is this over log10 of the first
// misfit, so that the next start alpha is alpha / 2 at a misfit of 1 and
// 0.85 alpha at the misfit of iteration 1.
const double alpha_decay_scale = -0.2304489213782739;

// The ways a dataset ends.
enum DatasetEnd {
  END_JACOBIAN_FAILED = 1,  // X1
  END_INITIAL_FIT,          // X2: the start model already fits
  END_NO_TRIAL,             // X3
  END_CONVERGED,            // X4
  END_NOT_IMPROVED,         // X5
  END_ITERATION_LIMIT,      // X6
  END_WEIGHTS_CONVERGED,    // X7
  END_STEP_TOO_SMALL,       // X8
  END_HALVING_FAILED,       // X9
  END_NONE = 0
};

void allocate_dataset(DatasetState* st) {
  const std::size_t n = static_cast<std::size_t>(st->n);
  const std::size_t P = static_cast<std::size_t>(st->P);
  // J dominates: n * P doubles, with a handful of vectors beside it.
  require_memory(8.0 * (double)n * (double)P + 80.0 * (double)(n + P),
                 "the Jacobian of this dataset");
  st->c.assign(n, 0.0);
  st->c_best.assign(n, 0.0);
  st->e.assign(n, 0.0);
  st->W0.assign(st->ms->data_weight.begin(), st->ms->data_weight.begin() + n);
  st->W_candidate.assign(n, 0.0);
  st->background.assign(n, 0.0);
  st->flags.assign(n, 0u);
  st->J.assign(n * P, 0.0);
  allocate_solver_work(st->P, st->n, &st->solver);
  const std::vector<double>& m0 = st->run->map->start_parameters;
  st->m.assign(m0.begin(), m0.end());
  st->m_trial.assign(m0.begin(), m0.end());
  st->dm.assign(P, 0.0);
  st->dm_best.assign(P, 0.0);
  st->scale.assign(P, 1.0);
  st->element_values.assign(
      static_cast<std::size_t>(st->run->forward.mesh->num_elements), 0.0);
}

// ---- files of the ends -----------------------------------------------------

void write_final_model(DatasetState* st) {
  const InverseRun& run = *st->run;
  write_model(run.log_conductivity, *run.forward.mesh, *run.mask,
              run.ctx->mesh_type, false, CH_MODEL, CH_MODEL_VTK, 1);
}

void write_errors(DatasetState* st, const double* final_weights) {
  const InverseRun& run = *st->run;
  write_error_table(*run.forward.mesh, *run.forward.table, *st->ms,
                    st->ms->observed.data(), st->c.data(), final_weights,
                    st->W0.data(), st->flags.data(), run.ctx->flux_type,
                    run.ctx->log_data);
}

// The change of resistivity in percent against the start model, element by
// element (0 where there is no parameter), as a table and a VTK scalar.
void write_difference_output(DatasetState* st) {
  const InverseRun& run = *st->run;
  if (!run.ctx->difference_reg) return;
  const double* m0 = run.map->start_parameters.data();
  for (int e = 0; e < run.forward.mesh->num_elements; ++e) {
    const int p = run.forward.mesh->element_parameter[e];
    double percent = 0.0;
    if (p != 0) {
      const double now = std::exp(-st->m_trial[p - 1]);
      const double start = std::exp(-m0[p - 1]);
      percent = 100.0 * (now - start) / start;
    }
    st->element_values[e] = percent;
  }
  write_difference(st->element_values.data(), *run.forward.mesh, *run.mask,
                   run.ctx->mesh_type);
}

void close_resolution_table(const RunContext& ctx) {
  if (ctx.res_calc == 2) tio_close(CH_MAP);
}

void say_outputting(const char* form) { message(CH_CONSOLE, CH_LOG, form); }

// The sensitivity or resolution map of a converged dataset from the J of
// its last iteration and the weights it holds, appended to _res.vtk.
void write_post_maps(DatasetState* st) {
  const InverseRun& run = *st->run;
  const RunContext& ctx = *run.ctx;
  if (!ctx.want_post_calc) return;
  std::vector<double>& map = st->m_trial;  // no longer needed as a vector
  const NormalEquations eq = normal_equations(st, st->alpha);
  if (ctx.want_sensitivity) {
    message(CH_CONSOLE, CH_LOG, "/ ' ', 'Calculating sensitivity map'");
    sensitivity_map(eq, map.data());
  } else {
    message(CH_CONSOLE, CH_LOG, "/ ' ', 'Calculating resolution matrix'");
    int failures = 0;
    double worst = 0.0;  // kept by the solver, not reported
    resolution_map(eq, &st->solver, map.data(), &failures, &worst);
    if (failures != 0)
      message(CH_LOG, 0,
              "' ', 4X, 'WARNING: In resolution matrix calc the solution "
              "failed to converge ', I5, ' times'",
              {wv_int(failures)});
  }
  // Elements outside the inversion show 1, whose logarithm is 0.
  for (int e = 0; e < run.forward.mesh->num_elements; ++e) {
    const int p = run.forward.mesh->element_parameter[e];
    st->element_values[e] = p == 0 ? 1.0 : map[p - 1];
  }
  write_model(st->element_values.data(), *run.forward.mesh, *run.mask,
              ctx.mesh_type, true, CH_MAP, CH_MODEL_VTK,
              ctx.want_sensitivity ? CONTENT_SENSITIVITY : CONTENT_RESOLUTION);
  tio_close(CH_MODEL_VTK);
  if (ctx.want_matrix_dump)
    write_matrix_dumps(st->dataset, run.C->values.data(), run.C->index.data(),
                       st->P, run.C->width, st->J.data(), st->n);
  tio_close(CH_MAP);
}

// Words and files of each end, in the order each writes them.
void end_dataset(DatasetState* st, DatasetEnd how) {
  const RunContext& ctx = *st->run->ctx;
  const double* W = st->ms->data_weight.data();
  switch (how) {
    case END_JACOBIAN_FAILED:
      say_outputting("/ ' ', 'Jacobian failure - Outputing results to file'");
      write_final_model(st);
      tio_close(CH_MODEL);
      tio_close(CH_ERROR);
      tio_close(CH_MODEL_VTK);
      break;
    case END_INITIAL_FIT:
      message(CH_CONSOLE, CH_LOG,
              "' ', 4X, 'FATAL:  Initial RMS shows solution !', /, ' ', 8X, "
              "'Your error estimates (a_wgt and b_wgt are too high)'");
      tio_close(CH_MODEL);
      tio_close(CH_ERROR);
      close_resolution_table(ctx);
      break;
    case END_NO_TRIAL:
    case END_HALVING_FAILED:
      say_outputting("/ ' ', 'Solution failure - Outputing results to file'");
      write_final_model(st);
      tio_close(CH_MODEL);
      tio_close(CH_MODEL_VTK);
      if (how == END_HALVING_FAILED && ctx.difference_reg) tio_close(CH_ITER_VTK);
      write_errors(st, W);
      tio_close(CH_ERROR);
      close_resolution_table(ctx);
      break;
    case END_CONVERGED:
    case END_WEIGHTS_CONVERGED:
      say_outputting("/ ' ', 'Solution converged - Outputing results to file'");
      write_final_model(st);
      tio_close(CH_MODEL);
      // With a map to come the VTK file stays open for its scalar.
      if (!ctx.want_post_calc) tio_close(CH_MODEL_VTK);
      // At the overshoot of the weight update the candidate weights are the
      // final ones of the table.
      write_errors(st, how == END_WEIGHTS_CONVERGED ? st->W_candidate.data() : W);
      tio_close(CH_ERROR);
      write_difference_output(st);
      write_post_maps(st);
      break;
    case END_NOT_IMPROVED:
      say_outputting("/ ' ', 'Solution not improved - Outputing results to file'");
      write_final_model(st);
      write_errors(st, W);
      tio_close(CH_ERROR);
      tio_close(CH_MODEL);
      write_difference_output(st);
      tio_close(CH_MODEL_VTK);
      close_resolution_table(ctx);
      break;
    case END_ITERATION_LIMIT:
      message(CH_LOG, CH_CONSOLE,
              "/ ' ', 4X, 'WARNING: Solution not converged in ', I3, "
              "' iterations'",
              {wv_int(st->iteration)});
      write_final_model(st);
      tio_close(CH_MODEL);
      write_errors(st, W);
      tio_close(CH_ERROR);
      write_difference_output(st);
      tio_close(CH_MODEL_VTK);
      close_resolution_table(ctx);
      break;
    case END_STEP_TOO_SMALL:
      say_outputting("' ', 'Step length too small - Outputing results to file'");
      st->m_trial = st->m;
      scatter_parameters(*st->run->forward.mesh, st->m_trial.data(),
                         st->run->log_conductivity);
      write_final_model(st);
      tio_close(CH_MODEL);
      tio_close(CH_MODEL_VTK);
      write_errors(st, W);
      tio_close(CH_ERROR);
      close_resolution_table(ctx);
      break;
    case END_NONE:
      break;
  }
}

// ---- one iteration ---------------------------------------------------------------

// Residuals of the iteration: all flags cleared, then with log data a ratio
// c / d that is not positive has no logarithm and its measurement leaves
// the iteration, row of J included.
void residual_pass(DatasetState* st) {
  const double* d = st->ms->observed.data();
  const bool log_data = st->run->ctx->log_data;
  st->num_ignored = 0;
  for (int i = 0; i < st->n; ++i) {
    st->flags[i] = 0u;
    if (!log_data) {
      st->e[i] = d[i] - st->c[i];
      continue;
    }
    const double t = st->c[i] / d[i];
    if (t <= 0.0) {
      st->e[i] = 0.0;
      st->flags[i] = MEASUREMENT_IGNORED;
      st->num_ignored += 1;
      for (int p = 0; p < st->P; ++p)
        st->J[static_cast<std::size_t>(p) * st->n + i] = 0.0;
    } else {
      st->e[i] = std::log(t);
    }
  }
}

// Iteration 1: the column sums S_j = sum J(i, j)^2 W(i)^2 give the parameter
// scale, the start alpha and the decay exponent of later iterations.
void first_alpha(DatasetState* st) {
  const RunContext& ctx = *st->run->ctx;
  double* S = st->scale.data();
  column_squares(st->J.data(), st->ms->data_weight.data(), st->n, st->P, S);
  double largest = 0.0;
  for (int j = 0; j < st->P; ++j) {
    if (S[j] > largest) largest = S[j];
    S[j] = std::pow(S[j], ctx.scale_exponent);
  }
  st->alpha_start = ctx.alpha_max < largest ? ctx.alpha_max : largest;
  st->decay = alpha_decay_scale / std::log10(st->rms);
}

// The data weight update after an iteration that neither converged nor
// reached its limit: weighted residuals above 4 RMS are clipped
// (weight_update 1) or weights fall as the inverse square root of the
// weighted residual against its mean level (above 1). Commits only if the
// misfit under the new weights stays above the tolerance; returns true when
// it did not, which counts as convergence.
bool update_weights(DatasetState* st) {
  const RunContext& ctx = *st->run->ctx;
  const double* d = st->ms->observed.data();
  const double* c = st->c.data();
  double* W = st->ms->data_weight.data();
  double* Wc = st->W_candidate.data();
  const bool log_data = ctx.log_data;
  auto residual = [&](int i) {
    return log_data ? std::log(c[i] / d[i]) : d[i] - c[i];
  };
  for (int i = 0; i < st->n; ++i) Wc[i] = W[i];
  if (ctx.weight_update == 1) {
    const double limit = 4.0 * st->rms;
    for (int i = 0; i < st->n; ++i) {
      if (log_data && (st->flags[i] & 1u)) continue;
      const double r = residual(i);
      if (std::fabs(Wc[i] * r) > limit) Wc[i] = std::fabs(limit / r);
    }
  } else {
    // A zero weighted residual adds nothing to B and keeps its weight.
    double A = 0.0, B = 0.0;
    for (int i = 0; i < st->n; ++i) {
      if (st->flags[i] & 1u) continue;
      const double r = residual(i);
      const double a = std::fabs(Wc[i] * r);
      A = A + a;
      if (a != 0.0) B = B + std::fabs((Wc[i] / std::sqrt(a)) * r);
    }
    for (int i = 0; i < st->n; ++i) {
      if (st->flags[i] & 1u) continue;
      const double a = std::fabs(W[i] * residual(i));
      if (a == 0.0) continue;
      const double candidate = W[i] / (std::sqrt(a) * (B / A));
      if (candidate < Wc[i]) Wc[i] = candidate;
    }
  }
  st->rms = misfit(st, Wc);
  if (st->rms <= ctx.tolerance) {
    message(CH_LOG, CH_CONSOLE,
            "' ', 4X, 'Attempted to update data weights and caused', "
            "' overshoot', /, ' ', 4X, 'treating as converged'");
    return true;
  }
  for (int i = 0; i < st->n; ++i) W[i] = Wc[i];
  message(CH_LOG, CH_CONSOLE, "' ', 4X, 'Updated data weights'");
  return false;
}

// The per-iteration model files fDDD.III_res.dat and fDDD.III_res.vtk.
void write_iteration_files(DatasetState* st) {
  const InverseRun& run = *st->run;
  char name[DATASET_NAME_SIZE];
  dataset_file_name(st->dataset, st->iteration, "_res.dat", name);
  tio_open(CH_ITER_TABLE, name);
  dataset_file_name(st->dataset, st->iteration, "_res.vtk", name);
  tio_open(CH_ITER_VTK, name);
  write_model(run.log_conductivity, *run.forward.mesh, *run.mask,
              run.ctx->mesh_type, false, CH_ITER_TABLE, CH_ITER_VTK, -1);
  tio_close(CH_ITER_TABLE);
  tio_close(CH_ITER_VTK);
}

// The qualitative map in one pass: each column of J normalised by its sum
// of magnitudes, applied to the log data ratio (or the log data alone).
void qualitative_map(DatasetState* st) {
  const InverseRun& run = *st->run;
  const double* d = st->ms->observed.data();
  const bool data_alone = run.ctx->qualitative_flag;
  for (int j = 0; j < st->P; ++j) {
    double* column = st->J.data() + static_cast<std::size_t>(j) * st->n;
    double total = 0.0;
    for (int i = 0; i < st->n; ++i) total = total + std::fabs(column[i]);
    double sum = 0.0;
    for (int i = 0; i < st->n; ++i) {
      column[i] = column[i] / total;
      const double q = data_alone ? std::log(d[i]) : std::log(d[i] / st->c[i]);
      sum = sum + column[i] * q;
    }
    st->m_trial[j] = -sum;
  }
  // Elements outside the inversion have no value of their own here: 0.
  for (int e = 0; e < run.forward.mesh->num_elements; ++e) {
    const int p = run.forward.mesh->element_parameter[e];
    st->element_values[e] = p == 0 ? 0.0 : st->m_trial[p - 1];
  }
  write_model(st->element_values.data(), *run.forward.mesh, *run.mask,
              run.ctx->mesh_type, true, CH_MODEL, CH_MODEL_VTK, 1);
  tio_close(CH_MODEL);
  tio_close(CH_MODEL_VTK);
}

// From the Jacobian's data to the accepted step of the iteration (steps up
// to the final misfit). Returns the end it met, or END_NONE.
DatasetEnd search_step(DatasetState* st) {
  const RunContext& ctx = *st->run->ctx;
  residual_pass(st);
  st->rms = misfit(st, st->ms->data_weight.data());
  st->rms_old = st->rms;
  message(CH_CONSOLE, CH_LOG,
          "' ', '    Initial RMS Misfit: ', F12.2, 5X, "
          "'Number of data ignored: ', I5",
          {wv_real(st->rms), wv_int(st->num_ignored)});
  if (st->iteration == 1) {
    if (st->rms < ctx.tolerance) return END_INITIAL_FIT;
    first_alpha(st);
  } else {
    st->alpha_start = std::pow(st->rms, -st->decay) * st->alpha * 0.5;
  }
  st->dlog = 3.0 / (ctx.alpha_trials - 1);
  const double lowered = (1.0 - ctx.target_decrease) * st->rms;
  st->target = lowered > ctx.tolerance ? lowered : ctx.tolerance;

  alpha_search(st);
  st->dm = st->dm_best;
  st->c = st->c_best;
  if (st->best < 0.0) return END_NO_TRIAL;
  st->rms = st->best;
  st->alpha = st->best_alpha;
  st->step = 1.0;
  if (st->best < st->rms_old) {
    message(CH_CONSOLE, CH_LOG, "' ', 4X, 'Step length set to', F10.5",
            {wv_real(1.0)});
    for (int j = 0; j < st->P; ++j) st->m_trial[j] = st->m[j] + st->dm[j];
    scatter_parameters(*st->run->forward.mesh, st->m_trial.data(),
                       st->run->log_conductivity);
  } else {
    StepOutcome outcome = step_halving(st);
    if (outcome == STEP_TOO_SMALL) return END_STEP_TOO_SMALL;
    if (outcome == STEP_FORWARD_FAILED) return END_HALVING_FAILED;
  }
  message(CH_CONSOLE, CH_LOG, "' ', 4X, 'Final RMS Misfit:', F12.2",
          {wv_real(st->rms)});
  return END_NONE;
}

// The tests after the step: convergence, improvement, iteration limit and
// the weight update. Returns the end they reach, or END_NONE.
DatasetEnd check_iteration(DatasetState* st) {
  const RunContext& ctx = *st->run->ctx;
  if (st->rms < ctx.tolerance) {
    tolerance_refinement(st);
    return END_CONVERGED;
  }
  if (ctx.weight_update < 1) {
    if (st->iteration >= 2 &&
        (st->rms_old - st->rms) * 100.0 / st->rms_old < min_improvement)
      return END_NOT_IMPROVED;
    if (st->iteration == ctx.max_iterations) return END_ITERATION_LIMIT;
    return END_NONE;
  }
  if (st->iteration == ctx.max_iterations) return END_ITERATION_LIMIT;
  return update_weights(st) ? END_WEIGHTS_CONVERGED : END_NONE;
}

// One iteration from its Jacobian to the adoption of its model. Returns the
// end of the dataset it met, or END_NONE to go on.
DatasetEnd iterate(DatasetState* st) {
  const InverseRun& run = *st->run;
  const RunContext& ctx = *run.ctx;
  st->iteration += 1;
  if (!ctx.qualitative)
    message(CH_CONSOLE, CH_LOG, "/ ' ', '  Iteration ', I3",
            {wv_int(st->iteration)});
  const ParameterModel model{run.log_conductivity, st->m.data(), st->P};
  if (compute_jacobian(run.forward, *st->ms, model, st->quadrature,
                       ctx.log_data, run.team, st->J.data(), st->c.data()) != 0)
    return END_JACOBIAN_FAILED;
  if (ctx.difference_reg)
    for (int i = 0; i < st->n; ++i) st->c[i] = st->c[i] - st->background[i];
  if (ctx.qualitative) {
    qualitative_map(st);
    return END_NONE;
  }
  // Until a trial is accepted the best data are those of the start model.
  if (st->iteration == 1) st->c_best = st->c;

  DatasetEnd end = search_step(st);
  if (end == END_NONE) end = check_iteration(st);
  if (end != END_NONE) return end;
  st->m = st->m_trial;
  write_iteration_files(st);
  return END_NONE;
}

// Data of the start model, which a difference inversion subtracts from
// every calculated datum. A failure here ends the run.
void background_run(DatasetState* st) {
  const InverseRun& run = *st->run;
  if (forward_solve(run.forward, *st->ms, run.log_conductivity,
                    st->quadrature, run.team, st->background.data()) == 0)
    return;
  message(CH_CONSOLE, CH_LOG,
          "/ ' ', 'Forward solution error using background data - exiting'");
  tio_close(CH_MODEL);
  tio_close(CH_ERROR);
  tio_stop("FATAL error");
}

}  // namespace

void scatter_parameters(const MeshModel& mesh, const double* v,
                        double* log_conductivity) {
  for (int e = 0; e < mesh.num_elements; ++e) {
    const int p = mesh.element_parameter[e];
    if (p != 0) log_conductivity[e] = v[p - 1];
  }
}

void invert_dataset(const InverseRun& run, MeasurementSet* ms,
                    const Quadrature& q, int dataset) {
  DatasetState st{};
  st.run = &run;
  st.ms = ms;
  st.quadrature = q;
  st.n = ms->num_measurements;
  st.P = run.map->num_parameters;
  st.dataset = dataset;
  allocate_dataset(&st);
  // A difference inversion fits the change of the data from the reference.
  if (run.ctx->difference_reg)
    for (int i = 0; i < st.n; ++i)
      ms->observed[i] = ms->observed[i] - ms->reference[i];
  if (run.ctx->difference_reg) background_run(&st);
  st.iteration = 0;
  st.alpha = run.ctx->alpha_max;
  for (;;) {
    DatasetEnd end = iterate(&st);
    if (run.ctx->qualitative && end == END_NONE) return;
    if (end != END_NONE) {
      end_dataset(&st, end);
      return;
    }
  }
}
