// The error-code register of the utility library: the last error record of
// each thread. Hosts and the SDK find these functions by name after loading
// "qltUtilBase.dll" (see companions/utilbase/utilbase_api.h for the record and the
// function pointer types); they are declared here for the library itself.
//
// All four may be called from any thread at any time.
#ifndef QLTFSDK_COMPANIONS_UTILBASE_ERROR_REGISTER_H
#define QLTFSDK_COMPANIONS_UTILBASE_ERROR_REGISTER_H

#include "companions/utilbase/utilbase_api.h"

extern "C" {

// Takes one reference on the register (each user takes one and gives it back
// with DeleteErrorCodeVector). Returns 1.
QLTUTILBASE_API int CreateErrorCodeVector();
// Stores a copy of *pRecord (message included) as the last record of the
// thread it names (the calling thread when its id is 0). Returns 1, or 0 for
// a null record.
QLTUTILBASE_API int SetErrorCodeInfo(ErrorCodeRecord* pRecord);
// Copies the calling thread's last record into *pRecord, with a new BSTR
// message the caller frees. Returns 1, or 0 for a null record or when the
// thread has no record (then *pRecord is left alone).
QLTUTILBASE_API int GerLastErrorCodeInfo(ErrorCodeRecord* pRecord);
// Gives back one reference; the last one empties the register. Returns 1, or
// 0 when no reference was held.
QLTUTILBASE_API int DeleteErrorCodeVector();

}  // extern "C"

#endif  // QLTFSDK_COMPANIONS_UTILBASE_ERROR_REGISTER_H
