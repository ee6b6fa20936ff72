// Whether the host's processor has the vector units that the host's vector paths are built for.
#pragma once

namespace SurfaceReconstruction {

// AVX2 and FMA; decided once a process. Defined in a file built for any x86-64 processor, so that asking
// is safe everywhere.
bool hostHasAvx2AndFma();

}  // namespace SurfaceReconstruction
