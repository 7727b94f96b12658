#pragma once

#include <cstddef>

// UTF-8 and UTF-16 with one code unit in a wchar_t. A byte that is not part of
// well-formed UTF-8 becomes a lone surrogate, U+DC80 + its low 7 bits, and turns
// back into that byte, so any byte string survives the round trip.

/// Decodes `size` bytes into `units`, which has room for `size` of them. Returns
/// the count of code units.
std::size_t decodeUtf8(const char* bytes, std::size_t size, wchar_t* units);

/// Encodes `count` code units into `bytes`, which holds `capacity`; 3 a unit always suffice. Any
/// other lone surrogate becomes U+FFFD. Returns the size, or `capacity` + 1 when it does not fit.
std::size_t encodeUtf8(const wchar_t* units, std::size_t count, char* bytes, std::size_t capacity);
