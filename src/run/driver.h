// The run driver: the program's single thread of control from entry to exit,
// and the reading steps that the fuzz targets run in-process.
#pragma once

#include <vector>

#include "forward/forward.h"
#include "inversion/inversion.h"
#include "mesh/mesh_model.h"
#include "run/run_context.h"

// Everything sized by the mesh and the control file: lives for the run.
struct RunState {
  RunContext ctx;
  MeshModel mesh;
  ConductanceMatrix cm;
  std::vector<double> log_conductivity;  // E, ln of conductivity
  ParameterMap map;
  OutputMask mask;
  ElectrodeTable table;
  ForwardWork work;
  double electrode_spacing;  // largest spacing of adjacent grid electrodes, m
  RegularisationMatrix regularisation;  // built once before the first dataset
};

// Runs Q5 in the working directory; never returns (every exit is a stop).
[[noreturn]] void run_q5();

// Reading stage: the control file (channel 12, open) from record 1 to its
// last record, building the mesh, pattern, start model, parameter map,
// mask and electrode table into *s (value-initialised by the caller).
void read_control_and_build(RunState* s);

// Reads the head of the next block of protocol.dat; 0 at end of file.
int read_block_head();
