#include "common/VectorUnits.h"

namespace SurfaceReconstruction {

bool hostHasAvx2AndFma() {
#if defined(__x86_64__)
    static const bool available = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    }();
    return available;
#else
    return false;
#endif
}

}  // namespace SurfaceReconstruction
