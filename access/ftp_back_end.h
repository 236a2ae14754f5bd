// The facade's way to the FTP back-end, kept apart so the facade does not
// depend on how that back-end is built.
#ifndef QLTFSDK_ACCESS_FTP_BACK_END_H
#define QLTFSDK_ACCESS_FTP_BACK_END_H

#include "access/kx_file_access_base.h"

// A new FTP back-end that the caller owns, or null when none can be made
// (no FTP support in this build, or no memory). Caller thread.
KxFileAccessBase* QltNewFtpBackEnd();

#endif  // QLTFSDK_ACCESS_FTP_BACK_END_H
