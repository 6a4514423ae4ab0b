// Model files: the table of element centres with values (.dat) and the legacy
// VTK unstructured grid with its cell scalars (.vtk), for any array with one
// real per element; also the percentage difference map.
#include "results/model_files.h"

#include <cmath>
#include <cstddef>
#include <vector>

#include "mesh/mesh_model.h"
#include "textio/textio.h"

namespace {

// Centre of element e (1-based) as the user sees it: four-node elements
// count depth downward, so their centre is negated to give elevation.
void centre(const MeshModel& mesh, int npe, int e, double* cx, double* cy) {
  element_centre(mesh.node_x.data(), mesh.node_y.data(),
                 &mesh.element_nodes[4 * static_cast<std::size_t>(e - 1)], npe,
                 cx, cy);
  if (npe != 3) *cy = -*cy;
}

// The table, one line per written element.
//   values  in: E doubles; log conductivity, or raw values if raw_values
void write_table(const double* values, const MeshModel& mesh,
                 const OutputMask& mask, int npe, bool raw_values,
                 int channel) {
  for (int e = 1; e <= mesh.num_elements; ++e) {
    if (!mask.element_mask[e - 1]) continue;
    double cx = 0.0;
    double cy = 0.0;
    centre(mesh, npe, e, &cx, &cy);
    double v = values[e - 1];
    if (!raw_values) {
      double rho = std::exp(-v);
      tio_write(channel, "4E15.5",
                {wv_real(cx), wv_real(cy), wv_real(rho), wv_real(std::log10(rho))});
    } else if (v > 0.0) {
      tio_write(channel, "4E15.5",
                {wv_real(cx), wv_real(cy), wv_real(v), wv_real(std::log10(v))});
    } else {
      // No logarithm exists: the line ends after the value.
      tio_write(channel, "3E15.5", {wv_real(cx), wv_real(cy), wv_real(v)});
    }
  }
}

// The mesh block of a new VTK file: header, points, cells and cell types.
// Point ids are 0-based and count written points only, so a node's id drops
// by one for every left-out node before it.
void write_vtk_mesh(const MeshModel& mesh, const OutputMask& mask, int npe,
                    int np, int ne, int channel) {
  tio_write(channel,
            "'# vtk DataFile Version 3.0', /, 'Output from Q5', /, 'ASCII', /, "
            "'DATASET UNSTRUCTURED_GRID', /, 'POINTS ', I10, ' double'",
            {wv_int(np)});
  for (int n = 1; n <= mesh.num_nodes; ++n) {
    if (!mask.node_mask[n - 1]) continue;
    double y = npe == 3 ? mesh.node_y[n - 1] : -mesh.node_y[n - 1];
    tio_write(channel, "2F12.5, F5.0",
              {wv_real(mesh.node_x[n - 1]), wv_real(y), wv_real(0.0)});
  }

  int corners = npe == 3 ? 3 : 4;
  tio_write(channel, "' ', 'CELLS ', 2I10",
            {wv_int(ne), wv_int(static_cast<long long>(ne) * (corners + 1))});

  // left_out[n] = number of nodes among 1..n that are not written.
  std::vector<int> left_out(static_cast<std::size_t>(mesh.num_nodes) + 1, 0);
  for (int n = 1; n <= mesh.num_nodes; ++n)
    left_out[n] = left_out[n - 1] + (mask.node_mask[n - 1] ? 0 : 1);
  bool all_elements = ne == mesh.num_elements;

  for (int e = 1; e <= mesh.num_elements; ++e) {
    if (!mask.element_mask[e - 1]) continue;
    const int* slot = &mesh.element_nodes[4 * static_cast<std::size_t>(e - 1)];
    WriteValue ids[5];
    ids[0] = wv_int(corners);
    for (int s = 0; s < corners; ++s) {
      int node = slot[s];
      ids[s + 1] = wv_int(all_elements ? node - 1 : node - 1 - left_out[node]);
    }
    tio_write_n(channel, "5I10", ids, static_cast<std::size_t>(corners) + 1);
  }

  tio_write(channel, "'CELL_TYPES', I10", {wv_int(ne)});
  int type = npe == 3 ? 5 : 9;
  for (int e = 0; e < ne; ++e) tio_write(channel, "I3$", {wv_int(type)});
}

// One scalar section appended to the open VTK file: the heading (whose
// leading / ends the line before it) and all values on one line. With
// log10_of set the base-10 logarithm of each value is written.
void write_scalar(const double* values, const MeshModel& mesh,
                  const OutputMask& mask, const char* heading, bool log10_of,
                  int channel) {
  tio_write(channel, heading);
  for (int e = 0; e < mesh.num_elements; ++e) {
    if (!mask.element_mask[e]) continue;
    double v = log10_of ? std::log10(values[e]) : values[e];
    tio_write(channel, "F20.5$", {wv_real(v)});
  }
}

}  // namespace

void write_model(const double* values, const MeshModel& mesh,
                 const OutputMask& mask, int nodes_per_element,
                 bool raw_values, int table_channel, int vtk_channel,
                 int content) {
  int npe = nodes_per_element;
  write_table(values, mesh, mask, npe, raw_values, table_channel);

  int np = 0;
  for (int n = 0; n < mesh.num_nodes; ++n) np += mask.node_mask[n] ? 1 : 0;
  int ne = 0;
  for (int e = 0; e < mesh.num_elements; ++e) ne += mask.element_mask[e] ? 1 : 0;

  if (content < 2) {
    write_vtk_mesh(mesh, mask, npe, np, ne, vtk_channel);
    tio_write(vtk_channel,
              "/, 'POINT_DATA', I10, /, 'CELL_DATA', I10, /, "
              "'SCALARS Resistivity(Ohm-m) double 1', /, 'LOOKUP_TABLE default'",
              {wv_int(np), wv_int(ne)});
    if (raw_values) {
      // Raw values stand under the resistivity heading, with no second
      // scalar.
      for (int e = 0; e < mesh.num_elements; ++e)
        if (mask.element_mask[e])
          tio_write(vtk_channel, "F20.5$", {wv_real(values[e])});
    } else {
      // The logarithm is taken of the resistivity itself, not formed by
      // scaling the log conductivity, so both scalars round alike.
      std::vector<double> rho(static_cast<std::size_t>(mesh.num_elements), 0.0);
      for (int e = 0; e < mesh.num_elements; ++e) rho[e] = std::exp(-values[e]);
      for (int e = 0; e < mesh.num_elements; ++e)
        if (mask.element_mask[e])
          tio_write(vtk_channel, "F20.5$", {wv_real(rho[e])});
      write_scalar(rho.data(), mesh, mask,
                   "/, 'SCALARS Resistivity(log10) double 1', /, "
                   "'LOOKUP_TABLE default'",
                   true, vtk_channel);
    }
  }
  if (content == CONTENT_SENSITIVITY)
    write_scalar(values, mesh, mask,
                 "/, 'SCALARS Sensitivity(log10) double 1', /, "
                 "'LOOKUP_TABLE default'",
                 true, vtk_channel);
  if (content == CONTENT_RESOLUTION)
    write_scalar(values, mesh, mask,
                 "/, 'SCALARS Resolution(log10) double 1', /, "
                 "'LOOKUP_TABLE default'",
                 true, vtk_channel);
}

void write_difference(const double* values, const MeshModel& mesh,
                      const OutputMask& mask, int nodes_per_element) {
  for (int e = 1; e <= mesh.num_elements; ++e) {
    if (!mask.element_mask[e - 1]) continue;
    double cx = 0.0;
    double cy = 0.0;
    centre(mesh, nodes_per_element, e, &cx, &cy);
    tio_write(CH_ITER_VTK, "3E15.5",
              {wv_real(cx), wv_real(cy), wv_real(values[e - 1])});
  }
  write_scalar(values, mesh, mask,
               "/, 'SCALARS difference(percent) double 1', /, "
               "'LOOKUP_TABLE default'",
               false, CH_MODEL_VTK);
}
