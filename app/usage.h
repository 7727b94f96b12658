#pragma once

/// Writes the usage text, 13 lines, to the wide standard output.
void printUsage();
