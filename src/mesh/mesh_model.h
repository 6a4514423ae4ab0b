// Mesh and model: the mesh in its common form, the electrode table, the start
// model, the map of elements to inversion parameters and the output mask.
// Array storage is 0-based; every id stored in an array is 1-based, as in the
// files: node n has its x in node_x[n - 1].
#pragma once

#include <vector>

struct RunContext;

struct MeshModel {
  int num_nodes;                   // N
  int num_elements;                // E
  std::vector<double> node_x;      // N, metres
  std::vector<double> node_y;      // N, metres; depth positive down on a grid
  // Four slots per element: slot s (1..4) of element e (1..E) is
  // element_nodes[4 * (e - 1) + s - 1]. One further entry stands behind the
  // last element and holds node 1 (read as the "fifth node" of the last
  // quadrilateral by the area weights of the reference conductivity).
  // Size 4 * E + 1. Triangles use three slots; the fourth holds the zone
  // number from mesh.dat.
  std::vector<int> element_nodes;
  std::vector<int> element_parameter;  // E, 1-based parameter, 0 for none
  std::vector<int> pin_flags;          // N, 1 at the pinned node, else 0
};

struct ElectrodeTable {
  int num_electrodes;              // L
  std::vector<int> electrode_nodes;  // L, node of table entry k
  std::vector<int> electrode_ids;    // L, electrode number used by measurements
};

// Parameter zones of an inverse job.
struct ParameterMap {
  int num_parameters;              // P
  std::vector<double> start_parameters;  // P, log conductivity of each parameter at start
};

// What is written to model files.
struct OutputMask {
  std::vector<unsigned char> element_mask;  // E, 1 if the element is written
  std::vector<unsigned char> node_mask;     // N, 1 if the node belongs to a written element
};

// Vertex mean of one element: its first nodes_per_element (3 or 4) node
// coordinates summed in slot order, divided by that count.
//   nodes   in: the element's slots, 1-based node numbers
//   cx, cy  out: metres, in the frame of node_x and node_y
void element_centre(const double* node_x, const double* node_y,
                    const int* nodes, int nodes_per_element, double* cx,
                    double* cy);

// Reads or builds the mesh for ctx->mesh_type (3: mesh.dat on channel 9;
// 4, 5: grid records of Q5.in), sizes every MeshModel array, and turns
// mesh_type 5 into 4. Sets num_x, num_y for mesh.dat. An unknown mesh type is
// fatal. Node numbers of mesh.dat outside 1..N are fatal.
void read_mesh(RunContext* ctx, MeshModel* mesh);

// mesh_type 3: reads mesh_scale (record 4) and multiplies every coordinate.
void read_mesh_scale(RunContext* ctx, MeshModel* mesh);

// Reads record 5 and the start model that follows (regions or a start file)
// into log_conductivity (E entries, -ln of resistivity). Elements that no
// region reaches start at 0.0.
void read_start_model(RunContext* ctx, const MeshModel& mesh,
                      std::vector<double>* log_conductivity);

// Inverse job: reads the patching records (grid only), builds
// element_parameter and num_parameters, and fills start_parameters from
// log_conductivity (the last element of a parameter sets it).
void build_parameter_map(RunContext* ctx, MeshModel* mesh,
                         const std::vector<double>& log_conductivity,
                         ParameterMap* map);

// Reads the polyline (record 9) and forms the output mask.
void read_polyline_mask(const RunContext& ctx, MeshModel* mesh, OutputMask* mask);

// Pure mask test, shared by read_polyline_mask and its tests: given the
// polyline px, py (n points, 0-based arrays), sets mask entries. node_y is
// taken in height (positive up) as handed in.
void polyline_mask(const MeshModel& mesh, int nodes_per_element, int n,
                   const double* px, const double* py, OutputMask* mask);

// Reads num_electrodes and the electrode records (records 10, 11), checks
// grid columns and rows, writes electrodes.dat and electrodes.vtk on
// channels 21 and 22 and closes both.
void read_electrodes(const RunContext& ctx, const MeshModel& mesh,
                     ElectrodeTable* table);
