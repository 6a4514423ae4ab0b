// Numeric constants shared by the subsystems: pi, and the two shortened
// forms of it that the computed resistances are fixed to.
#pragma once

// pi, the nearest double.
inline constexpr double pi = 3.141592653589793;

// pi to ten significant digits. The 1/pi of the wavenumber weights and the
// 4 pi of the geometric factor are formed with it, so every transfer
// resistance and apparent resistivity carries its rounding: written as pi,
// every output would change in its last digits.
inline constexpr double pi_ten_digits = 3.141592654;

// pi rounded to single precision, widened. The divisors 4 pi and 2 pi of
// the primary potentials are its multiples (exact, being by powers of two),
// and the secondary potentials of every run with singularity removal are
// fixed to them, as above.
inline constexpr double pi_single = static_cast<double>(static_cast<float>(pi));
