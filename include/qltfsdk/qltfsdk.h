// The one header a host includes: every exported class, record and free
// function of the SDK, the Windows-shaped types, and the utility library's
// writer options.
//
// No exception leaves an exported call. Anything thrown inside one gives the
// call's failure result with the last error ERROR_NOT_ENOUGH_MEMORY when
// memory or a thread could not be had, ERROR_GEN_FAILURE otherwise.
#ifndef QLTFSDK_QLTFSDK_H
#define QLTFSDK_QLTFSDK_H

#include "qltfsdk/datafifopool.h"
#include "qltfsdk/datapoolaccess.h"
#include "qltfsdk/export.h"
#include "qltfsdk/fileaccess.h"
#include "qltfsdk/fileex.h"
#include "qltfsdk/filetransfer.h"
#include "qltfsdk/sdkinfo.h"
#include "qltfsdk/wintypes.h"
#include "qltfsdk/writeroption.h"

#endif  // QLTFSDK_QLTFSDK_H
