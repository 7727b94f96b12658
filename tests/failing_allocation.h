#pragma once

// operator new of the test program, which can fail an allocation of the program under
// test. In a file of its own, so that no compiler sees through the pair of new and delete.

/// The allocations that the program has made, and the one (from 1) that fails; counted and
/// failed only while isProgram is true.
extern bool isProgram;
extern int allocations;
extern int failingAllocation;
