// Overwriting secrets (a descrambled password, a hash's working state) so
// that no copy outlives its use.
#pragma once

#include <cstddef>

namespace tavik::platform {

// Overwrites a secret so that the compiler cannot drop the stores.
void wipeSecret(void* data, size_t size);

}  // namespace tavik::platform
