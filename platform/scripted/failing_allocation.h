#pragma once

#include <functional>

// operator new of the test program, which can fail an allocation that the program
// under test makes.

/// Runs the program under test, with its allocation of this index (from 1)
/// failing; 0: none does. Returns what `program` returns.
int whileAllocating(int failingIndex, const std::function<int()>& program);

/// The count of allocations that the program made in the last run.
int allocations();

/// While it lives, allocations are the test's own: they neither count nor fail.
class outside_program {
 public:
  outside_program();
  ~outside_program();
  outside_program(const outside_program&) = delete;
  outside_program& operator=(const outside_program&) = delete;

 private:
  bool wasProgram;
};
