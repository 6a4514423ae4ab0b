// Step search of one iteration: the ladder of trial regularisation weights,
// the halving of a step that did not improve the misfit, and the
// refinement that brings a step that overshot the tolerance back to it.
#include <cmath>
#include <cstddef>

#include "data/measurement_set.h"
#include "forward/forward.h"
#include "inversion/dataset_state.h"
#include "mesh/mesh_model.h"
#include "run/run_context.h"
#include "textio/textio.h"

namespace {

// Margin above the tolerance within which a refined step is taken: 1.1 in
// single precision, widened.
const double refinement_margin = 1.100000023841858;

void accept_trial(DatasetState* st, double R, double trial_alpha) {
  st->best = R;
  st->best_alpha = trial_alpha;
  st->c_best = st->c;
  st->dm_best = st->dm;
}

void print_step_length(int first, int second, double s) {
  message(first, second, "' ', 4X, 'Step length set to', F10.5",
          {wv_real(s)});
}

void print_aborting() {
  message(CH_CONSOLE, CH_LOG, "/ ' ', 'Aborting refinement of step length'");
}

}  // namespace

int forward_trial(DatasetState* st, bool full_step, double s) {
  const InverseRun& run = *st->run;
  for (int j = 0; j < st->P; ++j)
    st->m_trial[j] = full_step ? st->m[j] + st->dm[j] : st->m[j] + s * st->dm[j];
  scatter_parameters(*run.forward.mesh, st->m_trial.data(),
                     run.log_conductivity);
  const int failed = forward_solve(run.forward, *st->ms, run.log_conductivity,
                                   st->quadrature, run.team, st->c.data());
  // A difference run fits (d - d_ref) against (f(m) - f(m0)).
  if (failed == 0 && run.ctx->difference_reg)
    for (int i = 0; i < st->n; ++i) st->c[i] = st->c[i] - st->background[i];
  return failed;
}

NormalEquations normal_equations(const DatasetState* st, double alpha) {
  const InverseRun& run = *st->run;
  const RunContext& ctx = *run.ctx;
  return NormalEquations{st->J.data(),
                         st->ms->data_weight.data(),
                         st->e.data(),
                         st->m.data(),
                         run.map->start_parameters.data(),
                         st->scale.data(),
                         run.C,
                         alpha,
                         ctx.joint_weight,
                         ctx.difference_reg,
                         ctx.joint_reg,
                         st->n,
                         st->P};
}

double misfit(DatasetState* st, const double* W) {
  return rms(st->c.data(), st->ms->observed.data(), W, st->flags.data(), st->n,
             &st->num_ignored, st->run->ctx->log_data);
}

// Trials from alpha_start downward, dlog decades apart: each one inner
// solve and one forward run. With a target decrease the largest alpha that
// reaches the target wins; without one the search follows the misfit down
// until it rises or passes the tolerance.
void alpha_search(DatasetState* st) {
  const RunContext& ctx = *st->run->ctx;
  const double* W = st->ms->data_weight.data();
  st->best = -1.0;
  int trials = ctx.alpha_trials;
  double dlog = st->dlog;
  if (std::fabs(dlog) <= 0.001 || trials <= 1) {
    trials = 1;
    dlog = 0.0;
  }
  for (int i = 0; i < trials; ++i) {
    const double trial_alpha =
        std::pow(10.0, std::log10(st->alpha_start) - i * dlog);
    double result = 0.0;
    int not_converged = 0;
    inner_solve(normal_equations(st, trial_alpha), &st->solver, st->dm.data(),
                &result, &not_converged);
    if (not_converged)
      message(CH_LOG, 0,
              "' ', 4X, 'WARNING: managed to achieve CG tolerance of: ', E10.3",
              {wv_real(result)});
    if (forward_trial(st, true, 1.0) != 0) {
      message(CH_CONSOLE, CH_LOG,
              "' ', 4X, 'Alpha: ', F10.3, '   Singular martix', "
              "' in forward - rejecting'",
              {wv_real(trial_alpha)});
      continue;
    }
    const double R = misfit(st, W);
    message(CH_CONSOLE, CH_LOG, "' ', 4X, 'Alpha: ', F10.3, '   RMS Misfit:', F12.2",
            {wv_real(trial_alpha), wv_real(R)});
    if (ctx.target_decrease != 0.0) {
      if (st->target <= R) continue;
      accept_trial(st, R, trial_alpha);
      return;
    }
    if (st->best == -1.0 || R < st->best) {
      accept_trial(st, R, trial_alpha);
      if (R < ctx.tolerance) return;
    } else {
      return;  // the misfit has stopped falling
    }
  }
}

// The full step of the best alpha did not improve on the iteration's start:
// halve it until it does, or until it is shorter than min_step.
StepOutcome step_halving(DatasetState* st) {
  const double* W = st->ms->data_weight.data();
  for (;;) {
    st->step = st->step * 0.5;
    if (st->step < st->run->ctx->min_step) return STEP_TOO_SMALL;
    if (forward_trial(st, false, st->step) != 0) return STEP_FORWARD_FAILED;
    st->rms = misfit(st, W);
    if (st->rms < st->rms_old) {
      print_step_length(CH_CONSOLE, CH_LOG, st->step);
      return STEP_OK;
    }
  }
}

bool step_fit(double lower, double s2, double s1, double* M0, double* M2,
              double* M1, double tol, double* s3) {
  *M0 = *M0 - tol;
  *M1 = *M1 - tol;
  *M2 = *M2 - tol;
  if (*M1 > *M2) return false;
  const double a = *M0, b = *M1, c = *M2;
  const double q2 = ((s2 / s1) * (b - a) - c + a) / ((s1 - s2) * s2);
  const double q1 = (c - a) / s2 - s2 * q2;
  const double discriminant = q1 * q1 - 4.0 * a * q2;
  if (discriminant < 0.0) return false;
  const double sq = std::sqrt(discriminant);
  const double z1 = (sq - q1) / (2.0 * q2);
  const double z2 = -(q1 + sq) / (2.0 * q2);
  if (lower < z1 && z1 < s1) {
    *s3 = z1;
    return true;
  }
  if (lower < z2 && z2 < s1) {
    *s3 = z2;
    return true;
  }
  return false;
}

// The accepted step s1 fits better than the tolerance: aim at a model that
// fits to the tolerance and no better, from the linear estimate s2 and a
// quadratic through the misfits at 0, s2 and s1. If that fails, the model
// returns to s1 while c stays that of the last forward run.
void tolerance_refinement(DatasetState* st) {
  const double tol = st->run->ctx->tolerance;
  const double* W = st->ms->data_weight.data();
  const double s1 = st->step;
  double M1 = st->rms;
  double M0 = st->rms_old;
  const double s2 = (M0 - tol) * s1 / (M0 - M1);
  bool failed = false;
  double s3 = s1;
  if (forward_trial(st, false, s2) != 0) {
    print_aborting();
    failed = true;
  } else {
    double M2 = misfit(st, W);
    if (!step_fit(0.0, s2, s1, &M0, &M2, &M1, tol, &s3)) {
      message(CH_CONSOLE, CH_LOG,
              "/ ' ', 'Cannot fit quadratic through step lengths'");
      s3 = s1;
    }
    if (forward_trial(st, false, s3) != 0) {
      print_aborting();
      failed = true;
    } else {
      st->rms = misfit(st, W);
    }
  }
  if (failed || st->rms > tol * refinement_margin) {
    for (int j = 0; j < st->P; ++j) st->m_trial[j] = st->m[j] + s1 * st->dm[j];
    scatter_parameters(*st->run->forward.mesh, st->m_trial.data(),
                       st->run->log_conductivity);
    return;
  }
  print_step_length(CH_LOG, 0, s3);
  message(CH_CONSOLE, CH_LOG, "' ', 4X, 'Final RMS Misfit:', F12.2",
          {wv_real(st->rms)});
}
