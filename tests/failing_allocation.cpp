// operator new of the test program. In its own file so that the compiler cannot optimise new/delete
// pairs away.

#include <cstdlib>
#include <new>

namespace scripted {
bool isProgram = false;
int allocations = 0;
int failingAllocation = 0;
}  // namespace scripted
using namespace scripted;

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return isProgram && ++allocations == failingAllocation ? nullptr : std::malloc(size);
}
void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
