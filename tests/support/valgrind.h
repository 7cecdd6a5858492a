#ifndef TAMREL_TESTS_SUPPORT_VALGRIND_H_
#define TAMREL_TESTS_SUPPORT_VALGRIND_H_

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#endif

namespace tamrel::testing {

// True when the test runs under valgrind, where everything is many times slower.
inline bool underValgrind() {
#ifdef RUNNING_ON_VALGRIND
  return RUNNING_ON_VALGRIND != 0;
#else
  return false;
#endif
}

}  // namespace tamrel::testing

#endif  // TAMREL_TESTS_SUPPORT_VALGRIND_H_
