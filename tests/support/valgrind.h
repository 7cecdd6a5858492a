#ifndef TAMREL_TESTS_SUPPORT_VALGRIND_H_
#define TAMREL_TESTS_SUPPORT_VALGRIND_H_

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#endif

namespace tamrel::testing {

// True under valgrind, where everything runs many times slower.
inline bool underValgrind() { return RUNNING_ON_VALGRIND != 0; }

}  // namespace tamrel::testing

#endif  // TAMREL_TESTS_SUPPORT_VALGRIND_H_
