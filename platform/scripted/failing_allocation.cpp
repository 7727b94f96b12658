#include "platform/scripted/failing_allocation.h"

#include <cstdlib>
#include <new>

namespace {

int allocated = 0;
int failing = 0;
bool isProgram = false;

}  // namespace

int whileAllocating(int failingIndex, const std::function<int()>& program) {
  allocated = 0;
  failing = failingIndex;
  isProgram = true;
  const int result = program();
  isProgram = false;
  return result;
}

int allocations() { return allocated; }

outside_program::outside_program() : wasProgram(isProgram) { isProgram = false; }
outside_program::~outside_program() { isProgram = wasProgram; }

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return isProgram && ++allocated == failing ? nullptr : std::malloc(size);
}
void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
