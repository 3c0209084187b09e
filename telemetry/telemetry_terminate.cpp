// In the place of the C++ library's handler where that is linked in: the process ends as it would, without
// the name of the exception.
#include <cstdlib>

namespace __gnu_cxx {
void __verbose_terminate_handler(); // the linker takes this one: the library's stands in an object of its own
void __verbose_terminate_handler() {
    abort();
}
} // namespace __gnu_cxx
