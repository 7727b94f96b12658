#pragma once

#include <cstddef>

// UTF-8 and UTF-16, with one code unit per wchar_t. A byte that is not part of well-formed UTF-8 is
// decoded to a lone surrogate, U+DC80 + its low 7 bits, and that is encoded as the byte. So any
// byte string survives the round trip.

/// Decodes `size` bytes into `units`, which has room for `size` code units. Returns their count.
std::size_t decodeUtf8(const char* bytes, std::size_t size, wchar_t* units);

/// Encodes `count` code units into `bytes`, which holds `capacity`; 3 bytes per unit are enough.
/// Any other lone surrogate becomes U+FFFD. Returns the size, or `capacity` + 1 if it does not fit.
std::size_t encodeUtf8(const wchar_t* units, std::size_t count, char* bytes, std::size_t capacity);
