// Public header: includes only public tolv headers.
#ifndef TOLV_VEX_TOLVBASE_HPP
#define TOLV_VEX_TOLVBASE_HPP

#include "tolv/vex/tolvError.hpp"
#include "tolv/vex/tolvExport.hpp"

namespace tolv
{

/// The root of the library's classes; gives each of them the operation that
/// makes an Error.
///
/// Callers build an error where an operation fails and return it at once; no
/// layer prints, traces or commits it on the way up.
///
/// Blocks:  as making an Error does.
/// Threads: any; neither operation has state. errno is left unchanged.
class TOLV_EXPORT Base
{
  public:
    virtual ~Base();

    /// As the other form, with the library's trace descriptor and i_text as
    /// the FORMAT without further arguments: a "%" in it is a conversion, so
    /// never pass foreign text here.
    virtual pError_t BuildLog(unsigned char i_origin, unsigned short i_reason,
                              const char* i_text) TOLV_PRINTF(4, 0);

    /// Makes an error with a formatted message, see Error.
    ///
    /// i_traceDesc is accepted and not used.
    ///
    /// Returns: the error; empty, deliberately, when the message is empty;
    ///          empty too when it cannot be formatted or memory is short.
    virtual pError_t BuildLog(unsigned char i_origin, unsigned short i_reason,
                              int i_traceDesc, const char* i_format, ...)
        TOLV_PRINTF(5, 6);
};

} // namespace tolv

#endif
