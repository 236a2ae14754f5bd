// Builds without an FTP back-end: the facade's Initialize(16) makes nothing.
#include "access/ftp_back_end.h"

KxFileAccessBase* QltNewFtpBackEnd() { return nullptr; }
