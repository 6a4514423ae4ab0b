// Guard against counts in the input files that would need more memory than
// the machine has: the run stops with a message rather than being killed
// while it fills its arrays.
#pragma once

// Stops the run with " FATAL: not enough memory for <what>" on both streams
// when `bytes` exceed the machine's physical memory.
void require_memory(double bytes, const char* what);

// Puts `bytes` in place of the machine's physical memory as the limit of
// require_memory (0 restores it): a harness that runs the readers with a
// smaller budget than the machine's. The program itself never calls it.
void set_memory_limit(double bytes);
