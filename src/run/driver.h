// The run driver: the program's single thread of control from entry to exit,
// and the steps of a run it is made of, which the benchmark and the fuzz
// targets call too.
#pragma once

#include <vector>

#include "forward/forward.h"
#include "inversion/inversion.h"
#include "mesh/mesh_model.h"
#include "run/run_context.h"

struct MeasurementSet;

// Everything sized by the mesh and the control file: lives for the run.
struct RunState {
  RunContext ctx;
  MeshModel mesh;
  MatrixPattern pattern;
  std::vector<double> log_conductivity;  // E, ln of conductivity
  ParameterMap map;
  OutputMask mask;
  ElectrodeTable table;
  ForwardTeam team;                     // one work per thread
  RegularisationMatrix regularisation;  // built once before the first dataset
};

// Start of a run: the floating-point mode, the memory handler, the timers,
// the fixed files (Q5.in, protocol.dat, electrodes.dat, electrodes.vtk,
// Q5.out), the banner and the threads of Q5_THREADS.
void start_run();

// Reading stage: the control file from record 1 to its last record, with
// the mesh, pattern, start model, parameter map, mask, electrode table and
// the forward work they size (one for each thread), and the pinned node.
void read_control_and_build(RunState* s);

// The mesh, pattern and electrodes of the run as the forward solver reads
// them.
ForwardMesh forward_mesh(const RunState& s);

// Forward job: the start model as forward_model.dat and forward_model.vtk.
void write_forward_model(const RunState& s);

// Reads the head of the next block of protocol.dat; 0 at end of file.
int read_block_head();

// Sizes ms for a block of `head` lines and reads it.
void read_block(const RunState& s, int head, MeasurementSet* ms);

// The wavenumbers of a block (point sources only) into wavenumbers and
// weights (MAX_WAVENUMBERS each), and the quadrature over them.
Quadrature choose_wavenumbers(RunState* s, const MeasurementSet& ms,
                              double* wavenumbers, double* weights);

// Runs Q5 in the working directory; never returns (every exit is a stop).
[[noreturn]] void run_q5();
