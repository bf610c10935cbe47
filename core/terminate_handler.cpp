// Ends a program on an unhandled exception. GCC's own handler prints the name of the exception, which pulls a
// name demangler of 62 KiB into every program, and nobody would read the output of ours. This one has the
// same name, so the library's is not linked. Built with GCC only.

#include <cstdlib>

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
namespace __gnu_cxx {

void __verbose_terminate_handler();

void __verbose_terminate_handler() {
  std::abort();
}

}  // namespace __gnu_cxx
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
