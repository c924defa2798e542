/* Compiles every public header as C11 inside the library build, so a header that only works
   from C++ (or whose pinned layout differs under C) breaks the build at once. */
#include "hadra/hadra.h"

_Static_assert(sizeof(datum) == 16, "datum: pointer then 32-bit length");
_Static_assert(offsetof(datum, dsize) == 8, "datum layout");
