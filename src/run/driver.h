// The run driver: the program's single thread of control from entry to exit.
#pragma once

// Runs Q5 in the working directory; never returns (every exit is a stop).
[[noreturn]] void run_q5();
