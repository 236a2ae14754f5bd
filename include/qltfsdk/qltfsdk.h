// The one header a host includes: every exported class, record and free
// function of the SDK, the Windows-shaped types, and the utility library's
// writer options.
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
