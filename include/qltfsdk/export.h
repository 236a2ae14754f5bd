// Export macro of the SDK library: QLTFS_API marks the classes and functions
// that libqltfsdk exports; everything else stays hidden inside it.
#ifndef QLTFSDK_EXPORT_H
#define QLTFSDK_EXPORT_H

#include "qltfsdk/wintypes.h"

#if defined(QLTFSDK_BUILD)
#define QLTFS_API QLT_DECL_EXPORT
#else
#define QLTFS_API QLT_DECL_IMPORT
#endif

#endif  // QLTFSDK_EXPORT_H
