// The interface is header-only; this unit anchors the component until its
// back-ends land beside it.
#include "access/kx_file_access_base.h"
