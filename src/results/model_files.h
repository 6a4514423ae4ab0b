// Model files: the text table of element centres and values, and the legacy
// VTK file of the mesh with cell scalars.
#pragma once

struct MeshModel;
struct OutputMask;

// What write_model sends to the VTK channel.
enum { CONTENT_SENSITIVITY = 2, CONTENT_RESOLUTION = 3 };

// Writes the table of `values` (one per element) to table_channel and, by
// `content`, a new VTK file with resistivity (content < 2) or an appended
// Sensitivity (2) or Resolution (3) scalar to vtk_channel.
//   values  in: E doubles: log conductivity (raw_values false) or raw values
void write_model(const double* values, const MeshModel& mesh,
                 const OutputMask& mask, int nodes_per_element,
                 bool raw_values, int table_channel, int vtk_channel,
                 int content);

// Writes the percentage change table to channel 19 and appends the
// difference(percent) scalar on channel 18.
void write_difference(const double* values, const MeshModel& mesh,
                      const OutputMask& mask, int nodes_per_element);
