// The state of one dataset's inversion, shared by the outer iteration and
// the step search inside the inversion subsystem.
#pragma once

#include <vector>

#include "inversion/inversion.h"

struct DatasetState {
  const InverseRun* run;
  MeasurementSet* ms;
  Quadrature quadrature;             // wavenumbers of the dataset
  int n;                             // measurements kept
  int P;                             // parameters
  int dataset;                       // 1-based number, names the files

  // Sized by the block, released with the dataset (n entries each).
  std::vector<double> c;             // calculated data, ohm (differences in a difference run)
  std::vector<double> c_best;        // calculated data of the best trial
  std::vector<double> e;             // residuals of the iteration
  std::vector<double> W0;            // weights as read
  std::vector<double> W_candidate;   // W' of the weight update
  std::vector<double> background;    // b: data of the start model (difference run)
  std::vector<unsigned> flags;       // ignore flags
  std::vector<double> J;             // n by P, column contiguous
  SolverWork solver;

  // Sized by the parameters (P entries each), ln conductivity.
  std::vector<double> m;             // accepted vector
  std::vector<double> m_trial;       // vector under test
  std::vector<double> dm;            // update of the inner solver
  std::vector<double> dm_best;       // update of the best alpha so far
  std::vector<double> scale;         // c_j: S_j to the power scale_exponent
  std::vector<double> element_values;  // E: maps spread over the elements

  double rms;          // present misfit
  double rms_old;      // misfit at the head of the iteration
  double alpha;        // accepted trade-off weight
  double decay;        // exponent k of the alpha decay, set at iteration 1
  double alpha_start;  // largest trial alpha of the iteration
  double dlog;         // spacing of the trials in log10
  double target;       // misfit aimed at by the iteration
  double best;         // best accepted misfit, -1 while none
  double best_alpha;
  double step;         // step length s
  int num_ignored;
  int iteration;
};

// How the step search left the iteration when it ends the dataset.
enum StepOutcome { STEP_OK = 0, STEP_TOO_SMALL, STEP_FORWARD_FAILED };

// m_trial := m + s * dm (s = 1: m + dm), scatter, forward solve into c and,
// in a difference run, subtract the background. Returns the forward
// solution's failure code.
int forward_trial(DatasetState* st, bool full_step, double s);

// The normal equations of the present iteration with trade-off weight
// alpha, under the weights the data hold.
NormalEquations normal_equations(const DatasetState* st, double alpha);

// Misfit of the present c under weights W (st->ms->data_weight or another
// array), raising ignore flags as the misfit does.
double misfit(DatasetState* st, const double* W);

void alpha_search(DatasetState* st);
StepOutcome step_halving(DatasetState* st);
void tolerance_refinement(DatasetState* st);

// Quadratic through the misfits M0 at step 0, M2 at s2 and M1 at s1 (each
// first made its difference from tol): the step s3 in (lower, s1) where the
// fitted misfit equals tol. Returns false when M1 > M2, the discriminant is
// negative or neither root lies inside.
bool step_fit(double lower, double s2, double s1, double* M0, double* M2,
              double* M1, double tol, double* s3);
