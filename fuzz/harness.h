// Shared parts of the fuzz targets: an input split into named files, q5's
// reading road run on them in memory, and the stops taken back as a normal
// end of the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// One file of a fuzz input.
struct FuzzFile {
  std::string name;  // as q5 opens it: "Q5.in", "mesh.dat", "protocol.dat", ...
  std::string data;  // contents
};

// Splits an input into files. The input starts with the file `first_name`;
// a line "%% NAME" starts the file NAME (a later file of the same name
// replaces an earlier one). Files of `defaults` that the input does not
// give are added.
std::vector<FuzzFile> split_input(const uint8_t* data, size_t size, const char* first_name,
                                  const std::vector<FuzzFile>& defaults);

// Runs `step` with the files in memory, the console dropped (kept when the
// environment has Q5_FUZZ_ECHO set) and every stop caught; then closes the
// channels. Returns the exit status a stop would have given, or -1 when the
// step returned.
int run_in_memory(const std::vector<FuzzFile>& files, void (*step)(void* arg), void* arg);

// q5's road on the files: the fixed channels opened as q5 opens them, the
// control file read and the run built (read_control_and_build); with
// `with_protocol`, then the blocks of protocol.dat as the inverse job reads
// them (the forward job: its first block only). Ends at the first stop.
void run_reading_road(const std::vector<FuzzFile>& files, bool with_protocol);
