// Included first in every file of a build with Clang's thread sanitizer. Clang 14's does not know
// pthread_cond_clockwait: it takes a mutex for held through the whole wait, and reports races that are
// none. Without this macro the standard library waits by pthread_cond_timedwait, which it knows.
#ifdef __cplusplus
#include <bits/c++config.h>
#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT
#endif
