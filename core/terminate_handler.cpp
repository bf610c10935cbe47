// What ends a program that an exception leaves. GCC's own handler prints the name of the exception, and for
// that brings a name demangler of 62 KiB into every program; none of ours has anybody to read it. This one
// stands in its place because it has its name: the library's is then not linked. Built with GCC alone.

#include <cstdlib>

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
namespace __gnu_cxx {

void __verbose_terminate_handler();

void __verbose_terminate_handler() {
  std::abort();
}

}  // namespace __gnu_cxx
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
