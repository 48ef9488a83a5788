// Private header: sleeps that signals do not shorten.
#ifndef TOLV_VEX_TOLVSLEEP_HPP
#define TOLV_VEX_TOLVSLEEP_HPP

namespace tolv
{

/// Sleeps its full time, however many signals arrive. errno is left unchanged.
///
/// Units: i_seconds, whole seconds.
void sleepFully(unsigned int i_seconds);

} // namespace tolv

#endif
