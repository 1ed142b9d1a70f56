// Tecplot export (in progress): only the reset of its saved state exists so far.
#include "internal.hpp"

namespace mod_zelmgrid::detail {
void resettecplot() {}
}  // namespace mod_zelmgrid::detail
