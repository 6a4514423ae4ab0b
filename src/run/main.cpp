// Entry point of q5: no arguments, everything comes from Q5.in.
#include "run/driver.h"

int main() { run_q5(); }
